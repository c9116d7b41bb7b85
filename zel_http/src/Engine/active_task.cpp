#include "Engine/active_task.h"

#include <utility>

namespace zel::http {

Engine::ActiveTask::ActiveTask(std::shared_ptr<Request> request)
    : request(std::move(request)), curl(curl_easy_init()), counted(std::in_place, this->request) {}

Engine::ActiveTask::~ActiveTask() {
    if (headerList != nullptr) curl_slist_free_all(headerList);
    if (curl != nullptr) curl_easy_cleanup(curl);
}

void Engine::ActiveTask::appendHeader(const char* line) {
    if (curl_slist* extended = curl_slist_append(headerList, line)) {
        headerList = extended;
    } else {
        fail(CURLE_OUT_OF_MEMORY);
    }
}

void Engine::ActiveTask::fail(CURLcode code) {
    if (failure == CURLE_OK) failure = code;
}

}  // namespace zel::http
