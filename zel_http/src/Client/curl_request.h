#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Client/client_impl.h"
#include "zel_http/request.h"

namespace zel::http {

/// One request of a client: assembles the response on the engine thread, and on the outcome, in the
/// FSM context, posts a task with it to the client's executor.
class ClientImpl::CurlRequest : public Request {
public:
    CurlRequest(std::shared_ptr<ClientImpl> client, RequestId id, const RequestConfig& config);

    /// Throws `std::runtime_error` at the first byte above the download limit.
    void notifyDataReceived(const char* data, unsigned length) override;
    void notifyHeader(const char* line, unsigned length) override;
    void notifyDataEnd() override;
    void notifyFailure(Failure failure, const char* text) override;
    void notifySize(unsigned size) override;
    void start() override;

private:
    void append(const char* data, std::size_t length);
    ResponseData takeResponse();
    void dispatch_to_client(ResponseData response);
    void dispatch_to_client(ErrorData error);

    std::shared_ptr<ClientImpl> client;
    RequestId id;
    HeaderMap headers;
    std::string body;
    std::int32_t max_download_size;
    std::int32_t received_size = 0;
    /// The declared length of the current response's body, 0 when it declares none.
    std::size_t declared_size = 0;
};

}  // namespace zel::http
