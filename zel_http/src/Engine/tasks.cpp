// The registry of running transfers: `tasks`, under their easy handles. Entry points for any thread
// queue their work; the operations behind them run on the engine thread.

#include <algorithm>
#include <utility>

#include "Engine/active_task.h"
#include "zel_http/engine.h"
#include "zel_http/engine_hooks.h"

namespace zel::http {

void Engine::addNewRequest(std::shared_ptr<Request> request) {
    trace("addNewRequest");
    queueRequest([this, request = std::move(request)] { prepareAddTask(request); });
    engine_request_added();
}

void Engine::tryToCancelRequest(std::shared_ptr<Request> request) {
    queueRequest([this, request = std::move(request)] { removeTask(request); });
}

void Engine::pauseRequest(std::shared_ptr<Request> request) {
    queueRequest([this, request = std::move(request)] { pauseTask(request); });
}

void Engine::resumeRequest(std::shared_ptr<Request> request) {
    queueRequest([this, request = std::move(request)] { resumeTask(request); });
}

void Engine::prepareAddTask(std::shared_ptr<Request> request) { addTask(std::move(request)); }

std::shared_ptr<Engine::ActiveTask> Engine::getActiveTask(std::shared_ptr<Request> request) {
    const auto found = std::find_if(tasks.begin(), tasks.end(), [&](const auto& entry) {
        return entry.second->request == request;
    });
    return found == tasks.end() ? nullptr : found->second;
}

void Engine::removeTask(std::shared_ptr<Request> request) {
    checkEngineThread();
    const auto task = getActiveTask(std::move(request));
    if (!task) return;
    doCurlCleanup(task);
    tasks.erase(task->curl);
}

void Engine::doCurlCleanup(std::shared_ptr<ActiveTask> task) {
    curl_multi_remove_handle(multiHandle, task->curl);
}

void Engine::pauseTask(std::shared_ptr<Request> request) {
    checkEngineThread();
    const auto task = getActiveTask(std::move(request));
    if (!task) return;
    task->paused = true;
    // libcurl refuses while the transfer has no connection yet.
    task->pausePending = curl_easy_pause(task->curl, CURLPAUSE_ALL) != CURLE_OK;
    if (task->pausePending) pendingPauses.push_back(task);
}

void Engine::resumeTask(std::shared_ptr<Request> request) {
    checkEngineThread();
    const auto task = getActiveTask(std::move(request));
    if (!task) return;
    task->paused = false;
    task->pausePending = false;
    curl_easy_pause(task->curl, CURLPAUSE_CONT);
}

void Engine::applyPendingPauses() {
    const auto settled = [](const std::weak_ptr<ActiveTask>& pending) {
        const auto task = pending.lock();
        if (!task || !task->pausePending) return true;
        task->pausePending = curl_easy_pause(task->curl, CURLPAUSE_ALL) != CURLE_OK;
        return !task->pausePending;
    };
    pendingPauses.erase(std::remove_if(pendingPauses.begin(), pendingPauses.end(), settled),
                        pendingPauses.end());
}

}  // namespace zel::http
