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
    ++request->transfers;  // as one that is queued
    enqueue([this, request = std::move(request)] {
        prepareAddTask(request);
        --request->transfers;
    });
    engine_request_added();
}

void Engine::tryToCancelRequest(std::shared_ptr<Request> request) {
    if (!request) return;
    enqueue([this, request = std::move(request)] { removeTask(request); });
}

void Engine::pauseRequest(std::shared_ptr<Request> request) {
    if (!request) return;
    // Until the closure runs, or is destroyed in a queue that nobody runs any more.
    ++request->queuedPauses;
    std::shared_ptr<Request> counted(request.get(),
                                     [request](Request*) { --request->queuedPauses; });
    enqueue([this, request, counted = std::move(counted)]() mutable {
        counted.reset();
        pauseTask(request);
    });
}

void Engine::resumeRequest(std::shared_ptr<Request> request) {
    enqueue([this, request = std::move(request)] { resumeTask(request); });
}

void Engine::prepareAddTask(std::shared_ptr<Request> request) { addTask(std::move(request)); }

void Engine::registerTask(const std::shared_ptr<ActiveTask>& task) {
    ++task->request->transfers;
    tasks[task->curl] = task;
    handlesOfRequests.emplace(task->request.get(), task->curl);
    if (tasks.size() > mostTasks) keepConnectionsFor(tasks.size());
}

/// libcurl keeps four connections for each transfer that there is at the moment. A batch of
/// outcomes leaves few for a moment, and the next batch would have to connect again.
void Engine::keepConnectionsFor(std::size_t transfers) {
    mostTasks = transfers;
    curl_multi_setopt(multiHandle, CURLMOPT_MAXCONNECTS, static_cast<long>(4 * transfers));
}

void Engine::unregisterTask(const ActiveTask& task) {
    handlesOfRequests.erase({task.request.get(), task.curl});
    tasks.erase(task.curl);
}

/// Of several transfers of one request the one with the lowest handle.
std::shared_ptr<Engine::ActiveTask> Engine::getActiveTask(std::shared_ptr<Request> request) {
    const auto found = handlesOfRequests.lower_bound({request.get(), nullptr});
    if (found == handlesOfRequests.end() || found->first != request.get()) return nullptr;
    return tasks.at(found->second);
}

void Engine::removeTask(std::shared_ptr<Request> request) {
    checkEngineThread();
    const auto task = getActiveTask(std::move(request));
    if (!task) return;
    doCurlCleanup(task);
    unregisterTask(*task);
    --task->request->transfers;
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
