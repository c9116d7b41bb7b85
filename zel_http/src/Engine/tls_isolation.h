#pragma once

#include <curl/curl.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "zel_http/records.h"

namespace zel::http {

/// Keeps connections, TLS sessions and cached certificate stores of one TLS policy from being used
/// under another. libcurl matches connections by authorities, verify flags, client certificate and
/// `CURLOPT_SSL_OPTIONS`, but not by the TLS-context function, the private key or what the files
/// contain. Engine thread.
class TlsIsolation {
public:
    /// Sets the transfer's options, after `Engine::addTlsConfig`. A transfer to an http URL may be
    /// redirected to https; it gets only what protects its TLS sessions.
    void apply(CURL* curl, const RequestConfig& config);

    /// Called with the result: after a failed handshake the authorities file is read again.
    void noteResult(const RequestConfig& config, CURLcode result);

private:
    /// Device, inode, size and times, of which at least one differs once a file is written or
    /// replaced; all 0 for a file that does not exist.
    using FileIdentity = std::array<std::int64_t, 7>;
    using Clock = std::chrono::steady_clock;
    struct Authorities {
        FileIdentity identity{};
        std::optional<Clock::time_point> changed;  ///< nothing if no change is known
        /// When a handshake last failed; memory may have run out while the store was being filled,
        /// and libcurl caches an incomplete store, too.
        std::optional<Clock::time_point> handshakeFailed;
    };
    struct KeyCheck {
        FileIdentity certificate{};
        FileIdentity key{};
        bool fits = false;
    };

    static FileIdentity identityOf(const std::string& path);
    const Authorities& currentState(const std::string& path);
    void refreshAuthorities(CURL* curl, const RequestConfig& config);
    bool keyFits(const std::string& certificate, const std::string& key);

    std::map<std::string, Authorities> authorities;
    /// When `authorities` was last emptied. A file that is entered again counts as changed at that
    /// time, since changes before it can no longer be seen.
    std::optional<Clock::time_point> emptied;
    std::map<std::pair<std::string, std::string>, KeyCheck> keyChecks;
};

/// Called with each header line. A redirect to another origin removes the client certificate from
/// the transfer, for good; libcurl (7.88) would present it there, too. Engine thread.
void dropClientCertificateOnCrossOrigin(CURL* curl, std::string_view line);

}  // namespace zel::http
