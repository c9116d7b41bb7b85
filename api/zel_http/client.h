#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "oru/async_action_handle.h"
#include "zel_http/export.h"
#include "zel_http/records.h"

namespace logging {
class Logger;
}
namespace oru {
class executor;
}

namespace zel::http {

struct ZelHttpClientTag {};

/// Starts requests and delivers their outcomes. A client belongs to one thread, its executor's:
/// every operation is called there and every callback runs there. A call from another thread is
/// reported in the log and proceeds all the same.
class ZEL_HTTP_API Client {
public:
    using RequestId = std::uint32_t;  ///< names one request of one client
    /// @{
    /// Gets an outcome, valid during the call; an exception leaves the executor's task.
    using ResponseCallback = std::function<void(RequestId, const ResponseData&)>;
    using ErrorCallback = std::function<void(RequestId, const ErrorData&)>;
    /// @}

    /// Names no request and is never handed out.
    static const RequestId NoRequestId;

    virtual ~Client() = default;

    /// Starts a request. Later exactly one callback runs, once, with the returned identifier,
    /// unless the request is cancelled first. Both callbacks must be set: the process stops by
    /// assertion otherwise. Without an engine in the process the request stays pending until it is
    /// cancelled. When it throws for want of memory nothing has been started; when a function of
    /// `filter` or the logger throws, the request is under way all the same.
    virtual RequestId start_request(const RequestConfig& config, const LogFilter& filter,
                                    const ResponseCallback& response_cb,
                                    const ErrorCallback& error_cb) = 0;

    /// Drops a request: after this no callback for `id` runs. An identifier that is unknown,
    /// delivered or cancelled is ignored. Does not fail for want of memory: then the transfer may
    /// go on to its end, unheard.
    virtual void cancel_request(RequestId id) = 0;

    /// A fresh identifier of this client.
    virtual RequestId allocate_request_id() = 0;

    /// Starts a request and returns its handle. At most one of the callbacks runs, once, and only
    /// while the handle lives: dropping it cancels the request. Keep the handle as long as the
    /// outcome is wanted, drop it on the client's thread, and before the client. Both callbacks
    /// must be set, as above.
    [[nodiscard]] oru::AsyncActionHandle<ZelHttpClientTag> start_request(
        const RequestConfig& config, const LogFilter& filter,
        const std::function<void(const ResponseData&)>& response_cb,
        const std::function<void(const ErrorData&)>& error_cb);

protected:
    Client() = default;
    /// @{
    /// For implementations.
    Client(const Client&) = default;
    Client& operator=(const Client&) = default;
    /// @}
};

/// Creates a client whose outcomes arrive through `executor` and whose log lines go to `logger`.
/// Both must outlive the client and every request it started. The client finds the process's
/// engine by itself.
ZEL_HTTP_API std::shared_ptr<Client> createClient(oru::executor& executor, logging::Logger& logger);

}  // namespace zel::http
