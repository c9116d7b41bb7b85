#include "Engine/outbox.h"

#include <algorithm>

namespace zel::http {

thread_local Outbox* Outbox::current = nullptr;

Outbox::Outbox() : outer(current) { current = this; }

Outbox::~Outbox() { current = outer; }

void Outbox::post(oru::executor& executor, std::function<void()> task) {
    if (current != nullptr) {
        current->add(executor, std::move(task));
    } else {
        executor.post(std::move(task), 0);
    }
}

void Outbox::handOverWhatIsHeld() {
    if (current != nullptr) current->handOver();
}

void Outbox::add(oru::executor& executor, std::function<void()> task) {
    auto parcel = std::find_if(parcels.begin(), parcels.end(),
                               [&](const Parcel& each) { return each.executor == &executor; });
    if (parcel == parcels.end()) {
        constexpr std::size_t usual = 16;
        parcel = parcels.insert(parcel, {&executor, {}});
        parcel->tasks.reserve(usual);
    }
    parcel->tasks.push_back(std::move(task));
}

void Outbox::handOver() {
    for (auto& parcel : std::exchange(parcels, {})) {
        parcel.executor->post_all(std::move(parcel.tasks), 0);
    }
}

}  // namespace zel::http
