#pragma once

#include <unistd.h>

#include <curl/curl.h>

#include <optional>
#include <string>

#include "certificate/certificate.h"
#include "zel_http/records.h"

/// What the TLS fields of a configuration come to. A path with a NUL in it names no file; cut there
/// it would name another.
namespace zel::http {

/// Whether TLS options apply: the URL begins with "https", in any case.
inline bool isHttps(const std::string& url) {
    constexpr char scheme[] = "https";
    return curl_strnequal(url.c_str(), scheme, sizeof scheme - 1) != 0;
}

inline std::optional<std::string> pathIn(const std::optional<std::string>& text) {
    const bool given = text && !text->empty() && text->find('\0') == std::string::npos;
    return given ? text : std::nullopt;
}

/// Whether there are a client certificate and its key, both readable.
inline bool hasClientCertificate(const RequestConfig& config) {
    const auto readable = [](const std::optional<std::string>& text) {
        const auto path = pathIn(text);
        return path && access(path->c_str(), R_OK) == 0;
    };
    return readable(config.own_cert) && readable(config.own_pkey);
}

inline std::optional<std::string> authoritiesFile(const RequestConfig& config) {
    if (config.ca_file) return pathIn(config.ca_file);
    if (!certificate::ca_pem_exists("default")) return std::nullopt;
    return pathIn(certificate::ca_path("default"));
}

inline std::optional<std::string> authoritiesDirectory(const RequestConfig& config) {
    return pathIn(config.ca_dir);
}

}  // namespace zel::http
