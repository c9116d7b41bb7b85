#pragma once

#include <curl/curl.h>

#include "zel_http/export.h"

/// libcurl TLS-context functions (`CURLOPT_SSL_CTX_FUNCTION`), run on the engine thread once for
/// each new TLS connection. Any result but `CURLE_OK` abandons the connection.
namespace zel::http::tls {

/// Installs the `verifier` and `verifier_data` of the `RequestConfig` at `config` in the `SSL_CTX`
/// at `sslContext`. `CURLE_BAD_FUNCTION_ARGUMENT` when either is null or the verifier holds no
/// plain function.
ZEL_HTTP_API CURLcode setupVerifierCallback(void* curl, void* sslContext, void* config);

/// Accepts chains that end at any certificate of the store, not only at a root. `config` is not
/// used. `CURLE_BAD_FUNCTION_ARGUMENT` without a context or a store.
ZEL_HTTP_API CURLcode configurePartialChain(void* curl, void* sslContext, void* config);

}  // namespace zel::http::tls
