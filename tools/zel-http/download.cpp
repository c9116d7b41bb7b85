#include "download.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
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

/// As many as the system follows.
constexpr int most_links = 40;

/// Of the target's name in the part's, which adds to it.
constexpr std::size_t most_name = 200;

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

/// The plain file that is meant, there already or not, also through links; empty for what is none,
/// such as a device.
std::string plainFile(const std::string& path) {
    if (path == "-") return {};
    std::error_code error;
    const fs::file_status status = fs::status(path, error);
    if (fs::is_regular_file(status)) return fs::canonical(path, error).string();
    if (fs::exists(status)) return {};
    fs::path file = path;
    for (int links = 0; fs::is_symlink(file, error); ++links) {
        if (links == most_links) return {};  // opening it tells the reason
        file = file.parent_path() / fs::read_symlink(file, error);
    }
    return file.string();
}

std::FILE* openDirectly(const std::string& path) {
    // A copy of the descriptor: opened anew, a plain file would be written from its start.
    if (path == "-") return fdopen(dup(STDOUT_FILENO), "wb");
    return std::fopen(path.c_str(), "wbe");
}

/// Gives `part` the owner, where that is possible, and the mode of what it will replace.
void adopt(int part, const struct stat& replaced) {
    mode_t mode = replaced.st_mode & 07777U;
    if (fchown(part, replaced.st_uid, replaced.st_gid) != 0) mode &= 0777U;
    (void)fchmod(part, mode);
}

/// Replaces `target` as a whole; one that has other names too, or is a mount point, gets the
/// content instead.
void replace(const std::string& target, const std::string& part, std::error_code& error) {
    struct stat old {};
    const bool shared = stat(target.c_str(), &old) == 0 && old.st_nlink > 1;
    if (!shared) fs::rename(part, target, error);
    if (!shared && error != std::errc::device_or_resource_busy) return;
    fs::copy_file(part, target, fs::copy_options::overwrite_existing, error);
    if (!error) fs::remove(part, error);
}

std::string_view trimmed(std::string_view text) {
    const auto begin = text.find_first_not_of(" \t");
    const auto end = text.find_last_not_of(" \t\r\n");
    return begin == std::string_view::npos ? "" : text.substr(begin, end - begin + 1);
}

}  // namespace

Download::Download(const zel::http::RequestConfig& config, const std::string& path,
                   oru::executor& loop, std::function<void()> done)
    : Request(config), target_(plainFile(path)), part_(path), loop_(loop), done_(std::move(done)) {
    if (target_.empty()) {
        file_ = openDirectly(part_);
    } else {
        openPart();
    }
    if (file_ == nullptr) fail(part_);
    (void)std::setvbuf(file_, nullptr, _IONBF, 0);  // what is written comes in large blocks
}

Download::~Download() { closeFile(false); }

/// A file that no one else writes, even into the same target.
void Download::openPart() {
    struct stat replaced {};
    const bool replaces = stat(target_.c_str(), &replaced) == 0;
    if (replaces && access(target_.c_str(), W_OK) != 0) fail(target_);
    const mode_t mode = replaces ? replaced.st_mode & 0777U : 0666U;
    const fs::path target(target_);
    const std::string name = target.filename().string().substr(0, most_name);
    int part = -1;
    for (unsigned number = 0; part < 0; ++number) {
        part_ = target.parent_path() / fmt::format("{}.{}-{}.part", name, getpid(), number);
        part = open(part_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode);
        if (part < 0 && errno != EEXIST) fail(part_);
    }
    if (replaces) adopt(part, replaced);
    file_ = fdopen(part, "wb");
}

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
    std::uint64_t total = size;
    if (size == std::numeric_limits<std::uint32_t>::max()) {  // or more, which its field tells
        const auto field = headers_.find("Content-Length");
        const std::string text = field == headers_.end() ? "" : field->second;
        total = 0;
        std::from_chars(text.data(), text.data() + text.size(), total);
    }
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
    if (complete && replaces && !error) replace(target_, part_, error);
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
