#pragma once

#include <curl/curl.h>
#include <openssl/ssl.h>

#include "Engine/tls_policy.h"

namespace zel::http {

/// The transfer's TLS connection, to the origin or else to a proxy; null without TLS, and once the
/// transfer has ended. Engine thread.
inline SSL* anyTlsConnectionOf(CURL* curl) {
    curl_tlssessioninfo* session = nullptr;
    curl_easy_getinfo(curl, CURLINFO_TLS_SSL_PTR, &session);
    const bool open_ssl = session != nullptr && session->backend == CURLSSLBACKEND_OPENSSL;
    return open_ssl ? static_cast<SSL*>(session->internals) : nullptr;
}

inline bool usesTls(CURL* curl) {
    const char* scheme = nullptr;
    curl_easy_getinfo(curl, CURLINFO_SCHEME, &scheme);
    return scheme != nullptr && isHttps(scheme);
}

/// The transfer's TLS connection to the origin; null without one, also when a proxy has one.
inline SSL* tlsConnectionOf(CURL* curl) {
    return usesTls(curl) ? anyTlsConnectionOf(curl) : nullptr;
}

}  // namespace zel::http
