// One pass of the engine thread: run what is queued, wait, drive libcurl, process what finished.
// Any thread appends to the queue; the rest is the engine thread's alone.

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <utility>

#include "Engine/wait_rule.h"
#include "eventlog/eventlog.h"
#include "oru/assert.h"
#include "zel_http/engine.h"
#include "zel_http/engine_hooks.h"

namespace zel::http {
namespace {

/// Keeps a wait that fails at once (a descriptor closed behind libcurl's back) from becoming a busy
/// loop.
void pauseAfterFailedWait() { usleep(10'000); }

int milliseconds(timeval timeout) {
    return static_cast<int>(timeout.tv_sec * 1000 + timeout.tv_usec / 1000);
}

}  // namespace

void Engine::trace(const char* operation) {
    logger->debug(8, "Engine::%s", fmt::make_printf_args(operation));
}

void Engine::checkEngineThread() const {
#ifdef ZEL_HTTP_THREAD_CHECKS
    // Once the engine thread has ended, its work is the destructor's.
    const unsigned long id = engineThreadId;
    ORU_ASSERT(id == 0 || id == oru::this_thread::get_id());
#endif
}

void Engine::queueRequest(const std::function<void()>& fn) { enqueue(fn); }

/// A wake-up costs a pass over every transfer, so there is none while the engine thread is bound to
/// look at the queue before it waits, nor a second one for the same wait.
void Engine::enqueue(std::function<void()> work) {
    {
        const std::lock_guard lock(queueMutex);
        pendingRequests.push_back(std::move(work));
        if (!std::exchange(wakeupNeeded, false)) return;
    }
    if (eventfd_write(wakeupFd, 1) == 0) return;
    eventlog("CurlEngine: Error writing eventfd\n");
    const std::lock_guard lock(queueMutex);
    wakeupNeeded = true;
}

void Engine::runTasks() {
    checkEngineThread();
    processPendingRequests();
    if (terminationFlag) {
        trace("runTasks");
        return;
    }
    doCurlProcessing();
    applyPendingPauses();
    processCompletedTasks();
}

void Engine::processPendingRequests() {
    trace("processPendingRequests");
    std::unique_lock lock(queueMutex);
    wakeupNeeded = true;
    if (pendingRequests.empty()) return;
    runningRequests.swap(pendingRequests);
    lock.unlock();
    while (!runningRequests.empty()) {
        runningRequests.front()();
        runningRequests.pop_front();
        if (terminationFlag) return;  // what stands behind a termination never runs
    }
}

CURLMcode Engine::doCurlProcessing() {
    trace("doCurlProcessing");
    long curlTimer = -1;
    curl_multi_timeout(multiHandle, &curlTimer);
    const Ready ready = wait(waitFor(curlTimer));
    if (ready.descriptors == 0 && tasks.empty()) mostTasks = 0;  // a rest, to the end of the wait
    if (ready.wakeup) drainWakeup();
    // Driving looks at every transfer; not when only the queue has something to do.
    if (ready.wakeup && ready.descriptors == 1) return CURLM_OK;
    int running = 0;
    return engine_curl_multi_perform(multiHandle, &running);
}

Engine::Ready Engine::wait(timeval timeout) {
    // Nothing to wait for. Asking what is readable would look at every transfer, as driving does; a
    // wake-up stays readable until there is a wait.
    if (timeout.tv_sec == 0 && timeout.tv_usec == 0) return {0, false};
    const Ready ready = descriptorsFitSelect() ? waitWithSelect(timeout) : waitWithPoll(timeout);
    const std::lock_guard lock(queueMutex);
    wakeupNeeded = false;
    return ready;
}

/// libcurl leaves sockets at and above `FD_SETSIZE` out of the sets without a word, so a process
/// that may open such descriptors, or may have opened some, waits with `curl_multi_poll`.
bool Engine::descriptorsFitSelect() {
    if (highDescriptors) return false;
    rlimit limit{};
    highDescriptors = wakeupFd >= FD_SETSIZE || getrlimit(RLIMIT_NOFILE, &limit) != 0 ||
                      limit.rlim_cur > FD_SETSIZE;
    return !highDescriptors;
}

Engine::Ready Engine::waitWithSelect(timeval timeout) {
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
    return {ready, ready > 0 && FD_ISSET(wakeupFd, &readable)};
}

Engine::Ready Engine::waitWithPoll(timeval timeout) {
    curl_waitfd wakeup{wakeupFd, CURL_WAIT_POLLIN, 0};
    int ready = 0;
    const CURLMcode result =
        curl_multi_poll(multiHandle, &wakeup, 1, milliseconds(timeout), &ready);
    // A closed descriptor counts as ready. With no transfer it can only be the wake-up's.
    const bool closed = ready > 0 && wakeup.revents == 0 && tasks.empty();
    if (result != CURLM_OK || closed) pauseAfterFailedWait();
    return {ready, (wakeup.revents & CURL_WAIT_POLLIN) != 0};
}

void Engine::drainWakeup() {
    logger->debug(8, "Engine::%s: waking up", fmt::make_printf_args("doCurlProcessing"));
    eventfd_t value = 0;
    if (eventfd_read(wakeupFd, &value) != 0) eventlog("CurlEngine: Error reading eventfd\n");
}

}  // namespace zel::http
