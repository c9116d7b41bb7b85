#include "exchange.h"

#include <stdexcept>
#include <string_view>

#include "text.h"

namespace tool {
namespace {

std::string trimmed(std::string_view text) {
    const auto begin = text.find_first_not_of(" \t\r\n");
    const auto end = text.find_last_not_of(" \t\r\n");
    return begin == std::string_view::npos ? "" : std::string(text.substr(begin, end - begin + 1));
}

}  // namespace

Exchange::Exchange(const zel::http::RequestConfig& config, Limits limits,
                   std::function<void()> done)
    : Request(config), limits_(limits), done_(std::move(done)) {}

void Exchange::cancel() {
    done_ = nullptr;
    tryToCancelRequest();
}

void Exchange::notifyDataReceived(const char* data, unsigned length) {
    body_size_ += length;
    if (isTooLarge()) throw std::runtime_error("larger than --max-filesize");
    if (limits_.keeps_body) body_.append(data, length);
}

void Exchange::notifyHeader(const char* line, unsigned length) {
    const std::string_view text(line, length);
    const auto colon = text.find(':');
    if (text.substr(0, 5) == "HTTP/" && text.find(' ') < colon) {
        head_.clear();
        trailers_.clear();
        fields_.clear();
        head_ended_ = false;
    } else if (head_ended_) {
        trailers_ += text;
        return;
    } else if (text.find_first_not_of("\r\n") == std::string_view::npos) {
        head_ended_ = true;  // trailers follow the body
    } else if (text[0] == ' ' || text[0] == '\t') {
        if (!fields_.empty()) fields_.back().second += ' ' + trimmed(text);
    } else if (colon != std::string_view::npos) {
        fields_.emplace_back(text.substr(0, colon), trimmed(text.substr(colon + 1)));
    }
    head_ += text;
}

void Exchange::notifyDataEnd() {
    status_ = getResponseCode();
    finish();
}

void Exchange::notifyFailure(zel::http::Failure failure, const char* text) {
    using zel::http::Failure;
    status_ = getResponseCode();
    const bool answered = status_ != 0 && (failure == Failure::HttpErrorCode ||
                                           failure == Failure::AuthenticationFailure);
    if (!answered) {
        failure_ = nameOf(failure);
        message_ = isTooLarge() ? "larger than --max-filesize" : text;
    }
    finish();
}

void Exchange::finish() {
    if (const auto done = std::exchange(done_, nullptr)) done();
}

}  // namespace tool
