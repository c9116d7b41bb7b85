// The loop of the engine thread. A pass runs what is queued, waits, drives libcurl, processes what
// finished, and hands the outcomes over together. `queueRequest`, `enqueue` and `trace` run on any
// thread, all else on the engine's.

#include <sys/eventfd.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

#include "Engine/outbox.h"
#include "Engine/statistics.h"
#include "Engine/wait_rule.h"
#include "eventlog/eventlog.h"
#include "oru/assert.h"
#include "zel_http/engine.h"
#include "zel_http/engine_hooks.h"

namespace zel::http {
namespace {

/// Prevents a busy loop when a wait fails at once, as on a descriptor that somebody else closed.
void pauseAfterFailedWait() { usleep(10'000); }

int milliseconds(timeval timeout) {
    return static_cast<int>(timeout.tv_sec * 1000 + timeout.tv_usec / 1000);
}

}  // namespace

void Engine::trace(const char* operation) {
    logger->debug(8, "Engine::%s", logging::arguments(operation));
}

void Engine::checkEngineThread() const {
#if ZEL_HTTP_THREAD_CHECKS
    // 0: no engine thread runs; the destructor does its work on the host's thread.
    const unsigned long id = engineThreadId;
    ORU_ASSERT(id == 0 || id == oru::this_thread::get_id());
#endif
}

void Engine::queueRequest(const std::function<void()>& fn) { enqueue(fn); }

/// Writes the eventfd only if no earlier write is unread: an unread one ends the wait already.
void Engine::enqueue(std::function<void()> work, bool startsTransfer) {
    {
        const std::lock_guard lock(queueMutex);
        pendingRequests.push_back(std::move(work));
        if (startsTransfer) counters->queued();
        if (std::exchange(wakeupUnread, true)) return;
    }
    if (eventfd_write(wakeupFd, 1) == 0) return;
    eventlog("CurlEngine: Error writing eventfd\n");
    const std::lock_guard lock(queueMutex);
    wakeupUnread = false;
}

void Engine::runTasks() {
    checkEngineThread();
    processPendingRequests();
    if (terminationFlag) {
        trace("runTasks");
        return;
    }
    Outbox::handOverWhatIsHeld();
    doCurlProcessing();
    applyPendingPauses();
    Outbox::collect([this] {
        processCompletedTasks();
        endBrokenTransfers();
        boundConnectionWaits();
    });
}

/// The batch is local, since a closure may call `runTasks` and thereby this function again. Making
/// an empty queue costs two allocations, so one is kept.
void Engine::processPendingRequests() {
    trace("processPendingRequests");
    std::unique_lock lock(queueMutex);
    if (pendingRequests.empty()) return;
    auto batch = std::move(spareQueue);
    if (!batch) batch = std::make_unique<std::deque<std::function<void()>>>();
    auto& currentBatch = *batch;
    currentBatch.swap(pendingRequests);
    lock.unlock();
    while (!currentBatch.empty()) {
        currentBatch.front()();
        currentBatch.pop_front();
        if (terminationFlag) return;  // what is queued after it never runs
    }
    spareQueue = std::move(batch);
}

bool Engine::hasPendingRequests() {
    const std::lock_guard lock(queueMutex);
    return !pendingRequests.empty();
}

CURLMcode Engine::doCurlProcessing() {
    trace("doCurlProcessing");
    continueShares();
    long curlTimer = -1;
    curl_multi_timeout(multiHandle, &curlTimer);
    // Closures may be queued although no wake-up is unread: a closure of this pass may have called
    // `runTasks`, which has read it.
    const bool again = std::exchange(passesAgain, std::exchange(beginsTransfer, false));
    const timeval timeout = again || hasPendingRequests()
                                ? timeval{}
                                : waitTimeout(timerWithConnectionWaits(curlTimer));
    counters->worksUntilNow();
    const bool woken = descriptorsFitSelect() ? waitWithSelect(timeout) : waitWithPoll(timeout);
    counters->worksFromNow();
    if (woken) drainWakeup();
    int running = 0;
    return engine_curl_multi_perform(multiHandle, &running);
}

/// `curl_multi_fdset` silently leaves out sockets at and above `FD_SETSIZE`. While any is open, the
/// engine waits with `curl_multi_poll`.
bool Engine::descriptorsFitSelect() const { return wakeupFd < FD_SETSIZE && highSockets == 0; }

/// Returns whether the eventfd is readable, as `waitWithPoll` does.
bool Engine::waitWithSelect(timeval timeout) {
    fd_set readable;
    fd_set writable;
    fd_set exceptional;
    FD_ZERO(&readable);
    FD_ZERO(&writable);
    FD_ZERO(&exceptional);
    int highest = -1;
    curl_multi_fdset(multiHandle, &readable, &writable, &exceptional, &highest);
    FD_SET(wakeupFd, &readable);
    highest = std::max(highest, wakeupFd);
    const int ready = select(highest + 1, &readable, &writable, &exceptional, &timeout);
    if (ready < 0 && errno != EINTR) pauseAfterFailedWait();
    return ready > 0 && FD_ISSET(wakeupFd, &readable);
}

bool Engine::waitWithPoll(timeval timeout) {
    curl_waitfd wakeup{wakeupFd, CURL_WAIT_POLLIN, 0};
    int ready = 0;
    const CURLMcode result =
        curl_multi_poll(multiHandle, &wakeup, 1, milliseconds(timeout), &ready);
    // A closed descriptor counts as ready. Without transfers it can only be the eventfd.
    const bool closed = ready > 0 && wakeup.revents == 0 && tasks.empty();
    if (result != CURLM_OK || closed) pauseAfterFailedWait();
    return (wakeup.revents & CURL_WAIT_POLLIN) != 0;
}

void Engine::drainWakeup() {
    logger->debug(8, "Engine::%s: waking up", logging::arguments("doCurlProcessing"));
    std::unique_lock lock(queueMutex);
    eventfd_t value = 0;
    const bool read = eventfd_read(wakeupFd, &value) == 0;
    wakeupUnread = false;  // under one lock with the read, or the flag could outlive the wake-up
    lock.unlock();
    if (read) {
        counters->wake_ups.add(1);
    } else {
        eventlog("CurlEngine: Error reading eventfd\n");
    }
}

}  // namespace zel::http
