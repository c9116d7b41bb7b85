#include "Client/curl_request.h"

#include <algorithm>
#include <functional>
#include <new>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "Engine/outbox.h"
#include "Records/header_line.h"
#include "eventlog/eventlog.h"

namespace zel::http {
namespace {

constexpr std::size_t header_buckets = 10;

/// The most memory reserved for a body on its declared length alone, before so much has arrived.
constexpr std::size_t trusted_size = std::size_t{16} * 1024 * 1024;

ClientFailure convert_failure(Failure failure) {
    constexpr char function[] =
        "zel::http::ClientFailure {anonymous}::convert_failure(zel::http::Failure)";
    switch (failure) {
        case Failure::InvalidUrl:
        case Failure::DnsLookupFailure:
        case Failure::ProtocolFailure:
        case Failure::OperationTimedOut:
        case Failure::AuthenticationFailure:
        case Failure::ConnectionFailure:
            return static_cast<ClientFailure>(failure);  // the same numbers
        case Failure::HttpErrorCode:
            eventlog_die("%s: Invalid Failure -> ClientFailure conversion",
                         logging::arguments(function));
    }
    eventlog_die("%s: Unexpected switch-case fallthrough", logging::arguments(function));
}

/// Makes the task that delivers an outcome. Its copies share the record: bodies are not copied.
template <typename Record>
std::function<void()> deliverTo(std::shared_ptr<ClientImpl> client, Client::RequestId id,
                                Record record,
                                void (ClientImpl::*deliver)(Client::RequestId, const Record&)) {
    return [client = std::move(client), id, deliver,
            shared = std::make_shared<const Record>(std::move(record))] {
        ((*client).*deliver)(id, *shared);
    };
}

}  // namespace

ClientImpl::CurlRequest::CurlRequest(std::shared_ptr<ClientImpl> client, RequestId id,
                                     const RequestConfig& config)
    : Request(config),
      client(std::move(client)),
      id(id),
      headers(header_buckets),
      max_download_size(config.max_download_size) {
    setKeepsFacts(false);  // nobody could read them
}

void ClientImpl::CurlRequest::start() {}

void ClientImpl::CurlRequest::notifyHeader(const char* line, unsigned length) {
    const std::string_view text(line, length);
    if (isStatusLine(text)) declared_size = 0;  // it was an earlier response's, say a redirect's
    const auto header = splitHeaderLine(text);
    // The first value of a name wins, over redirects and authentication retries too.
    if (header) headers.emplace(header->name, header->value);
}

void ClientImpl::CurlRequest::notifySize(unsigned size) { declared_size = size; }

void ClientImpl::CurlRequest::notifyDataReceived(const char* data, unsigned length) {
    if (max_download_size == -1) {
        append(data, length);
        return;
    }
    const std::int64_t candidate = std::int64_t{received_size} + length;
    if (candidate <= max_download_size) {
        received_size = static_cast<std::int32_t>(candidate);
        append(data, length);
        return;
    }
    const std::int32_t remaining = std::max(max_download_size - received_size, 0);
    append(data, static_cast<std::size_t>(remaining));
    received_size = max_download_size;
    throw std::runtime_error("Download exceeded allocated size");
}

/// Appends to the body. Reserves a declared length once, so that growing does not copy the body.
void ClientImpl::CurlRequest::append(const char* data, std::size_t length) {
    if (body.capacity() - body.size() < length && declared_size > body.capacity()) {
        try {
            const bool trusted = body.size() >= trusted_size / 2;
            body.reserve(trusted ? declared_size : std::min(declared_size, trusted_size));
        } catch (const std::exception&) {  // a false length or too little memory: grow as usual
            declared_size = 0;
        }
    }
    body.append(data, length);
}

void ClientImpl::CurlRequest::notifyDataEnd() {
    dispatch_to_client(takeResponse());
    tryToCancelRequest();
}

void ClientImpl::CurlRequest::notifyFailure(Failure failure, const char* text) {
    const bool answered =
        protocol::valid_status(static_cast<long>(getResponseCode())) &&
        (failure == Failure::AuthenticationFailure || failure == Failure::HttpErrorCode);
    if (answered) {
        dispatch_to_client(takeResponse());
    } else {
        dispatch_to_client(ErrorData{convert_failure(failure), text != nullptr ? text : ""});
    }
    tryToCancelRequest();
}

/// Moves the response out and frees the request's body: neither is used again after the transfer.
ResponseData ClientImpl::CurlRequest::takeResponse() {
    std::string().swap(config.body);
    return {getResponseCode(), std::move(headers), std::move(body)};
}

void ClientImpl::CurlRequest::dispatch_to_client(ResponseData response) {
    Outbox::post(client->executor,
                 deliverTo(client, id, std::move(response), &ClientImpl::on_response));
}

void ClientImpl::CurlRequest::dispatch_to_client(ErrorData error) {
    Outbox::post(client->executor, deliverTo(client, id, std::move(error), &ClientImpl::on_error));
}

}  // namespace zel::http
