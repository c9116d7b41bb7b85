#pragma once

/// @file
/// The engine.

#include <curl/curl.h>
#include <sys/select.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "logging/logger.h"
#include "oru/mutex.h"
#include "oru/thread.h"
#include "zel_http/engine_statistics.h"
#include "zel_http/export.h"
#include "zel_http/request.h"

namespace zel::http {

class TlsIsolation;

/// Performs all transfers of a process. It has libcurl's global state, libcurl's multi handle (the
/// object that performs many transfers at once), and the thread "CurlEngine", the engine thread.
///
/// "Any thread" below means that you may call the function on any thread, "engine thread" that it
/// runs, or must be called, on that one.
///
/// Your program, the host, makes it before any request starts. It destroys it after the last client
/// is done and before it leaves `main`, on any thread but the engine's own. To destroy it while
/// other threads use it, or to call `exit` while it runs, is undefined. A second engine at a time
/// ends the process.
class ZEL_HTTP_API Engine {
public:
    class ActiveTask;

    /// `fsmRunner` is called on the engine thread for each outcome, with a function that tells the
    /// outcome to its request. It may call that function at once, or copy it and call it later on
    /// any thread: where it does so is the "FSM context". The function uses `logger`, not the
    /// engine. `logger` must not be null, and must outlive the engine and all these functions.
    /// Throws `std::system_error` when the system gives no thread; then there is no engine.
    Engine(const std::function<void(const std::function<void()>&)>& fsmRunner,
           logging::Logger* logger);

    /// Stops the engine thread and ends every transfer. No request is told an outcome. Takes a
    /// second at most.
    virtual ~Engine();

    /// Sets the TLS options of `request` on `curl`, libcurl's easy handle for its transfer. Engine
    /// thread. You may override it, to set more options of libcurl's: call this one first, or set
    /// all options of TLS yourself. The destructor of your class must then call `stop` before
    /// anything else.
    virtual void addTlsConfig(void* curl, std::shared_ptr<Request> request);

    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// The engine of the process; null when there is none. Set and cleared by the engine itself.
    static Engine* currentEngine;
    /// As above, and an assertion ends the process when there is none. Any thread.
    static Engine* getEngine();
    static bool hasEngine();  ///< any thread

    /// Runs a copy of `fn` on the engine thread, after all that was queued before. Any thread;
    /// returns at once. What is queued after `requestTermination` is destroyed without being run.
    void queueRequest(const std::function<void()>& fn);
    /// Asks the engine thread to stop once it has run what is queued. Any thread; does not wait.
    /// An engine that has stopped stays stopped.
    void requestTermination();

    /// What the engine has done so far. Any thread; takes no lock, and the engine never waits for
    /// it.
    EngineStatistics statistics() const noexcept;

    /// @{
    /// Start, cancel, pause and resume a request's transfer; `Request`'s own operations call these.
    /// Any thread; they put the work into the engine's queue and return. The queue shares the
    /// ownership of the request until the work is done.
    void addNewRequest(std::shared_ptr<Request> request);
    void tryToCancelRequest(std::shared_ptr<Request> request);
    void pauseRequest(std::shared_ptr<Request> request);
    void resumeRequest(std::shared_ptr<Request> request);
    /// @}

    /// Sets the proxy of every transfer that starts from now on. An empty `url` removes it; then
    /// transfers follow the environment (`http_proxy`, `no_proxy`), as in every program that uses
    /// libcurl. If `user` or `password` contains CR, LF or NUL, both are left out, and the log says
    /// so. Pass them as they are, not percent-encoded. Requests to localhost and 127.0.0.1 do not
    /// use the proxy. Any thread.
    void setProxyConfig(const std::string& url, const std::string& user,
                        const std::string& password);
    /// @{
    /// What `setProxyConfig` stored. Any thread.
    std::string getProxyUrl();
    std::string getProxyUser();
    std::string getProxyPassword();
    /// @}
    /// Applies `proxy`, or the stored proxy with its credentials when `proxy` is empty, to the easy
    /// handle `curl`. Engine thread.
    void addProxyConfig(void* curl, const std::string& proxy);

    /// @{
    /// The engine thread's function, and the steps of one pass of its loop. Engine thread.
    void thread_loop();
    void runTasks();
    void flagTermination();
    void processPendingRequests();
    CURLMcode doCurlProcessing();
    /// @}

    /// @{
    /// libcurl calls these during a transfer; `handle` is the easy handle. Engine thread. No
    /// exception passes through libcurl: when one of them fails, its transfer fails.
    static std::size_t writeFunction(char* data, std::size_t size, std::size_t count,
                                     void* handle) noexcept;
    static std::size_t writeHeader(char* data, std::size_t size, std::size_t count,
                                   void* handle) noexcept;
    static std::size_t putReadFunc(char* buffer, std::size_t size, std::size_t count,
                                   void* handle) noexcept;
    static int putSeekFunc(void* handle, curl_off_t offset, int origin) noexcept;
    /// @}
    /// A progress function for `CURLOPT_XFERINFOFUNCTION`. The engine does not set it; your own
    /// engine may. It calls the request's `reportDownloadProgress` at most every 3 seconds.
    static int downloadProgress(void* handle, curl_off_t downloadTotal, curl_off_t downloadNow,
                                curl_off_t uploadTotal, curl_off_t uploadNow) noexcept;
    /// Returns `allowsPayloadLogging` of the handle's request; true for a handle that the engine
    /// does not drive.
    static bool allowsPayloadLogging(void* handle) noexcept;

protected:
    /// Stops the engine thread and waits for its end. Call it on the thread that destroys the
    /// engine; a second call does nothing. The destructor of a derived class must call it first:
    /// `~Engine` comes too late, when the members of the derived class are destroyed already.
    void stop();

    // Everything below runs on the engine thread.

    /// @{
    /// tasks.cpp: the registry of transfers.
    void prepareAddTask(std::shared_ptr<Request> request);
    std::shared_ptr<ActiveTask> getActiveTask(std::shared_ptr<Request> request);
    void removeTask(std::shared_ptr<Request> request);
    void doCurlCleanup(std::shared_ptr<ActiveTask> task);
    void pauseTask(std::shared_ptr<Request> request);
    void resumeTask(std::shared_ptr<Request> request);
    /// @}

    /// @{
    /// setup.cpp: creates and configures a request's easy handle. `proxy`, unless empty, is used
    /// instead of the stored proxy.
    void addTask(std::shared_ptr<Request> request);
    void addTask(std::shared_ptr<Request> request, const std::string& proxy);
    void addHTTPMethodToRequest(void* curl, std::shared_ptr<Request> request,
                                std::shared_ptr<ActiveTask> task);
    void addHeadersToRequest(void* curl, std::shared_ptr<Request> request,
                             std::shared_ptr<ActiveTask> task);
    /// @}

    /// @{
    /// completion.cpp: turns a finished transfer into its outcome.
    CURLMsg* findCompletedMsg();
    void processCompletedTasks();
    /// @}
    /// Tells `request` its outcome. Runs in the FSM context (see the constructor), even after the
    /// engine is gone.
    static void runCallbackHandlerInFsmContext(logging::Logger* logger,
                                               std::shared_ptr<Request> request, CURLcode result,
                                               long httpCode, const std::string& reason);

    /// @{
    /// cookies.cpp: checks of the X-Auth cookie, deletion of cookies for `reset_state`.
    std::string getCurrentXAuthCookieDomainFromRequest(void* curl, const std::string& url);
    void deleteCookiesFromRequest(void* curl, const std::string& url);
    void edgeCookieCheck(const ActiveTask& task);
    /// @}

private:
    class CountedTransfer;
    class Counters;

    void release();
    void trace(const char* operation);
    void enqueue(std::function<void()> work, bool startsTransfer = false);
    void registerTask(const std::shared_ptr<ActiveTask>& task);
    void unregisterTask(const ActiveTask& task);
    void keepConnectionsFor(std::size_t transfers);
    void checkEngineThread() const;
    void logConfiguration(const RequestConfig& config);
    void setTransferOptions(void* curl, const RequestConfig& config);
    void setCredentials(void* curl, const RequestConfig& config);
    void startWithCleanState(void* curl, const RequestConfig& config);
    void recordXAuthDomain(void* curl, RequestConfig& config);
    void setProtectiveOptions(ActiveTask& task);
    bool mayShareConnection(const ActiveTask& task, const std::string& proxy);
    bool connectionIsAwaitedToAnotherThan(const std::string& url);
    void letWaitForConnection(ActiveTask& task);
    void endConnectionWait(void* curl);
    static void watchBeginnings(const ActiveTask& task);
    static int lookUpBegins(void* resolver, void* reserved, void* handle) noexcept;
    static int requestBegins(void* handle, char* remote, char* local, int remotePort,
                             int localPort) noexcept;
    long timerWithConnectionWaits(long curlTimer);
    void boundConnectionWaits();
    void connectAlone(ActiveTask& task, std::optional<std::chrono::milliseconds> left);
    void attach(const ActiveTask& task);
    void lendUrl(ActiveTask& task);
    void startTransfer(const std::shared_ptr<ActiveTask>& task);
    static CURLcode resultOf(const ActiveTask& task, CURLcode reported);
    void finishTask(std::shared_ptr<ActiveTask> task, CURLcode reported);
    void handOver(const ActiveTask& task, CURLcode result, long httpCode);
    void retry(std::shared_ptr<Request> request);
    bool isPaused(const ActiveTask& task);
    bool setPause(ActiveTask& task, int action);
    void applyPendingPauses();
    bool hasHadItsShare(ActiveTask& task);
    void continueShares();
    bool hasPendingRequests();
    void endBrokenTransfers();
    bool descriptorsFitSelect() const;
    bool waitWithSelect(timeval timeout);
    bool waitWithPoll(timeval timeout);
    void drainWakeup();
    static void takeHeaderLine(ActiveTask& task, std::string_view line);
    static curl_socket_t openSocket(void* engine, curlsocktype purpose,
                                    curl_sockaddr* address) noexcept;
    static int closeSocket(void* engine, curl_socket_t socket) noexcept;
    static void reportCallbackFailure(const char* name, const char* what) noexcept;
    static std::shared_ptr<ActiveTask> findTask(void* handle);
    template <typename Result, typename Work>
    static Result runCallback(const char* name, void* handle, CURLcode failure, Result failed,
                              Work work) noexcept;

    // Constant after construction.
    CURLM* multiHandle;
    CURLSH* shareHandle;
    // Guarded by queueMutex.
    std::deque<std::function<void()>> pendingRequests;
    oru::mutex queueMutex;
    oru::mutex variableMutex;
    // The host's thread only.
    oru::thread engineThread;
    // Constant after construction.
    int wakeupFd;
    std::function<void(const std::function<void()>&)> fsmRunner;
    // Engine thread only.
    bool terminationFlag = false;
    // Engine thread only: an empty queue, except while a pass runs what was queued.
    std::unique_ptr<std::deque<std::function<void()>>> spareQueue;
    // Guarded by variableMutex.
    std::string proxyUrl;
    std::string proxyUser;
    std::string proxyPassword;
    // Engine thread only; the destroying thread's once that has been joined.
    std::map<void*, std::shared_ptr<ActiveTask>> tasks;
    // Constant after construction.
    logging::Logger* logger;
    // Guarded by queueMutex: a wake-up has been or is being written and is not read yet.
    bool wakeupUnread = false;
    // Engine thread only, as `tasks`: how many open sockets are too high for `select`.
    std::size_t highSockets = 0;
    // Engine thread only: the task that a callback has looked up last, until a task goes.
    std::shared_ptr<ActiveTask> lastFound;
    // Engine thread only: the highest size of `tasks` so far.
    std::size_t peakTasks = 0;
    // Engine thread only: the number of the current pass, and the easy handles that have used up
    // their share of body blocks in it.
    unsigned long pass = 0;
    std::set<void*> usedShares;
    // Engine thread only: easy handles of paused tasks whose pause libcurl has refused so far.
    std::set<void*> pendingPauses;
    // Engine thread only: a task's `pauseFailed` is set.
    bool hasFailedPauses = false;
    // Engine thread only: whether this pass begins a transfer that may share a connection with
    // others, and whether the next pass must not wait since one began in the last, perhaps anew
    // after a redirect. Over HTTP/2 one transfer reads the answers of others. libcurl (7.88) wakes
    // those by a timer, which it drops when a transfer begins after it in the same pass.
    bool beginsTransfer = false;
    bool passesAgain = false;
    // Engine thread only: easy handles that wait for another's connection, and since when.
    std::map<void*, std::chrono::steady_clock::time_point> connectionWaits;
    // Engine thread only: the last URL that was parsed; null where that is not possible.
    std::pair<std::string, std::shared_ptr<CURLU>> lastUrl;
    // Engine thread only.
    std::unique_ptr<TlsIsolation> tlsIsolation;
    // Any thread: the object says who writes what.
    const std::unique_ptr<Counters> counters;
    // Written by the engine thread; 0 while it does not run.
    std::atomic<unsigned long> engineThreadId{0};
};

}  // namespace zel::http

/// Starts the thread "CurlEngine" (256 KiB of stack, the default scheduler) running `fn`, and
/// returns its handle.
ZEL_HTTP_API oru::thread createEngineTask(const std::function<void()>& fn);
