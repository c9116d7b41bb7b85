// The engine's life: construction, the engine thread, termination, destruction.
// The constructor and destructor run on a thread of the host's and touch every member; the engine
// thread exists from the end of the one to the join in the other.

#include <fcntl.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "Engine/active_task.h"
#include "Engine/curl_version.h"
#include "Engine/statistics.h"
#include "Engine/tls_isolation.h"
#include "oru/assert.h"
#include "zel_http/engine.h"

namespace zel::http {

Engine* Engine::currentEngine = nullptr;

namespace {

CURLM* initMultiHandle() {
    curl_global_init(CURL_GLOBAL_ALL);
    return curl_multi_init();
}

/// Reports a libcurl that a device has put in the place of the one that this was built with, and
/// that is too old or has no OpenSSL, whose contexts verifiers and partial chains need.
void checkLibcurl(logging::Logger& logger) {
    const curl_version_info_data& libcurl = *curl_version_info(CURLVERSION_NOW);
    const std::string tls = libcurl.ssl_version == nullptr ? "no TLS" : libcurl.ssl_version;
    if (!curlIsBefore(7, 88) && tls.find("OpenSSL/") != std::string::npos) return;
    logger.error("Engine::%s: libcurl %s with %s is not supported: 7.88 or newer, with OpenSSL, is",
                 logging::arguments("Engine", libcurl.version, tls));
}

}  // namespace

Engine::Engine(const std::function<void(const std::function<void()>&)>& fsmRunner,
               logging::Logger* logger)
    : multiHandle(initMultiHandle()),
      shareHandle(curl_share_init()),
      queueMutex("QueueMutex"),
      variableMutex("VariableMutex"),
      wakeupFd(eventfd(0, 0)),
      fsmRunner(fsmRunner),
      logger(logger),
      tlsIsolation(std::make_unique<TlsIsolation>()),
      counters(std::make_unique<Counters>()) {
    ORU_ASSERT(!currentEngine);
    checkLibcurl(*logger);
    currentEngine = this;
    if (wakeupFd < 0) {
        oru::assertion_failed("CurlEngine: Error creating eventfd\n", __FILE__, __LINE__,
                              __PRETTY_FUNCTION__);
    }
    fcntl(wakeupFd, F_SETFD, FD_CLOEXEC);  // programs that the host executes do not inherit it
    curl_share_setopt(shareHandle, CURLSHOPT_SHARE, CURL_LOCK_DATA_COOKIE);
    try {
        engineThread = createEngineTask([this] { thread_loop(); });
    } catch (...) {  // the system refused the thread; nobody uses the engine yet
        release();
        throw;
    }
}

Engine::~Engine() {
    ORU_ASSERT(currentEngine);
    stop();
    lastFound.reset();
    for (const auto& [handle, task] : tasks) {
        doCurlCleanup(task);
        task->request->handle = nullptr;
    }
    tasks.clear();
    release();
}

void Engine::stop() {
    requestTermination();
    if (engineThread.joinable()) engineThread.join();
}

void Engine::release() {
    curl_multi_cleanup(multiHandle);
    curl_share_cleanup(shareHandle);
    curl_global_cleanup();
    close(wakeupFd);
    currentEngine = nullptr;
    lastProgressReport = 0;
}

Engine* Engine::getEngine() {
    ORU_ASSERT(currentEngine);
    return currentEngine;
}

bool Engine::hasEngine() { return currentEngine != nullptr; }

void Engine::requestTermination() {
    queueRequest([this] { flagTermination(); });
}

void Engine::flagTermination() {
    checkEngineThread();
    terminationFlag = true;
}

void Engine::thread_loop() {
    engineThreadId = oru::this_thread::get_id();
    counters->worksFromNow();
    while (!terminationFlag) runTasks();
    logger->debug(8, "Engine::%s: Exiting thread loop", logging::arguments("thread_loop"));
    engineThreadId = 0;
}

}  // namespace zel::http

oru::thread createEngineTask(const std::function<void()>& fn) {
    oru::thread::attributes attributes;
    attributes.set_scheduler(oru::thread::scheduler_policy::time_sharing,
                             oru::thread::scheduler_priority::normal);
    attributes.set_stack_size(262144);
    auto function = std::make_unique<std::function<void()>>(fn);
    oru::thread handle;
    oru::thread::create_thread("CurlEngine", attributes, handle.id, function.release());
    return handle;
}
