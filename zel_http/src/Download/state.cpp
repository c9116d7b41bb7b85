// What the threads of a download share: posts to the executor, requests to the engine thread.

#include "Download/state.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "Download/sink.h"
#include "Download/transfer.h"
#include "zel_http/engine.h"

namespace zel::http {

DownloadState::DownloadState(oru::executor& executor, logging::Logger& logger,
                             DownloadConfig config, DownloadCallbacks callbacks)
    : config(std::move(config)),
      executor(executor),
      logger(logger),
      cancelled_descriptor(
          std::holds_alternative<DescriptorSink>(this->config.sink) ? eventfd(0, EFD_CLOEXEC) : -1),
      callbacks(std::make_shared<const DownloadCallbacks>(std::move(callbacks))),
      blocks(this->config.limits.bytes_per_second) {
    if (cancelled_descriptor < 0 && std::holds_alternative<DescriptorSink>(this->config.sink)) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

DownloadState::~DownloadState() {
    if (cancelled_descriptor >= 0) close(cancelled_descriptor);
}

void DownloadState::post(Call call) {
    executor.post(
        [self = shared_from_this(), call = std::move(call)] {
            // A copy: the callback may drop the handle.
            if (const auto callbacks = self->callbacks) call(*callbacks);
        },
        0);
}

void DownloadState::postOutcome(Call call) {
    executor.post(
        [self = shared_from_this(), call = std::move(call)] {
            if (const auto callbacks = std::exchange(self->callbacks, nullptr)) call(*callbacks);
        },
        0);
}

void DownloadState::postQuestion(std::function<std::size_t(const DownloadCallbacks&)> ask) {
    /// Answers also when the callback throws.
    struct Answer {
        explicit Answer(DownloadState& state) : state(state) {}
        Answer(const Answer&) = delete;
        Answer& operator=(const Answer&) = delete;
        ~Answer() {
            state.set([this] { state.answer = value; });
        }
        DownloadState& state;
        std::size_t value = 0;
    };
    post([this, ask = std::move(ask)](const DownloadCallbacks& callbacks) {
        Answer answer(*this);
        answer.value = ask(callbacks);
    });
}

std::size_t DownloadState::writeEagerly(std::string_view block) noexcept {
    const DownloadLimits& limits = config.limits;
    if (waiting_sink == nullptr || paused || cancelled || limits.bytes_per_second != 0) return 0;
    const std::uint64_t size = waiting_sink->have().offset + block.size();
    if (limits.size != 0 && size > limits.size) return 0;
    return waiting_sink->writeEagerly(block);
}

void DownloadState::adjustTransfer() {
    std::shared_ptr<Transfer> running;
    {
        const std::lock_guard lock(mutex);
        running = transfer.lock();
    }
    if (!running || !Engine::hasEngine()) return;
    Engine::getEngine()->queueRequest([running] { running->adjust(); });
}

}  // namespace zel::http
