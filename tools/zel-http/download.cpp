#include "download.h"

#include <charconv>
#include <cstddef>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "text.h"

namespace tool {
namespace {

/// With more bytes than this waiting to be written, the transfer pauses.
constexpr std::size_t most_unwritten = std::size_t{1} * 1024 * 1024;

std::string_view trimmed(std::string_view text) {
    const auto begin = text.find_first_not_of(" \t");
    const auto end = text.find_last_not_of(" \t\r\n");
    return begin == std::string_view::npos ? "" : text.substr(begin, end - begin + 1);
}

/// The value of Content-Length; 0 without one.
std::uint64_t contentLength(const zel::http::HeaderMap& headers) {
    std::uint64_t length = 0;
    const auto field = headers.find("Content-Length");
    if (field == headers.end()) return length;
    const std::string& text = field->second;
    std::from_chars(text.data(), text.data() + text.size(), length);
    return length;
}

}  // namespace

Download::Download(const zel::http::RequestConfig& config, const std::string& path,
                   oru::executor& loop, std::function<void()> done)
    : Request(config), path_(path), loop_(loop), done_(std::move(done)), file_(path) {}

void Download::cancel() {
    done_ = nullptr;
    tryToCancelRequest();
    file_.reset();
}

std::uint64_t Download::total() {
    const std::lock_guard lock(mutex_);
    return total_;
}

void Download::notifyDataReceived(const char* data, unsigned length) {
    received_ += length;
    if (config.max_download_size >= 0 &&
        received_ > static_cast<std::uint64_t>(config.max_download_size)) {
        throw std::runtime_error("larger than --max-size");
    }
    bool first = false;
    bool hold = false;
    {
        const std::lock_guard lock(mutex_);
        first = unwritten_.empty();
        unwritten_.append(data, length);
        if (!held_ && unwritten_.size() > most_unwritten) held_ = hold = true;
    }
    if (hold) pauseRequest();
    if (first) {
        auto self = std::static_pointer_cast<Download>(shared_from_this());
        loop_.post([self] { self->write(); }, 0);
    }
}

void Download::notifyHeader(const char* line, unsigned length) {
    const std::string_view text(line, length);
    if (text.substr(0, 5) == "HTTP/") {
        headers_.clear();
        notifySize(0);
        return;
    }
    const auto colon = text.find(':');
    if (colon == std::string_view::npos) return;
    headers_.emplace(text.substr(0, colon), trimmed(text.substr(colon + 1)));
}

void Download::notifySize(unsigned size) {
    // A length beyond the 32 bits of `size` is read from the Content-Length header.
    const bool fits = size != std::numeric_limits<std::uint32_t>::max();
    const std::uint64_t total = fits ? size : contentLength(headers_);
    const std::lock_guard lock(mutex_);
    total_ = total;
}

void Download::write() {
    std::string block;
    bool resume = false;
    {
        const std::lock_guard lock(mutex_);
        block.swap(unwritten_);
        resume = std::exchange(held_, false);
    }
    if (!file_) return;
    try {
        file_->write(block);
    } catch (const std::system_error& error) {
        abandon(error.code());
        return;
    }
    written_ += block.size();
    // Pause and resume must be called on one thread. `notifyDataReceived` pauses on the engine's.
    if (resume && zel::http::Engine::hasEngine()) {
        zel::http::Engine::getEngine()->queueRequest(
            [self = shared_from_this()] { self->resumeRequest(); });
    }
}

/// Cancels the transfer and reports the failure. The report is queued behind the cancel, so no
/// notification can follow it.
void Download::abandon(const std::error_code& error) {
    cannotWrite(error);
    file_.reset();
    tryToCancelRequest();
    if (!zel::http::Engine::hasEngine()) return;
    auto self = std::static_pointer_cast<Download>(shared_from_this());
    zel::http::Engine::getEngine()->queueRequest(
        [self] { self->loop_.post([self] { self->finish(); }, 0); });
}

void Download::cannotWrite(const std::error_code& error) {
    failure_ = "cannot write " + path_;
    message_ = error.message();
}

void Download::notifyDataEnd() {
    status_ = getResponseCode();
    try {
        if (file_) file_->finish();
    } catch (const std::system_error& error) {
        cannotWrite(error.code());
    }
    finish();
}

void Download::notifyFailure(zel::http::Failure failure, const char* text) {
    using zel::http::Failure;
    status_ = getResponseCode();
    const bool answered = status_ != 0 && (failure == Failure::HttpErrorCode ||
                                           failure == Failure::AuthenticationFailure);
    if (!answered && failure_.empty()) {
        const bool too_large = config.max_download_size >= 0 &&
                               received_ > static_cast<std::uint64_t>(config.max_download_size);
        failure_ = nameOf(failure);
        message_ = too_large ? "larger than --max-size" : text;
    }
    finish();
}

void Download::finish() {
    file_.reset();
    if (const auto done = std::exchange(done_, nullptr)) done();
}

}  // namespace tool
