#pragma once

#include <unistd.h>

#include <curl/curl.h>

#include <optional>
#include <string>

#include "certificate/certificate.h"
#include "zel_http/records.h"

/// Evaluates the TLS fields of a configuration. A path that contains a NUL counts as absent: cut
/// there it would name another file.
namespace zel::http {

/// Whether TLS options apply: the URL begins with "https", in any case.
inline bool isHttps(const std::string& url) {
    constexpr char scheme[] = "https";
    return curl_strnequal(url.c_str(), scheme, sizeof scheme - 1) != 0;
}

inline std::optional<std::string> usablePath(const std::optional<std::string>& text) {
    const bool given = text && !text->empty() && text->find('\0') == std::string::npos;
    return given ? text : std::nullopt;
}

/// Whether there are a client certificate and its key, both readable.
inline bool hasClientCertificate(const RequestConfig& config) {
    const auto readable = [](const std::optional<std::string>& text) {
        const auto path = usablePath(text);
        return path && access(path->c_str(), R_OK) == 0;
    };
    return readable(config.own_cert) && readable(config.own_pkey);
}

/// The PEM file of trusted authorities, by default that of the certificate store; nothing for none.
inline std::optional<std::string> authoritiesFile(const RequestConfig& config) {
    if (config.ca_file) return usablePath(config.ca_file);
    if (!certificate::ca_pem_exists("default")) return std::nullopt;
    return usablePath(certificate::ca_path("default"));
}

inline std::optional<std::string> authoritiesDirectory(const RequestConfig& config) {
    return usablePath(config.ca_dir);
}

}  // namespace zel::http
