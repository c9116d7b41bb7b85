// Creates and configures a request's easy handle: all options, in the order in which they are set.
// Callbacks get the easy handle as their user data and find their task by it. The options of
// `setProtectiveOptions`, which work around faults of libcurl, servers and proxies, follow those
// that the request asks for. Engine thread; touches `tasks`.

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "Engine/active_task.h"
#include "Engine/curl_version.h"
#include "Engine/easy_options.h"
#include "Engine/hooks.h"
#include "Engine/parsed_url.h"
#include "Engine/statistics.h"
#include "Engine/tls_isolation.h"
#include "Engine/tls_policy.h"
#include "Engine/wire_text.h"
#include "eventlog/eventlog.h"
#include "zel_http/engine.h"
#include "zel_http/engine_hooks.h"

namespace zel::http {
namespace {

constexpr char user_agent_name[] = "User-Agent";
constexpr char default_user_agent[] = "User-Agent: Velto/Dunmoreline";
constexpr char default_accept_charset[] = "Accept-Charset: ISO-8859-1,utf-8";
constexpr char no_expect[] = "Expect:";

/// The receive buffer of a transfer, by how many are in flight with it. With a large one a large
/// body takes fewer passes and a third to half of the CPU. A small body touches only the pages that
/// it fills, but large buffers of many transfers make the heap grow and shrink all the time: at 64
/// in flight a page fault, and a tenth more CPU, for each. 32-bit targets have few addresses.
constexpr long receiveBuffer(std::size_t in_flight) {
    constexpr long kibibyte = 1024;
    if (in_flight > 8) return 16 * kibibyte;  // as libcurl's own
    return (in_flight > 1 || sizeof(void*) == 4 ? 64 : 512) * kibibyte;
}

/// libcurl checks for a response between two buffers of an upload. When the server has answered and
/// closed by then, sending the next buffer loses the response; small buffers make that rare.
constexpr long upload_buffer = 32 * 1024L;

bool hasUpload(const RequestConfig& config) {
    const bool takes_body = config.method == Method::POST || config.method == Method::PUT ||
                            config.method == Method::PATCH;
    return takes_body && !config.body.empty();
}

/// Whether libcurl loses an HTTP/2 response that comes before the body is read, when the server
/// then ends the stream.
bool losesEarlyAnswers() { return curlIsBefore(8, 14); }

long authMask(AuthMethod method) {
    return static_cast<long>(method == AuthMethod::BASIC ? CURLAUTH_BASIC | CURLAUTH_ONLY
                                                         : CURLAUTH_ANY);
}

void setBody(CURL* curl, const std::string& body) {
    // The size first, so that libcurl copies exactly that many bytes, NUL included.
    setLong<CURLOPT_POSTFIELDSIZE>(curl, static_cast<long>(body.size()));
    setText<CURLOPT_COPYPOSTFIELDS>(curl, body.data());
}

/// Whether the environment names a proxy for https; libcurl honours these names.
bool environmentNamesProxy() {
    constexpr const char* names[] = {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"};
    return std::any_of(std::begin(names), std::end(names), [](const char* name) {
        const char* proxy = std::getenv(name);
        return proxy != nullptr && *proxy != '\0';
    });
}

std::size_t refuseToRead(char* /*buffer*/, std::size_t /*size*/, std::size_t /*count*/,
                         void* /*handle*/) {
    return CURL_READFUNC_ABORT;
}

/// Whether libcurl may send "Expect: 100-continue" and wait before the body: by itself for a body
/// above 1 MiB (not for `POST` and `PUT`, see `no_expect`), or by a header line of the caller's.
bool mayExpectContinue(const RequestConfig& config) {
    constexpr std::size_t threshold = std::size_t{1024} * 1024;
    return (config.method == Method::PATCH && config.body.size() > threshold) ||
           config.headers.count("Expect") != 0;
}

}  // namespace

void Engine::addTask(std::shared_ptr<Request> request) { addTask(std::move(request), {}); }

void Engine::addTask(std::shared_ptr<Request> request, const std::string& proxy) {
    checkEngineThread();
    counters->begin();
    RequestConfig& config = request->config;
    if (logger->isDebugEnabled(1)) logConfiguration(config);
    const auto task = std::make_shared<ActiveTask>(request);
    CURL* curl = task->curl;
    registerTask(task);

    setTransferOptions(curl, config);
    addHTTPMethodToRequest(curl, request, task);
    addHeadersToRequest(curl, request, task);
    addTlsConfig(curl, request);
    if (config.reset_state) startWithCleanState(curl, config);
    if (config.xauth_required || config.xauth_check_domain) recordXAuthDomain(curl, config);

    setProtectiveOptions(*task);
    addProxyConfig(curl, proxy);
    if (mayShareConnection(*task, proxy)) letWaitForConnection(*task);
    startTransfer(task);
}

/// Whether the transfer may wait for a connection that another is making to its server. Not where
/// it needs its own or speaks HTTP/1.1, and not with libcurl 8.0 to 8.7, which may forget it.
bool Engine::mayShareConnection(const ActiveTask& task, const std::string& proxy) {
    const RequestConfig& config = task.request->config;
    if (!isHttps(config.url) || !task.ownTlsConfig) return false;
    const bool forgets_limits = !curlIsBefore(8, 0) && curlIsBefore(8, 8);
    const bool own_connection =
        config.verifier || config.reset_state || !task.request->fallbackProxies.empty();
    if (own_connection || forgets_limits || mayExpectContinue(config)) return false;
    if (hasUpload(config) && losesEarlyAnswers()) return false;
    if (connectionIsAwaitedToAnotherThan(config.url)) return false;
    return proxy.empty() && getProxyUrl().empty() && !environmentNamesProxy();
}

/// Escapes control characters in the URL, which the rendering does not: otherwise a URL with a line
/// break would write log lines of its own.
void Engine::logConfiguration(const RequestConfig& config) {
    const std::string url = printable(config.url);
    if (url == config.url) {
        logger->debugStream(1) << config;
        return;
    }
    RequestConfig shown = config;
    shown.url = url;
    logger->debugStream(1) << shown;
}

void Engine::setProtectiveOptions(ActiveTask& task) {
    CURL* curl = task.curl;
    const RequestConfig& config = task.request->config;
    setPointer<CURLOPT_ERRORBUFFER>(curl, task.reason.data());
    // Without it, removing a transfer waits for its name look-up (libcurl 7.87 on).
    setLong<CURLOPT_QUICK_EXIT>(curl, 1);
    // Without it libcurl replaces the process's handler of SIGPIPE and restores it, several times
    // in a transfer, in a race with the host's threads. Nothing needs the handler: libcurl's writes
    // do not raise the signal (7.87 on), and the engine thread has all signals blocked.
    setLong<CURLOPT_NOSIGNAL>(curl, 1);
    setLong<CURLOPT_BUFFERSIZE>(curl, receiveBuffer(tasks.size()));
    setLong<CURLOPT_UPLOAD_BUFFERSIZE>(curl, upload_buffer);
    if (hasUpload(config) && losesEarlyAnswers()) {
        setLong<CURLOPT_HTTP_VERSION>(curl, CURL_HTTP_VERSION_1_1);
    }
    setFunction<CURLOPT_OPENSOCKETFUNCTION, curl_opensocket_callback>(curl, openSocket);
    setPointer<CURLOPT_OPENSOCKETDATA>(curl, this);
    setFunction<CURLOPT_CLOSESOCKETFUNCTION, curl_closesocket_callback>(curl, closeSocket);
    setPointer<CURLOPT_CLOSESOCKETDATA>(curl, this);
    watchBeginnings(task);
    // libcurl's default read function reads the process's standard input.
    if (config.method != Method::PUT) {
        setFunction<CURLOPT_READFUNCTION, curl_read_callback>(curl, refuseToRead);
    }
    // Without it the header fields of a proxy's CONNECT response are delivered as the origin's.
    setLong<CURLOPT_SUPPRESS_CONNECT_HEADERS>(curl, 1);
    // `finishTask` retries by the status of CONNECT, which is 0 on a reused tunnel, whatever
    // becomes of the transfer.
    if (!task.request->fallbackProxies.empty()) setLong<CURLOPT_FRESH_CONNECT>(curl, 1);
    if (mayExpectContinue(config)) {
        // libcurl would wait a second for a server that ignores the expectation. A server that
        // answers without reading the body leaves a connection on which it still expects the body.
        setLong<CURLOPT_EXPECT_100_TIMEOUT_MS>(curl, 1);
        setLong<CURLOPT_FORBID_REUSE>(curl, 1);
    }
    if (task.ownTlsConfig) tlsIsolation->apply(curl, config);
}

void Engine::startTransfer(const std::shared_ptr<ActiveTask>& task) {
    if (task->failure != CURLE_OK && task->curl != nullptr) {
        finishTask(task, task->failure);
        return;
    }
    attachedByOwnHook = false;
    attach(*task);
    if (attachedByOwnHook && task->ownTlsConfig) lendUrl(*task);
    // Before there is a connection libcurl refuses a pause; `applyPendingPauses` repeats it.
    if (task->request->paused) pendingPauses.insert(task->curl);
}

void Engine::attach(const ActiveTask& task) {
    if (tasks.size() > 1 && isHttps(task.request->config.url)) beginsTransfer = true;
    const CURLMcode result = engine_curl_multi_add_handle(multiHandle, task.curl);
    if (result == CURLM_OK) return;
    const std::string reason = curl_multi_strerror(result);
    eventlog(("CurlEngine: the multi handle refuses a transfer: " + reason + "\n").c_str());
    std::abort();
}

/// Spares libcurl the parsing of the URL. Where a host's own code has seen the handle libcurl goes
/// by the text: options of the host's may change the URL or how it is parsed. Devices ask the same
/// few URLs, so the last one is kept.
void Engine::lendUrl(ActiveTask& task) {
    const std::string& url = task.request->config.url;
    if (url != lastUrl.first) lastUrl = {url, parseUrl(url)};
    task.url = lastUrl.second;
    if (task.url) setPointer<CURLOPT_CURLU>(task.curl, task.url.get());
}

void Engine::setTransferOptions(void* curl, const RequestConfig& config) {
    setLong<CURLOPT_VERBOSE>(curl, 0);
    setLong<CURLOPT_PROTOCOLS>(curl, CURLPROTO_HTTP | CURLPROTO_HTTPS);
    // libcurl would cut a URL at a NUL and transfer another one; the empty URL fails as invalid.
    const bool cut = config.url.find('\0') != std::string::npos;
    setText<CURLOPT_URL>(curl, cut ? "" : config.url.c_str());
    setFunction<CURLOPT_WRITEFUNCTION, curl_write_callback>(curl, writeFunction);
    setPointer<CURLOPT_WRITEDATA>(curl, curl);
    setFunction<CURLOPT_HEADERFUNCTION, curl_write_callback>(curl, writeHeader);
    setPointer<CURLOPT_HEADERDATA>(curl, curl);
    setLong<CURLOPT_FOLLOWLOCATION>(curl, 1);
    setLong<CURLOPT_MAXREDIRS>(curl, 5);
    setLong<CURLOPT_NOPROGRESS>(curl, 1);
    if (config.timeout.count() != 0) {
        setLong<CURLOPT_NOSIGNAL>(curl, 1);
        setTimeLimit(curl, config.timeout);
    }
    if (config.max_download_size != -1) {
        setLong<CURLOPT_MAXFILESIZE>(curl, config.max_download_size);
    }
    setCredentials(curl, config);
}

void Engine::setCredentials(void* curl, const RequestConfig& config) {
    if (config.user.empty()) return;
    if (hasCrLfOrNul(config.user) || hasCrLfOrNul(config.password)) {
        // Digest authentication copies the user name into a header line unescaped.
        logger->error("Engine::%s: user or password contains CR, LF or NUL and both are left out",
                      logging::arguments("setCredentials"));
        return;
    }
    setText<CURLOPT_USERNAME>(curl, config.user.c_str());
    setText<CURLOPT_PASSWORD>(curl, config.password.c_str());
    setLong<CURLOPT_HTTPAUTH>(curl, authMask(config.auth_method));
}

void Engine::addHTTPMethodToRequest(void* curl, std::shared_ptr<Request> request,
                                    std::shared_ptr<ActiveTask> /*task*/) {
    const std::string& body = request->config.body;
    switch (request->config.method) {
        case Method::POST:
            setBody(curl, body);
            break;
        case Method::PUT:
            setFunction<CURLOPT_READFUNCTION, curl_read_callback>(curl, putReadFunc);
            setLong<CURLOPT_UPLOAD>(curl, 1);
            setPointer<CURLOPT_READDATA>(curl, curl);
            setLong<CURLOPT_INFILESIZE>(curl, static_cast<long>(body.size()));
            setFunction<CURLOPT_SEEKFUNCTION, curl_seek_callback>(curl, putSeekFunc);
            setPointer<CURLOPT_SEEKDATA>(curl, curl);
            break;
        case Method::DELETE:
            setText<CURLOPT_CUSTOMREQUEST>(curl, "DELETE");
            break;
        case Method::PATCH:
            setText<CURLOPT_CUSTOMREQUEST>(curl, "PATCH");
            setBody(curl, body);
            break;
        case Method::GET:
        case Method::GET_SYNC:
            break;
    }
}

void Engine::addHeadersToRequest(void* curl, std::shared_ptr<Request> request,
                                 std::shared_ptr<ActiveTask> task) {
    const RequestConfig& config = request->config;
    std::string line;
    for (const auto& [name, value] : config.headers) {
        if (hasCrLfOrNul(name) || hasCrLfOrNul(value)) {
            logger->error("Engine::%s: header '%s' contains CR, LF or NUL and is left out",
                          logging::arguments("addHeadersToRequest", printable(name)));
            continue;
        }
        if (continuesLine(name)) {
            logger->error("Engine::%s: header '%s' begins with a blank and is left out",
                          logging::arguments("addHeadersToRequest", printable(name)));
            continue;
        }
        line.assign(name).append(": ").append(value);
        task->appendHeader(line.c_str());
    }
    if (config.headers.count(user_agent_name) == 0) task->appendHeader(default_user_agent);
    task->appendHeader(default_accept_charset);
    if (config.method == Method::POST || config.method == Method::PUT) {
        task->appendHeader(no_expect);
    }
    setPointer<CURLOPT_HTTPHEADER>(curl, task->headerList);
}

void Engine::startWithCleanState(void* curl, const RequestConfig& config) {
    setLong<CURLOPT_COOKIESESSION>(curl, 1);
    deleteCookiesFromRequest(curl, config.url);
    setLong<CURLOPT_FRESH_CONNECT>(curl, 1);
    setLong<CURLOPT_DNS_CACHE_TIMEOUT>(curl, 0);
}

void Engine::recordXAuthDomain(void* curl, RequestConfig& config) {
    config.xauth_previous_domain = getCurrentXAuthCookieDomainFromRequest(curl, config.url);
    if (config.xauth_required && config.xauth_previous_domain.empty()) {
        const std::string url = printable(config.url);
        logger->critical("Request '%s' is missing required X-Auth cookie on outgoing request",
                         logging::arguments(url));
    }
}

}  // namespace zel::http
