// Counts what the engine does. Engine thread, but for the snapshot and what is queued.

#include "Engine/statistics.h"

#include <openssl/ssl.h>

#include <algorithm>
#include <limits>

#include "Engine/active_task.h"
#include "Engine/tls_connection.h"

namespace zel::http {
namespace {

/// The index of the `SSL` ex-data slot that marks a connection as counted.
int countedIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return index;
}

}  // namespace

void Engine::Counters::worksUntilNow() {
    const auto worked =
        std::chrono::floor<std::chrono::microseconds>(Clock::now() - working_since_);
    constexpr std::int64_t most = std::numeric_limits<std::uint32_t>::max();
    const std::int64_t count = std::min<std::int64_t>(worked.count(), most);
    if (count <= longest_pass_.load(std::memory_order_relaxed)) return;
    longest_pass_.store(static_cast<std::uint32_t>(count), std::memory_order_relaxed);
}

void Engine::Counters::noteTlsSession(CURL* curl) {
    SSL* const connection = tlsConnectionOf(curl);
    if (connection == nullptr || SSL_get_ex_data(connection, countedIndex()) != nullptr) return;
    SSL_set_ex_data(connection, countedIndex(), this);
    if (SSL_session_reused(connection) == 1) tls_sessions_resumed_.add(1);
}

void Engine::Counters::end(const ActiveTask& task) {
    if (!task.request->config.body.empty()) {
        curl_off_t sent = 0;
        curl_easy_getinfo(task.curl, CURLINFO_SIZE_UPLOAD_T, &sent);
        bytes_sent_.add(static_cast<std::uint64_t>(sent));
    }
    ended_.add(1);
    in_flight_.store(in_flight_.load(std::memory_order_relaxed) - 1, std::memory_order_release);
}

/// Reads in the order in which a transfer goes its way: one that moves on meanwhile is not missed.
EngineStatistics Engine::Counters::snapshot() const noexcept {
    EngineStatistics now;
    now.transfers_queued = queued_.load(std::memory_order_acquire);
    now.transfers_in_flight = in_flight_.load(std::memory_order_acquire);
    now.transfers_ended = ended_.value();
    now.transfers_begun = begun_.value();
    now.connections_opened = connections_opened.value();
    now.connections_reused = connections_reused.value();
    now.tls_sessions_resumed = tls_sessions_resumed_.value();
    now.bytes_received = bytes_received.value();
    now.bytes_sent = bytes_sent_.value();
    now.passes = passes.value();
    now.wake_ups = wake_ups.value();
    now.longest_pass = std::chrono::microseconds(longest_pass_.load(std::memory_order_relaxed));
    return now;
}

EngineStatistics Engine::statistics() const noexcept { return counters->snapshot(); }

}  // namespace zel::http
