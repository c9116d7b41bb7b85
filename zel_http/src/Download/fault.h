#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>

#include "zel_http/download.h"

namespace zel::http {

/// Why a try failed. Thrown and caught on the worker thread.
class Fault : public std::runtime_error {
public:
    Fault(DownloadFailure failure, const std::string& message, bool passing = false)
        : runtime_error(message), failure(failure), passing(passing) {}

    DownloadFailure failure;
    bool passing;  ///< another try may succeed
    std::optional<std::chrono::milliseconds> retry_after{};
};

/// The version that is there cannot be continued: the next try begins anew.
struct StartsOver {};

/// The handle has been dropped.
struct Cancelled {};

}  // namespace zel::http
