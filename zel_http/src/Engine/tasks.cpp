// The registry of running transfers: `tasks`, under their easy handles. Entry points for any thread
// queue their work; the operations behind them run on the engine thread.

#include <iterator>
#include <utility>

#include "Engine/active_task.h"
#include "zel_http/engine.h"
#include "zel_http/engine_hooks.h"

namespace zel::http {

void Engine::addNewRequest(std::shared_ptr<Request> request) {
    trace("addNewRequest");
    enqueue(
        [this, queued = CountedTransfer(std::move(request))] { prepareAddTask(queued.request); });
    engine_request_added();
}

void Engine::tryToCancelRequest(std::shared_ptr<Request> request) {
    if (!request) return;
    enqueue([this, request = std::move(request)] { removeTask(request); });
}

void Engine::pauseRequest(std::shared_ptr<Request> request) {
    enqueue([this, request = std::move(request)] { pauseTask(request); });
}

void Engine::resumeRequest(std::shared_ptr<Request> request) {
    enqueue([this, request = std::move(request)] { resumeTask(request); });
}

void Engine::prepareAddTask(std::shared_ptr<Request> request) { addTask(std::move(request)); }

void Engine::registerTask(const std::shared_ptr<ActiveTask>& task) {
    const auto earlier = getActiveTask(task->request);
    tasks[task->curl] = task;
    handlesOfRequests.emplace(task->request.get(), task->curl);
    if (tasks.size() > peakTasks) keepConnectionsFor(tasks.size());
    // Pause and resume now act on this transfer; what they held of an earlier one is released.
    if (earlier && getActiveTask(task->request) == task) {
        pendingPauses.erase(earlier->curl);
        curl_easy_pause(earlier->curl, CURLPAUSE_CONT);
    }
}

/// libcurl caches four connections for each current transfer. After a batch of outcomes there are
/// few, and the next batch would reconnect: the cache is sized by the peak.
void Engine::keepConnectionsFor(std::size_t transfers) {
    peakTasks = transfers;
    curl_multi_setopt(multiHandle, CURLMOPT_MAXCONNECTS, static_cast<long>(4 * transfers));
}

void Engine::unregisterTask(const ActiveTask& task) {
    pendingPauses.erase(task.curl);
    usedShares.erase(task.curl);
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
    if (isPaused(*task) || usedShares.count(task->curl) != 0) {
        // libcurl (7.88) leaks what it holds of a paused stream beside others: it is let go first.
        task->dropped = true;
        curl_easy_pause(task->curl, CURLPAUSE_CONT);
    }
    doCurlCleanup(task);
    unregisterTask(*task);
}

void Engine::doCurlCleanup(std::shared_ptr<ActiveTask> task) {
    curl_multi_remove_handle(multiHandle, task->curl);
}

void Engine::pauseTask(std::shared_ptr<Request> request) {
    checkEngineThread();
    const auto task = getActiveTask(std::move(request));
    if (!task) return;
    // libcurl refuses while the transfer has no connection yet.
    if (curl_easy_pause(task->curl, CURLPAUSE_ALL) != CURLE_OK) pendingPauses.insert(task->curl);
}

void Engine::resumeTask(std::shared_ptr<Request> request) {
    checkEngineThread();
    const auto task = getActiveTask(std::move(request));
    if (!task) return;
    pendingPauses.erase(task->curl);
    curl_easy_pause(task->curl, CURLPAUSE_CONT);
}

/// A pause of the request is one of this transfer, unless another of it has a lower handle.
bool Engine::isPaused(const ActiveTask& task) {
    return task.request->paused && getActiveTask(task.request).get() == &task;
}

void Engine::applyPendingPauses() {
    for (auto pending = pendingPauses.begin(); pending != pendingPauses.end();) {
        const bool settled =
            !isPaused(*tasks.at(*pending)) || curl_easy_pause(*pending, CURLPAUSE_ALL) == CURLE_OK;
        pending = settled ? pendingPauses.erase(pending) : std::next(pending);
    }
}

/// libcurl reads up to 100 receive buffers of one transfer in a pass, each perhaps of many small
/// blocks, while all others wait. This many have to do: 8 MiB of a large download.
bool Engine::hasHadItsShare(ActiveTask& task) {
    constexpr std::size_t share = 512;
    if (task.pass != pass) {
        task.pass = pass;
        task.blocksInPass = 0;
    }
    if (++task.blocksInPass <= share) return false;
    usedShares.insert(task.curl);
    return true;
}

void Engine::continueShares() {
    ++pass;
    for (void* handle : std::exchange(usedShares, {})) {
        const auto task = findTask(handle);
        if (task && !isPaused(*task)) curl_easy_pause(handle, CURLPAUSE_CONT);
    }
}

}  // namespace zel::http
