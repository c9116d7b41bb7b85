#pragma once

#include "zel_http/records.h"

namespace zel::http {

/// Keeps a connection, a TLS session or a store of authorities made under one TLS policy from
/// serving a transfer under another. libcurl (7.88) matches connections by authorities, verify
/// flags, client certificate and `CURLOPT_SSL_OPTIONS`, not by the TLS-context function.
/// Engine thread; comes after `Engine::addTlsConfig`.
void isolateTlsPolicy(void* curl, const RequestConfig& config);

/// Whether TLS options apply to this URL: it begins with "https", in any case.
bool isHttps(const std::string& url);

}  // namespace zel::http
