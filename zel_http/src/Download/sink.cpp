// Where the bytes of a body go. The worker thread.

#include "Download/sink.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <system_error>
#include <utility>

#include "Download/eager_writer.h"
#include "Download/fault.h"
#include "Download/part_file.h"

namespace zel::http {
namespace {

std::string lowered(std::string text) {
    const auto lower = [](unsigned char c) { return static_cast<char>(std::tolower(c)); };
    std::transform(text.begin(), text.end(), text.begin(), lower);
    return text;
}

class ToFile final : public Sink {
public:
    ToFile(const FileSink& file, const DownloadConfig& config, const std::function<void()>& go_on)
        : Sink(config.sha256),
          part_(file.path, config.request.url),
          eager_writer_(part_.descriptor()) {
        if (file.resumes) {
            have_ = part_.load();
        } else {
            part_.drop();
        }
        if (config.sha256.empty()) return;
        part_.read(have_.offset, [&](const char* data, std::size_t size) {
            go_on();
            digest(data, size);
        });
    }

    bool startsOver() const override { return true; }
    bool eager() const override { return eager_writer_.able() && !digests(); }

protected:
    void empty() override { part_.drop(); }
    void mark(const Resumable& version) override { part_.mark(version); }
    void store(const char* data, std::size_t size) override { part_.append(data, size); }
    std::size_t storeEagerly(const char* data, std::size_t size) noexcept override {
        return eager_writer_.write(data, size);
    }
    void publish() override { part_.publish(); }
    void reject() override { part_.remove(); }

private:
    PartFile part_;
    EagerWriter eager_writer_;
};

class ToDescriptor final : public Sink {
public:
    ToDescriptor(int descriptor, const std::string& sha256, AwaitRoom await_room)
        : Sink(sha256),
          descriptor_(descriptor),
          await_room_(std::move(await_room)),
          eager_writer_(descriptor) {
        struct stat status {};
        if (fstat(descriptor, &status) != 0) fail();
        if (!S_ISREG(status.st_mode)) piece_ = sure_room;
    }

    bool eager() const override { return eager_writer_.able() && !digests(); }

protected:
    void store(const char* data, std::size_t size) override {
        while (size != 0) {
            if (piece_ == sure_room) await_room_(descriptor_);
            std::size_t written = eager_writer_.write(data, size);
            if (written == 0) written = writePiece(data, std::min(size, piece_));
            data += written;
            size -= written;
        }
    }
    std::size_t storeEagerly(const char* data, std::size_t size) noexcept override {
        return eager_writer_.write(data, size);
    }

private:
    std::size_t writePiece(const char* data, std::size_t size) const {
        const ssize_t written = ::write(descriptor_, data, size);
        if (written < 0 && errno != EINTR && errno != EAGAIN) fail();
        return static_cast<std::size_t>(std::max<ssize_t>(written, 0));
    }
    [[noreturn]] static void fail() {
        throw Fault(DownloadFailure::Sink,
                    "cannot write the descriptor: " + std::generic_category().message(errno));
    }

    /// What a pipe takes without blocking once `poll` says that it takes something.
    static constexpr std::size_t sure_room = 4096;

    const int descriptor_;
    const AwaitRoom await_room_;
    EagerWriter eager_writer_;
    std::size_t piece_ = std::size_t{1} << 30U;
};

class ToCallable final : public Sink {
public:
    ToCallable(const std::string& sha256, Offer offer) : Sink(sha256), offer_(std::move(offer)) {}

protected:
    void store(const char* data, std::size_t size) override { offer_(data, size); }

private:
    const Offer offer_;
};

}  // namespace

Sink::Sink(const std::string& sha256) : sha256_(lowered(sha256)) {
    if (!sha256.empty()) digest_.emplace();
}

void Sink::drop() {
    empty();
    have_ = {};
    if (digest_) digest_->restart();
}

void Sink::begin(const Validator& version, std::optional<std::uint64_t> total) {
    drop();
    have_.validator = version;
    have_.total = total;
    mark(have_);
}

void Sink::expect(std::uint64_t total) {
    if (!have_.total) have_.total = total;
}

void Sink::write(std::string_view block) {
    store(block.data(), block.size());
    digest(block.data(), block.size());
    have_.offset += block.size();
}

std::size_t Sink::writeEagerly(std::string_view block) noexcept {
    if (!eager()) return 0;
    const std::size_t written = storeEagerly(block.data(), block.size());
    have_.offset += written;
    return written;
}

void Sink::finish() {
    const std::string sum = digest_ ? digest_->hex() : std::string();
    if (sum != sha256_) {
        reject();
        throw Fault(DownloadFailure::Checksum, "the SHA-256 of the body is " + sum);
    }
    publish();
}

void Sink::digest(const char* data, std::size_t size) {
    if (digest_) digest_->update(data, size);
}

std::unique_ptr<Sink> makeSink(const DownloadConfig& config, Offer offer, AwaitRoom await_room,
                               const std::function<void()>& go_on) {
    if (const auto* file = std::get_if<FileSink>(&config.sink)) {
        return std::make_unique<ToFile>(*file, config, go_on);
    }
    if (const auto* descriptor = std::get_if<DescriptorSink>(&config.sink)) {
        return std::make_unique<ToDescriptor>(descriptor->descriptor, config.sha256,
                                              std::move(await_room));
    }
    return std::make_unique<ToCallable>(config.sha256, std::move(offer));
}

}  // namespace zel::http
