#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Download/digest.h"
#include "Download/resume_rule.h"

namespace zel::http {

/// Takes the body on the worker thread, and knows what of it is there. Operations throw `Fault`.
class Sink {
public:
    /// `sha256` is what the whole body must have; empty for no check.
    explicit Sink(const std::string& sha256);
    virtual ~Sink() = default;
    Sink(const Sink&) = delete;
    Sink& operator=(const Sink&) = delete;

    const Resumable& have() const { return have_; }
    /// Whether bytes that were taken can be dropped again.
    virtual bool startsOver() const { return false; }
    /// Forgets all bytes. Only if `startsOver`, or before the first one.
    void drop();
    /// Begins a body of that version; drops what is there.
    void begin(const Validator& version, std::optional<std::uint64_t> total);
    /// Learns the size of the whole body, where it is not known yet.
    void expect(std::uint64_t total);
    void write(std::string_view block);
    /// Whether some bytes can be written without a wait.
    virtual bool eager() const { return false; }
    /// Writes what needs no wait, and returns how many bytes that were, from the front. Never
    /// fails: what it leaves is for `write`. Any thread, one at a time.
    std::size_t writeEagerly(std::string_view block) noexcept;
    /// Checks the whole body, and finishes it.
    void finish();

protected:
    virtual void empty() {}
    virtual void mark(const Resumable& /*version*/) {}
    virtual void store(const char* data, std::size_t size) = 0;
    virtual std::size_t storeEagerly(const char* /*data*/, std::size_t /*size*/) noexcept {
        return 0;
    }
    virtual void publish() {}
    virtual void reject() {}
    /// Adds bytes that are there to the checksum.
    void digest(const char* data, std::size_t size);
    bool digests() const { return digest_.has_value(); }

    Resumable have_;

private:
    const std::string sha256_;
    std::optional<Digest> digest_;
};

/// Offers bytes to a callable and returns once all are taken.
using Offer = std::function<void(const char* data, std::size_t size)>;
/// Waits until a descriptor takes bytes.
using AwaitRoom = std::function<void(int descriptor)>;

/// `go_on` runs now and then while a part is read, and may throw.
std::unique_ptr<Sink> makeSink(const DownloadConfig& config, Offer offer, AwaitRoom await_room,
                               const std::function<void()>& go_on);

}  // namespace zel::http
