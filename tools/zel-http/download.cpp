#include "download.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "text.h"

namespace tool {
namespace {

/// How much waits in memory before the transfer pauses.
constexpr std::size_t most_unwritten = std::size_t{1} * 1024 * 1024;

namespace fs = std::filesystem;

/// The plain file that is meant, also through a link; empty for what is none, such as a device.
std::string plainFile(const std::string& path) {
    if (path == "-") return {};
    std::error_code error;
    const fs::file_status status = fs::symlink_status(path, error);
    if (!fs::exists(status) || fs::is_regular_file(status)) return path;
    return fs::is_regular_file(path, error) ? fs::canonical(path, error).string() : std::string();
}

std::FILE* openFile(const std::string& path) {
    // A copy of the descriptor: opened anew, a plain file would be written from its start.
    if (path == "-") return fdopen(dup(STDOUT_FILENO), "wb");
    return std::fopen(path.c_str(), "wbe");
}

std::string_view trimmed(std::string_view text) {
    const auto begin = text.find_first_not_of(" \t");
    const auto end = text.find_last_not_of(" \t\r\n");
    return begin == std::string_view::npos ? "" : text.substr(begin, end - begin + 1);
}

}  // namespace

Download::Download(const zel::http::RequestConfig& config, const std::string& path,
                   oru::executor& loop, std::function<void()> done)
    : Request(config),
      target_(plainFile(path)),
      part_(target_.empty() ? path : target_ + ".part"),
      loop_(loop),
      done_(std::move(done)) {
    file_ = openFile(part_);
    if (file_ == nullptr) throw std::system_error(errno, std::generic_category(), part_);
    (void)std::setvbuf(file_, nullptr, _IONBF, 0);  // what is written comes in large blocks
}

Download::~Download() { closeFile(false); }

void Download::cancel() {
    done_ = nullptr;
    tryToCancelRequest();
    closeFile(false);
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
    const bool known = size != std::numeric_limits<std::uint32_t>::max();
    const std::lock_guard lock(mutex_);
    total_ = known ? size : 0;
}

void Download::write() {
    std::string block;
    bool resume = false;
    {
        const std::lock_guard lock(mutex_);
        block.swap(unwritten_);
        resume = std::exchange(held_, false);
    }
    if (file_ == nullptr) return;
    if (std::fwrite(block.data(), 1, block.size(), file_) != block.size()) {
        abandon("cannot write " + part_);
        return;
    }
    written_ += block.size();
    // Pause and resume belong to one thread, the engine's.
    if (resume && zel::http::Engine::hasEngine()) {
        zel::http::Engine::getEngine()->queueRequest(
            [self = shared_from_this()] { self->resumeRequest(); });
    }
}

/// The outcome comes when the transfer is gone, which the engine's queue orders.
void Download::abandon(const std::string& failure) {
    failure_ = failure;
    message_ = std::strerror(errno);
    closeFile(false);
    tryToCancelRequest();
    if (!zel::http::Engine::hasEngine()) return;
    auto self = std::static_pointer_cast<Download>(shared_from_this());
    zel::http::Engine::getEngine()->queueRequest(
        [self] { self->loop_.post([self] { self->finish(false); }, 0); });
}

void Download::notifyDataEnd() {
    status_ = getResponseCode();
    finish(true);
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
    finish(false);
}

/// Puts the file into its place when the body is complete and on the disk, else removes it.
void Download::closeFile(bool complete) {
    if (file_ == nullptr) return;
    std::error_code error;
    const bool replaces = !target_.empty();
    const auto check = [&](int result) {
        if (result != 0 && !error) error = {errno, std::generic_category()};
    };
    if (complete && replaces) check(fsync(fileno(file_)));
    check(std::fclose(std::exchange(file_, nullptr)));
    if (complete && replaces && !error) fs::rename(part_, target_, error);
    if (complete && error) {
        failure_ = "cannot write " + (replaces ? target_ : part_);
        message_ = error.message();
    }
    std::error_code ignored;
    if (replaces && (!complete || error)) fs::remove(part_, ignored);
}

void Download::finish(bool complete) {
    closeFile(complete && failure_.empty());
    if (const auto done = std::exchange(done_, nullptr)) done();
}

}  // namespace tool
