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

/// Keeps what was made under one TLS policy from serving a transfer under another: connections,
/// TLS sessions, filled stores of authorities. libcurl matches connections by authorities, verify
/// flags, client certificate and `CURLOPT_SSL_OPTIONS`, but not by the TLS-context function, the
/// private key or what the files contain. Engine thread.
class TlsIsolation {
public:
    /// Comes after `Engine::addTlsConfig`, for an https URL; for others only sessions
    /// of a redirect's are regarded.
    void apply(CURL* curl, const RequestConfig& config);

    /// Gets what became of such a transfer: after a failed handshake the authorities are read anew.
    void learn(const RequestConfig& config, CURLcode result);

private:
    /// What tells a file from the one that had its path before: device, inode, size and times; all
    /// 0 for a file that is not there.
    using FileIdentity = std::array<std::int64_t, 7>;
    using Clock = std::chrono::steady_clock;
    struct Authorities {
        FileIdentity identity{};
        std::optional<Clock::time_point> changed;
        /// When a handshake failed that may have filled the store without memory for all of it.
        std::optional<Clock::time_point> doubted;
    };
    struct KeyCheck {
        FileIdentity certificate{};
        FileIdentity key{};
        bool fits = false;
    };

    static FileIdentity identityOf(const std::string& path);
    const Authorities& known(const std::string& path);
    void refreshAuthorities(CURL* curl, const RequestConfig& config);
    bool keyFits(const std::string& certificate, const std::string& key);

    std::map<std::string, Authorities> authorities;
    /// When what was known of authorities was dropped: from then on each file may have changed.
    std::optional<Clock::time_point> forgotten;
    std::map<std::pair<std::string, std::string>, KeyCheck> keyChecks;
};

/// Looks at a header line of a response: a redirect to another origin takes the client certificate
/// off the transfer for the rest of its way, which libcurl (7.88) would present there too.
/// Engine thread.
void withholdClientCertificate(CURL* curl, std::string_view line);

}  // namespace zel::http
