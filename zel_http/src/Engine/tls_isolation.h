#pragma once

#include <string_view>

#include "zel_http/records.h"

namespace zel::http {

/// Keeps a connection or a store of authorities made under one TLS policy from serving a transfer
/// under another. libcurl (7.88) matches connections by authorities, verify flags, client
/// certificate and `CURLOPT_SSL_OPTIONS`, not by the TLS-context function.
/// Engine thread; comes after `Engine::addTlsConfig`.
void isolateTlsPolicy(void* curl, const RequestConfig& config);

/// Looks at a header line of a response: a redirect to another origin takes the client certificate
/// off the transfer for the rest of its way, which libcurl (7.88) would present there too.
/// Engine thread.
void withholdClientCertificate(void* curl, std::string_view line);

}  // namespace zel::http
