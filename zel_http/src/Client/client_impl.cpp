// The client's tables: identifiers, requests in flight, their callbacks. Owner thread only.

#include "Client/client_impl.h"

#include <utility>

#include "Client/curl_request.h"
#include "Client/exchange_log.h"
#include "oru/assert.h"
#include "oru/thread.h"

namespace zel::http {

std::shared_ptr<Client> createClient(oru::executor& executor, logging::Logger& logger) {
    return std::make_shared<ClientImpl>(executor, logger);
}

ClientImpl::ClientImpl(oru::executor& executor, logging::Logger& logger)
    : logger(logger), executor(executor) {}

ClientImpl::~ClientImpl() = default;

Client::RequestId ClientImpl::start_request(const RequestConfig& config, const LogFilter& filter,
                                            const ResponseCallback& response_cb,
                                            const ErrorCallback& error_cb) {
    ORU_ASSERT(response_cb);
    ORU_ASSERT(error_cb);
    check_thread();
    const RequestId id = do_start_request(config);
    ORU_ASSERT(id != NoRequestId);
    request_infos.emplace(id, RequestInfo{response_cb, error_cb, filter});
    if (filter.payload != LogFilter::None) log_request(logger, id, config, filter);
    return id;
}

void ClientImpl::cancel_request(RequestId id) {
    check_thread();
    // The request may hold the last pointer to this client.
    const auto self = weak_from_this().lock();
    // Out of the table first: the destruction of a callback may come back here.
    const auto info = request_infos.extract(id);
    if (info.empty()) return;
    if (info.mapped().log_filter.payload != LogFilter::None) log_cancel(logger, id);
    do_cancel_request(id);
}

Client::RequestId ClientImpl::allocate_request_id() {
    // After 2^32 requests the count starts over, past 0 and whatever is still in flight.
    while (next_request_id == NoRequestId || requests.count(next_request_id) != 0) {
        ++next_request_id;
    }
    return next_request_id++;
}

void ClientImpl::on_response(RequestId id, const ResponseData& response) {
    check_thread();
    auto info = forget(id);
    if (info.empty()) return;
    const LogFilter& filter = info.mapped().log_filter;
    if (filter.payload != LogFilter::None) log_response(logger, id, response, filter);
    info.mapped().response_cb(id, response);
}

void ClientImpl::on_error(RequestId id, const ErrorData& error) {
    check_thread();
    auto info = forget(id);
    if (info.empty()) return;
    if (info.mapped().log_filter.payload != LogFilter::None) log_error(logger, id, error);
    info.mapped().error_cb(id, error);
}

void ClientImpl::check_thread() {
    const unsigned long caller = oru::this_thread::get_id();
    if (owner_thread == unbound) {
        owner_thread = caller;
    } else if (caller != owner_thread) {
        logger.infoStream() << "ZEL-HTTP THREAD ASSERT FAILED!";
    }
}

Client::RequestId ClientImpl::do_start_request(const RequestConfig& config) {
    const RequestId id = allocate_request_id();
    const auto request = std::make_shared<CurlRequest>(shared_from_this(), id, config);
    requests.emplace(id, request);
    request->runRequest();
    return id;
}

void ClientImpl::do_cancel_request(RequestId id) {
    const auto request = requests.find(id);
    if (request == requests.end()) return;
    request->second->tryToCancelRequest();
    requests.erase(request);
}

std::map<Client::RequestId, ClientImpl::RequestInfo>::node_type ClientImpl::forget(RequestId id) {
    if (requests.erase(id) == 0) return {};
    return request_infos.extract(id);
}

}  // namespace zel::http
