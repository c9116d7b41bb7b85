// Transfers that wait for a connection which another is making to their server, to share it over
// HTTP/2 instead of making their own. Bounds that wait, which libcurl does not: its time limits
// (7.88) count only for a transfer that has a connection, and a server that is silent in the first
// handshake would be tried by one transfer after the other. Engine thread; touches `tasks`.

#include <algorithm>
#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "Engine/active_task.h"
#include "Engine/easy_options.h"
#include "Engine/statistics.h"
#include "Engine/tls_connection.h"
#include "zel_http/engine.h"

namespace zel::http {
namespace {

using std::chrono::milliseconds;

/// How long a transfer waits before it makes a connection of its own.
constexpr milliseconds patience{2000};

/// How long a transfer waits at most.
milliseconds longestWait(const RequestConfig& config) {
    return config.timeout.count() == 0 ? patience : std::min(config.timeout, patience);
}

/// Whether libcurl has an address for the transfer, or has found it a connection. Never false once
/// the request has been sent, or it would be sent again.
bool hasBegunToConnect(CURL* curl) {
    curl_off_t lookup = 0;
    long sent = 0;
    curl_easy_getinfo(curl, CURLINFO_NAMELOOKUP_TIME_T, &lookup);
    curl_easy_getinfo(curl, CURLINFO_REQUEST_SIZE, &sent);
    return lookup > 0 || sent > 0;
}

/// How long a request may still take after that time; nothing without a limit.
std::optional<milliseconds> remaining(const RequestConfig& config, milliseconds waited) {
    if (config.timeout.count() == 0) return std::nullopt;
    return std::max(config.timeout - waited, milliseconds{0});
}

/// The URL up to its path; one server may have several.
std::string_view serverOf(std::string_view url) {
    constexpr std::size_t scheme = std::string_view("https://").size();
    return url.substr(0, url.find_first_of("/?#", scheme));
}

}  // namespace

/// Of the transfers that wait libcurl (7.88) lets only the first try again when a connection is
/// there. Were that one of another server, silent perhaps, the others would go on waiting.
bool Engine::connectionIsAwaitedToAnotherThan(const std::string& url) {
    if (connectionWaits.empty()) return false;
    const auto& waiting = tasks.at(connectionWaits.begin()->first)->request->config.url;
    return serverOf(waiting) != serverOf(url);
}

void Engine::letWaitForConnection(ActiveTask& task) {
    setLong<CURLOPT_PIPEWAIT>(task.curl, 1);
    connectionWaits[task.curl] = std::chrono::steady_clock::now();
}

/// Only the first connection of a transfer is waited for: that of a redirect has no bound here.
void Engine::endConnectionWait(void* curl) {
    if (connectionWaits.erase(curl) == 0) return;
    setLong<CURLOPT_PIPEWAIT>(curl, 0);
    passesAgain = true;
}

/// Sees the transfer begin anew, which it does after a redirect, for credentials, or on another
/// connection when a server closes the first: looking up a name, or sending a request. (The third
/// way, connecting to a known address, opens a socket.)
void Engine::watchBeginnings(const ActiveTask& task) {
    setFunction<CURLOPT_RESOLVER_START_FUNCTION, curl_resolver_start_callback>(task.curl,
                                                                               lookUpBegins);
    setPointer<CURLOPT_RESOLVER_START_DATA>(task.curl, task.curl);
    setFunction<CURLOPT_PREREQFUNCTION, curl_prereq_callback>(task.curl, requestBegins);
    setPointer<CURLOPT_PREREQDATA>(task.curl, task.curl);
}

/// The transfer makes a connection itself. A slow look-up is no reason to start it once more.
int Engine::lookUpBegins(void* /*resolver*/, void* /*reserved*/, void* handle) noexcept {
    Engine& engine = *getEngine();
    engine.endConnectionWait(handle);
    engine.passesAgain = true;
    return 0;
}

int Engine::requestBegins(void* handle, char* /*remote*/, char* /*local*/, int /*remotePort*/,
                          int /*localPort*/) noexcept {
    Engine& engine = *getEngine();
    if (engine.tasks.size() > 1 && usesTls(handle)) engine.passesAgain = true;
    engine.counters->noteTlsSession(handle);
    return CURL_PREREQFUNC_OK;
}

/// libcurl's timer, or what is left of the first of these waits if that is less: libcurl starts the
/// timer of a waiting transfer anew each time that it lets it try again, and has none for patience.
long Engine::timerWithConnectionWaits(long curlTimer) {
    if (connectionWaits.empty()) return curlTimer;
    const auto now = std::chrono::steady_clock::now();
    long timer = curlTimer;
    for (const auto& [handle, since] : connectionWaits) {
        const auto end = since + longestWait(tasks.at(handle)->request->config);
        const auto left = std::max(std::chrono::ceil<milliseconds>(end - now), milliseconds{0});
        if (timer < 0 || left.count() < timer) timer = static_cast<long>(left.count());
    }
    return timer;
}

void Engine::boundConnectionWaits() {
    if (connectionWaits.empty()) return;
    const auto now = std::chrono::steady_clock::now();
    const auto waits = connectionWaits;
    for (const auto& [handle, since] : waits) {
        const auto task = findTask(handle);
        if (!task || hasBegunToConnect(handle)) {
            endConnectionWait(handle);
            continue;
        }
        const auto waited = std::chrono::duration_cast<milliseconds>(now - since);
        const auto left = remaining(task->request->config, waited);
        if (left && left->count() == 0) {
            finishTask(task, CURLE_OPERATION_TIMEDOUT);
        } else if (waited >= patience) {
            connectAlone(*task, left);
        }
    }
}

void Engine::connectAlone(ActiveTask& task, std::optional<milliseconds> left) {
    endConnectionWait(task.curl);
    curl_multi_remove_handle(multiHandle, task.curl);
    if (left) setTimeLimit(task.curl, *left);
    attach(task);
}

}  // namespace zel::http
