#pragma once

#include <curl/curl.h>

#include "zel_http/export.h"

/// Functions for libcurl's option `CURLOPT_SSL_CTX_FUNCTION`. The engine sets them, and so may a
/// class of yours that overrides `Engine::addTlsConfig`. libcurl calls them on the engine thread,
/// once for each new TLS connection. If the result is not `CURLE_OK`, libcurl makes no connection.
namespace zel::http::tls {

/// Makes OpenSSL call `verifier` with `verifier_data`. `config` points to the `RequestConfig` that
/// has both, `sslContext` to the `SSL_CTX` of the connection. Returns `CURLE_BAD_FUNCTION_ARGUMENT`
/// when one of the pointers is null, or `verifier` is not set to a plain function.
ZEL_HTTP_API CURLcode setupVerifierCallback(void* curl, void* sslContext, void* config);

/// Makes OpenSSL accept chains that end at any trusted certificate, not only at a root. `config` is
/// not used. Returns `CURLE_BAD_FUNCTION_ARGUMENT` when `sslContext` is null or has no store of
/// trusted certificates.
ZEL_HTTP_API CURLcode configurePartialChain(void* curl, void* sslContext, void* config);

}  // namespace zel::http::tls
