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

/// Starts requests and delivers their outcomes. A client belongs to one thread, that of its
/// executor: call every operation there; every callback runs there. A call from another thread is
/// reported in the log, and carried out nevertheless: it is a race in your program.
class ZEL_HTTP_API Client {
public:
    using RequestId = std::uint32_t;  ///< identifies one request of one client
    /// @{
    /// Receives the outcome, which is valid during the call only. An exception comes out of the
    /// function that runs the executor, such as `io_context::run`; the executors of GLib, Qt and
    /// `thread_executor` end the process with its text.
    using ResponseCallback = std::function<void(RequestId, const ResponseData&)>;
    using ErrorCallback = std::function<void(RequestId, const ErrorData&)>;
    /// @}

    /// Identifies no request; never returned.
    static const RequestId NoRequestId;

    virtual ~Client() = default;

    /// Starts a request. Exactly one of the callbacks runs later, once, with the returned
    /// identifier, unless the request is cancelled first. Both must be set, or an assertion ends
    /// the process. Without an engine in the process the request stays pending until it is
    /// cancelled. When memory runs out it throws and nothing has been started; when a function of
    /// `filter` or the logger throws, the request is running nevertheless.
    virtual RequestId start_request(const RequestConfig& config, const LogFilter& filter,
                                    const ResponseCallback& response_cb,
                                    const ErrorCallback& error_cb) = 0;

    /// Cancels a request: no callback for `id` runs from here on. Nothing happens when `id` is
    /// unknown, or its request has been delivered or cancelled. Without memory the request is
    /// cancelled, too, but its transfer may run to its end; the outcome is then discarded.
    virtual void cancel_request(RequestId id) = 0;

    /// Returns an identifier that no pending request of this client has.
    virtual RequestId allocate_request_id() = 0;

    /// Starts a request and returns its handle. At most one of the callbacks runs, once, and only
    /// while the handle lives: its destruction cancels the request. Keep the handle as long as you
    /// want the outcome. Destroy it on the client's thread, and before the client. Both callbacks
    /// must be set, as above.
    [[nodiscard]] oru::AsyncActionHandle<ZelHttpClientTag> start_request(
        const RequestConfig& config, const LogFilter& filter,
        const std::function<void(const ResponseData&)>& response_cb,
        const std::function<void(const ErrorData&)>& error_cb);

protected:
    Client() = default;
    /// @{
    /// For derived classes.
    Client(const Client&) = default;
    Client& operator=(const Client&) = default;
    /// @}
};

/// Creates a client whose outcomes arrive through `executor` and whose log lines go to `logger`.
/// Both must outlive the client and every request it started. The client finds the process's
/// engine by itself.
ZEL_HTTP_API std::shared_ptr<Client> createClient(oru::executor& executor, logging::Logger& logger);

}  // namespace zel::http
