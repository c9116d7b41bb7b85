#pragma once

#include <chrono>
#include <cstdint>

namespace zel::http {

/// What an engine has done since it was made, and what it does now. The numbers are read one after
/// the other, while the engine goes on: each is right for its own moment. When you hear of an
/// outcome, its transfer has already been counted. All have 64 bits on every target, so none of
/// them overflows.
///
/// A transfer is one try of a request. A request that is repeated through a fallback proxy has
/// several transfers. A redirect, or a second request after a 401, belongs to the same transfer.
struct EngineStatistics {
    /// Given to the engine, but not begun yet. Once the engine has stopped they never begin.
    std::uint64_t transfers_queued = 0;
    std::uint64_t transfers_in_flight = 0;  ///< begun and not ended; paused ones count
    std::uint64_t transfers_begun = 0;      ///< tries through fallback proxies included
    std::uint64_t transfers_ended = 0;      ///< answered, failed or cancelled
    /// Sockets for connections to servers and proxies, also those that could not connect.
    std::uint64_t connections_opened = 0;
    /// Transfers that got an answer on a connection that was already there.
    std::uint64_t connections_reused = 0;
    /// Connections to servers whose handshake was shorter since it resumed a TLS session. Each
    /// counts when the first request is sent on it.
    std::uint64_t tls_sessions_resumed = 0;
    /// Bytes of response bodies. They count when they are given to the request.
    std::uint64_t bytes_received = 0;
    /// Bytes of request bodies. They count when the transfer ends. Of a transfer with redirects
    /// only what the last of its requests has sent counts.
    std::uint64_t bytes_sent = 0;
    std::uint64_t passes = 0;  ///< rounds of the engine thread's loop
    /// Waits that ended because something was queued, such as a request or a cancel.
    std::uint64_t wake_ups = 0;
    /// The longest that the engine thread was busy between two waits for sockets. Meanwhile all
    /// transfers stand still. Verifiers, notifications of requests, and what was given to
    /// `queueRequest` run in it.
    std::chrono::microseconds longest_pass{0};
};

}  // namespace zel::http
