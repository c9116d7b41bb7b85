#pragma once

#include "logging/logger.h"
#include "zel_http/client.h"
#include "zel_http/records.h"

/// The log lines of a client's request, masked as its `LogFilter` says. The caller omits the calls
/// for `LogFilter::None`. Owner thread.
namespace zel::http {

void log_request(logging::Logger& logger, Client::RequestId id, const RequestConfig& config,
                 const LogFilter& filter);
void log_response(logging::Logger& logger, Client::RequestId id, const ResponseData& response,
                  const LogFilter& filter);
void log_cancel(logging::Logger& logger, Client::RequestId id);
void log_error(logging::Logger& logger, Client::RequestId id, const ErrorData& error);

}  // namespace zel::http
