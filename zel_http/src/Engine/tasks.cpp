// The registry of running transfers: `tasks`, keyed by easy handle. The operations for any thread
// queue their work; those that do it run on the engine thread.

#include <algorithm>
#include <functional>
#include <iterator>
#include <utility>

#include "Engine/active_task.h"
#include "Engine/statistics.h"
#include "zel_http/engine.h"
#include "zel_http/engine_hooks.h"

namespace zel::http {

void Engine::addNewRequest(std::shared_ptr<Request> request) {
    trace("addNewRequest");
    enqueue(
        [this, queued = CountedTransfer(std::move(request))] {
            counters->takeFromQueue();
            prepareAddTask(queued.request);
        },
        true);
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
    void*& handle = task->request->handle;
    if (!earlier || std::less<>()(task->curl, handle)) handle = task->curl;
    if (tasks.size() > peakTasks) keepConnectionsFor(tasks.size());
    // If this transfer has the lower handle, pause and resume act on it from now on. A paused
    // earlier one would never be resumed, so it is resumed here.
    if (earlier && handle == task->curl) {
        pendingPauses.erase(earlier->curl);
        setPause(*earlier, CURLPAUSE_CONT);
    }
}

/// Sizes the connection cache by the peak of transfers. libcurl's own size is four times the
/// current transfers: it would shrink after a batch, and the next batch would reconnect.
void Engine::keepConnectionsFor(std::size_t transfers) {
    peakTasks = transfers;
    curl_multi_setopt(multiHandle, CURLMOPT_MAXCONNECTS, static_cast<long>(4 * transfers));
}

void Engine::unregisterTask(const ActiveTask& task) {
    counters->end(task);
    pendingPauses.erase(task.curl);
    usedShares.erase(task.curl);
    connectionWaits.erase(task.curl);
    lastFound.reset();
    tasks.erase(task.curl);
    Request& request = *task.request;
    if (request.handle != task.curl) return;
    request.handle = nullptr;
    if (request.transfers == 1) return;  // the usual case: the request has no other
    const auto next = std::find_if(tasks.begin(), tasks.end(), [&](const auto& entry) {
        return entry.second->request.get() == &request;
    });
    if (next != tasks.end()) request.handle = next->first;
}

/// The request's transfer; null if it has none, the one with the lowest handle if it has several.
std::shared_ptr<Engine::ActiveTask> Engine::getActiveTask(std::shared_ptr<Request> request) {
    return request->handle == nullptr ? nullptr : tasks.at(request->handle);
}

void Engine::removeTask(std::shared_ptr<Request> request) {
    checkEngineThread();
    const auto task = getActiveTask(std::move(request));
    if (!task) return;
    if (isPaused(*task) || usedShares.count(task->curl) != 0) {
        // libcurl (7.88) leaks the data that it holds of a paused HTTP/2 stream if the connection
        // has others. Resumed first, it delivers the data, which `dropped` discards.
        task->dropped = true;
        setPause(*task, CURLPAUSE_CONT);
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
    if (!setPause(*task, CURLPAUSE_ALL)) pendingPauses.insert(task->curl);
}

void Engine::resumeTask(std::shared_ptr<Request> request) {
    checkEngineThread();
    const auto task = getActiveTask(std::move(request));
    if (!task) return;
    pendingPauses.erase(task->curl);
    setPause(*task, CURLPAUSE_CONT);
}

/// Pauses or resumes a transfer. False when libcurl refuses.
bool Engine::setPause(ActiveTask& task, int action) {
    if (task.pauseFailed) return true;
    const CURLcode result = curl_easy_pause(task.curl, action);
    if (result != CURLE_ABORTED_BY_CALLBACK) return result == CURLE_OK;
    task.pauseFailed = hasFailedPauses = true;  // `endBrokenTransfers` sees it
    return true;
}

/// Whether the request is paused and this is the transfer that its pause acts on.
bool Engine::isPaused(const ActiveTask& task) {
    return task.request->paused && getActiveTask(task.request).get() == &task;
}

void Engine::applyPendingPauses() {
    for (auto pending = pendingPauses.begin(); pending != pendingPauses.end();) {
        ActiveTask& task = *tasks.at(*pending);
        const bool settled = !isPaused(task) || setPause(task, CURLPAUSE_ALL);
        pending = settled ? pendingPauses.erase(pending) : std::next(pending);
    }
}

/// Counts a block of the body; true once the transfer has used up its share of the pass. libcurl
/// reads up to 100 receive buffers of one transfer in a pass, perhaps full of small blocks, while
/// all others wait. 512 blocks are 8 MiB of a large download.
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

/// Begins a pass: resumes the transfers that had used up their share of the last one.
void Engine::continueShares() {
    ++pass;
    counters->passes.add(1);
    for (void* handle : std::exchange(usedShares, {})) {
        const auto task = findTask(handle);
        if (task && !isPaused(*task)) setPause(*task, CURLPAUSE_CONT);
    }
}

}  // namespace zel::http
