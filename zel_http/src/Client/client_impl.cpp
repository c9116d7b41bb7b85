// The client's tables: identifiers, requests in flight, their callbacks. Owner thread only.

#include "Client/client_impl.h"

#include <new>
#include <utility>

#include "Client/curl_request.h"
#include "Client/exchange_log.h"
#include "oru/assert.h"
#include "oru/thread.h"

namespace zel::http {
namespace {

/// Runs a step that a cancel can leave out: cancelling must succeed when memory runs out, too.
template <typename Work>
void ifMemoryAllows(Work work) {
    try {
        work();
    } catch (const std::bad_alloc&) {  // the step is left out
    }
}

}  // namespace

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
    try {
        request_infos.emplace(id, RequestInfo{response_cb, error_cb, filter});
    } catch (...) {
        do_cancel_request(id);
        throw;
    }
    if (filter.payload != LogFilter::None) log_request(logger, id, config, filter);
    return id;
}

void ClientImpl::cancel_request(RequestId id) {
    // The request may hold the last pointer to this client.
    const auto self = weak_from_this().lock();
    ifMemoryAllows([this] { check_thread(); });
    const auto info = request_infos.find(id);
    if (info == request_infos.end()) return;
    if (info->second.log_filter.payload != LogFilter::None) {
        ifMemoryAllows([this, id] { log_cancel(logger, id); });
    }
    do_cancel_request(id);
    // `info` may be invalid: the logger may have called back. The entry is extracted, to be
    // destroyed last, since the destructor of what a callback holds may call back, too.
    const auto forgotten = request_infos.extract(id);
}

Client::RequestId ClientImpl::allocate_request_id() {
    // After 2^32 requests the count starts over and skips 0 and the identifiers in flight.
    while (next_request_id == NoRequestId || requests.count(next_request_id) != 0) {
        ++next_request_id;
    }
    return next_request_id++;
}

void ClientImpl::on_response(RequestId id, const ResponseData& response) {
    check_thread();
    const auto callback = takeCallback(id, &RequestInfo::response_cb, [&](const LogFilter& filter) {
        log_response(logger, id, response, filter);
    });
    if (callback) callback(id, response);
}

void ClientImpl::on_error(RequestId id, const ErrorData& error) {
    check_thread();
    const auto callback =
        takeCallback(id, &RequestInfo::error_cb,
                     [&](const LogFilter& /*filter*/) { log_error(logger, id, error); });
    if (callback) callback(id, error);
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
    try {
        request->runRequest();
    } catch (...) {
        do_cancel_request(id);
        throw;
    }
    return id;
}

void ClientImpl::do_cancel_request(RequestId id) {
    const auto request = requests.extract(id);
    if (request.empty()) return;
    // Without memory to queue the cancel the transfer goes on; its outcome is discarded, as the
    // tables do not know it any more.
    ifMemoryAllows([&request] { request.mapped()->tryToCancelRequest(); });
}

template <typename Callback, typename Log>
Callback ClientImpl::takeCallback(RequestId id, Callback RequestInfo::*callback, Log log) {
    if (requests.extract(id).empty()) return nullptr;
    auto info = request_infos.find(id);
    if (info == request_infos.end()) return nullptr;
    // A function of the filter may cancel the request for which it runs, which destroys the entry;
    // so the filter is moved out of it. Moving leaves the entry's `payload` as it is.
    const LogFilter filter = std::move(info->second.log_filter);
    try {
        if (filter.payload != LogFilter::None) log(filter);
    } catch (...) {
        request_infos.extract(id);
        throw;
    }
    info = request_infos.find(id);
    if (info == request_infos.end()) return nullptr;
    Callback taken = std::move(info->second.*callback);
    request_infos.erase(info);
    return taken;
}

}  // namespace zel::http
