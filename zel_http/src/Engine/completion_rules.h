#pragma once

#include <curl/curl.h>

#include "zel_http/records.h"

namespace zel::http {

/// The failure that a request is told for libcurl's error code.
constexpr Failure failureOf(CURLcode result) {
    switch (result) {
        case CURLE_UNSUPPORTED_PROTOCOL:
        case CURLE_URL_MALFORMAT:
            return Failure::InvalidUrl;
        case CURLE_COULDNT_RESOLVE_PROXY:
        case CURLE_COULDNT_RESOLVE_HOST:
            return Failure::DnsLookupFailure;
        case CURLE_COULDNT_CONNECT:
            return Failure::ConnectionFailure;
        case CURLE_OPERATION_TIMEDOUT:
            return Failure::OperationTimedOut;
        default:
            return Failure::ProtocolFailure;
    }
}

/// The failure for a status outside 100 to 399; 0 stands for a missing or invalid one.
inline Failure failureOf(unsigned status) {
    if (protocol::auth_failure(status)) return Failure::AuthenticationFailure;
    return protocol::valid_status(static_cast<long>(status)) ? Failure::HttpErrorCode
                                                             : Failure::ProtocolFailure;
}

}  // namespace zel::http
