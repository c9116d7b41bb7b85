#pragma once

#include <map>
#include <memory>

#include "logging/logger.h"
#include "oru/executor.h"
#include "zel_http/client.h"

namespace zel::http {

/// The one implementation of `Client`. Without a lock: everything runs on the owner thread, the
/// executor's; other threads only read `executor` in order to post outcomes to it. Must be owned by
/// a `std::shared_ptr`. Each request in flight and each posted outcome keeps the client alive.
class ClientImpl : public Client, public std::enable_shared_from_this<ClientImpl> {
public:
    class CurlRequest;

    ClientImpl(oru::executor& executor, logging::Logger& logger);
    ~ClientImpl() override;
    ClientImpl(const ClientImpl&) = delete;
    ClientImpl& operator=(const ClientImpl&) = delete;

    RequestId start_request(const RequestConfig& config, const LogFilter& filter,
                            const ResponseCallback& response_cb,
                            const ErrorCallback& error_cb) override;
    void cancel_request(RequestId id) override;
    RequestId allocate_request_id() override;

    /// Log an outcome and run its callback, once the request has been removed from the tables.
    /// Ignored when the identifier has been cancelled, be it by a log filter.
    void on_response(RequestId id, const ResponseData& response);
    void on_error(RequestId id, const ErrorData& error);

private:
    struct RequestInfo {
        ResponseCallback response_cb;
        ErrorCallback error_cb;
        LogFilter log_filter;
    };

    /// `owner_thread` until the first call binds one: all bits set, which names no thread.
    static constexpr auto unbound = static_cast<unsigned long>(-1);

    void check_thread();
    RequestId do_start_request(const RequestConfig& config);
    void do_cancel_request(RequestId id);
    /// Removes a finished request from the tables, lets `log` write its lines, and returns the
    /// callback to run; an empty one when the request has been cancelled.
    template <typename Callback, typename Log>
    Callback takeCallback(RequestId id, Callback RequestInfo::*callback, Log log);

    RequestId next_request_id = 1;
    std::map<RequestId, std::shared_ptr<CurlRequest>> requests;
    std::map<RequestId, RequestInfo> request_infos;
    logging::Logger& logger;
    unsigned long owner_thread = unbound;
    oru::executor& executor;
};

}  // namespace zel::http
