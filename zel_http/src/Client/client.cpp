// The `start_request` whose callbacks get no identifier and whose handle cancels when dropped.

#include "zel_http/client.h"

#include <utility>

#include "oru/assert.h"

namespace zel::http {

const Client::RequestId Client::NoRequestId = 0;

oru::AsyncActionHandle<ZelHttpClientTag> Client::start_request(
    const RequestConfig& config, const LogFilter& filter,
    const std::function<void(const ResponseData&)>& response_cb,
    const std::function<void(const ErrorData&)>& error_cb) {
    ORU_ASSERT(response_cb);
    ORU_ASSERT(error_cb);
    oru::AsyncActionHandle<ZelHttpClientTag> handle;
    ResponseCallback on_response = handle.wrap(
        oru::CallbackType::Once,
        [response_cb](RequestId /*id*/, const ResponseData& response) { response_cb(response); });
    ErrorCallback on_error =
        handle.wrap(oru::CallbackType::Once,
                    [error_cb](RequestId /*id*/, const ErrorData& error) { error_cb(error); });
    const RequestId id = start_request(config, filter, on_response, on_error);
    handle.set_cancel_action([this, id] { cancel_request(id); });
    return handle;
}

}  // namespace zel::http
