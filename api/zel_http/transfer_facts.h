#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace zel::http {

/// What is known about a transfer that has ended. After redirects and retries it is about the last
/// response, but for the times, which include all that came before.
struct TransferFacts {
    int curl_code = 0;           ///< libcurl's `CURLcode`; 0 for a transfer with any whole response
    std::string curl_text;       ///< libcurl's own words about a failure; may be empty
    std::string url;             ///< of the last response; another than asked for after redirects
    std::string method;          ///< of the last request; a redirect may make a POST a GET
    unsigned redirects = 0;      ///< that were followed
    std::string local_address;   ///< of the connection, without port; empty without one
    std::string remote_address;  ///< of the server or proxy; empty without a connection
    std::uint16_t local_port = 0;   ///< goes with `local_address`
    std::uint16_t remote_port = 0;  ///< goes with `remote_address`
    std::string protocol;  ///< "HTTP/1.0", "HTTP/1.1" or "HTTP/2"; empty without a response
    /// "TLSv1.2", "TLSv1.3" or what else OpenSSL names; empty without TLS or without a response.
    std::string tls_version;
    /// What OpenSSL's verification of the server said, 0 (`X509_V_OK`) without a fault or without
    /// TLS. Another value beside a response: `tls_verify` was off, or a verifier accepted it.
    int tls_verify_result = 0;
    bool tls_resumed = false;        ///< the connection's handshake has resumed a TLS session
    bool connection_reused = false;  ///< no connection was made for this transfer
    /// @{
    /// When each phase ended, from the start of the transfer on: the name look-up, the connection,
    /// the TLS handshake, what else comes before the request, the first byte of the response, the
    /// whole. 0 for a phase that was not reached, and for those that a reused connection saves
    /// (some µs for the look-up, with 7.88).
    std::chrono::microseconds looked_up{0};
    std::chrono::microseconds connected{0};
    std::chrono::microseconds tls_done{0};
    std::chrono::microseconds ready{0};
    std::chrono::microseconds first_byte{0};
    std::chrono::microseconds total{0};
    /// @}
    std::chrono::microseconds redirecting{0};  ///< until the last redirect was followed
    std::uint64_t bytes_received = 0;          ///< of the body, as delivered
    std::uint64_t bytes_sent = 0;              ///< of the body
};

}  // namespace zel::http
