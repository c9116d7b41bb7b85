#pragma once

#include "logging/logger.h"
#include "zel_http/client.h"
#include "zel_http/records.h"

/// The lines that a client writes for a request, masked as its `LogFilter` says. The caller leaves
/// them out altogether for `LogFilter::None`. Owner thread.
namespace zel::http {

void log_request(logging::Logger& logger, Client::RequestId id, const RequestConfig& config,
                 const LogFilter& filter);
void log_response(logging::Logger& logger, Client::RequestId id, const ResponseData& response,
                  const LogFilter& filter);
void log_cancel(logging::Logger& logger, Client::RequestId id);
void log_error(logging::Logger& logger, Client::RequestId id, const ErrorData& error);

}  // namespace zel::http
