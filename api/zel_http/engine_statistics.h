#pragma once

#include <chrono>
#include <cstdint>

namespace zel::http {

/// What an engine has done since it was made, and what it does now. Each number is right for some
/// moment of the snapshot, and an outcome's transfer is among them before anybody is notified of
/// it. 64 bits on every target: none of these starts anew from 0.
///
/// A transfer is one try of a request: a request that is repeated through a fallback proxy has
/// several; redirects and answers to a 401 belong to the transfer that they come in.
struct EngineStatistics {
    /// Added to the engine and not begun yet; with an engine that has stopped they never begin.
    std::uint64_t transfers_queued = 0;
    std::uint64_t transfers_in_flight = 0;  ///< begun and not ended, paused ones among them
    std::uint64_t transfers_begun = 0;  ///< those of the queue, and tries through fallback proxies
    std::uint64_t transfers_ended = 0;  ///< answered, failed or cancelled
    /// Sockets for connections to servers and proxies, those that failed to connect among them.
    std::uint64_t connections_opened = 0;
    /// Answered transfers for which no connection was made, as they used one that was there.
    std::uint64_t connections_reused = 0;
    /// Connections to servers whose handshake has resumed a TLS session. A TLS connection counts
    /// when a request is sent on it for the first time.
    std::uint64_t tls_sessions_resumed = 0;
    /// Body bytes, as they come, in blocks that requests were notified of.
    std::uint64_t bytes_received = 0;
    /// Body bytes; they count when the transfer ends, and of the last request of its redirects.
    std::uint64_t bytes_sent = 0;
    std::uint64_t passes = 0;  ///< of the engine thread's loop
    /// Waits that ended because something was queued, such as a request or a cancel.
    std::uint64_t wake_ups = 0;
    /// The longest that the engine thread was busy between two waits for sockets. Meanwhile all
    /// transfers stand still. Verifiers, notifications of requests, and what was given to
    /// `queueRequest` run in it.
    std::chrono::microseconds longest_pass{0};
};

}  // namespace zel::http
