#include "Engine/active_task.h"

#include <utility>

namespace zel::http {

Engine::ActiveTask::ActiveTask(std::shared_ptr<Request> request)
    : request(std::move(request)), curl(curl_easy_init()), counted(std::in_place, this->request) {}

Engine::ActiveTask::~ActiveTask() {
    if (curl != nullptr) curl_easy_cleanup(curl);
}

void Engine::ActiveTask::fail(CURLcode code) {
    if (failure == CURLE_OK) failure = code;
}

}  // namespace zel::http
