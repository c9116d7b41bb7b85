#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>

#include "oru/executor.h"
#include "output_file.h"
#include "zel_http/engine.h"
#include "zel_http/request.h"

namespace tool {

/// Streams a body to a file. The engine thread appends blocks to a buffer, the loop's thread writes
/// them. When the buffer is full the transfer pauses, so memory does not grow with the body.
class Download final : public zel::http::Request {
public:
    /// `done` is called once on the loop's thread, which is also the FSM context, unless the
    /// download is cancelled; nothing of the transfer goes on then. Throws `std::system_error` when
    /// the file cannot be opened.
    Download(const zel::http::RequestConfig& config, const std::string& path, oru::executor& loop,
             std::function<void()> done);

    // Loop's thread.
    void start() override { runRequest(); }
    /// Cancels the transfer and removes the part file.
    void cancel();
    /// The status of the response; 0 without one.
    unsigned status() const { return status_; }
    std::uint64_t written() const { return written_; }
    /// The declared length; 0 while it is not known.
    std::uint64_t total();
    /// The header fields of the latest response: after redirects, the last one's.
    const zel::http::HeaderMap& headers() const { return headers_; }
    /// The failure's name and text; empty after success and for a status from 400 on.
    const std::string& failure() const { return failure_; }
    const std::string& message() const { return message_; }

    // Engine thread.
    void notifyDataReceived(const char* data, unsigned length) override;
    void notifyHeader(const char* line, unsigned length) override;
    void notifySize(unsigned size) override;

    // FSM context.
    void notifyDataEnd() override;
    void notifyFailure(zel::http::Failure failure, const char* text) override;

private:
    void write();
    void abandon(const std::error_code& error);
    void cannotWrite(const std::error_code& error);
    void finish();

    const std::string path_;
    oru::executor& loop_;
    // Loop's thread only.
    std::function<void()> done_;
    /// Empty once the download has ended, failed or been cancelled.
    std::optional<OutputFile> file_;
    std::uint64_t written_ = 0;
    unsigned status_ = 0;
    std::string failure_;
    std::string message_;
    // Engine thread only, until the outcome.
    std::uint64_t received_ = 0;
    zel::http::HeaderMap headers_;
    // Guarded by `mutex_`.
    std::mutex mutex_;
    std::string unwritten_;
    bool held_ = false;
    std::uint64_t total_ = 0;
};

}  // namespace tool
