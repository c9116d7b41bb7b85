#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "zel_http/export.h"
#include "zel_http/header_map.h"
#include "zel_http/records.h"
#include "zel_http/transfer_facts.h"

namespace logging {
class Logger;
}
namespace oru {
class executor;
}

/// @file
/// Downloads, whose bodies are not held in memory. A body goes to a sink: a file, which survives a
/// crash and is then continued; a descriptor; or a function of yours. docs/downloads.md says what
/// happens after each failure. A "try" is one transfer; a download may need several.
namespace zel::http {

/// What to do when a part of the body is there and the server now has another version.
enum class OnChange : std::int32_t {
    StartOver = 0,  ///< drop the bytes and begin with the new version
    Fail = 1,       ///< end with `DownloadFailure::Changed`
};

/// Writes a file. The body goes to `path`.part. The file `path`.part.state beside it says to which
/// URL and which version the bytes belong. When the body is whole, the part is synced to the disk
/// and renamed to `path`. If an earlier download, by this process or another, has left a part, it
/// is resumed. A symbolic link at `path` is replaced, not followed. If there was a file at `path`,
/// the new one gets its permissions and, if the process may set it, its owner.
struct FileSink {
    std::string path;                          ///< replaced when the body is whole, never before
    OnChange on_change = OnChange::StartOver;  ///< for resumed bytes
    bool resumes = true;                       ///< false drops what an earlier download has left
};

/// Writes to a descriptor of yours, from its current position. The download does not close it. Keep
/// it open until the outcome, or until you have destroyed the handle.
struct DescriptorSink {
    int descriptor = -1;  ///< a file, pipe or stream socket in blocking mode
};

/// Gives the body to a function of yours, block by block, on the executor's thread.
struct CallableSink {
    /// Takes bytes from the front of `data` and returns how many it has taken. `data` is valid
    /// during the call. If it returns less than `size`, the download waits for `Download::takeMore`
    /// and then offers the rest.
    std::function<std::size_t(const char* data, std::size_t size)> take;
};

using DownloadSink = std::variant<FileSink, DescriptorSink, CallableSink>;  ///< where a body goes

/// When a try that failed is repeated. Only a `GET` is, and only after a fault that may pass: the
/// name was not found, no connection, a TLS handshake that failed (but not because of a
/// certificate), a time-out, a stall, a connection or body that was cut, a fault of HTTP/2, a
/// status 429, 500, 502, 503 or 504. The next try asks for the rest of the body.
struct RetryPolicy {
    unsigned most_retries = 10;  ///< in the whole download; 0 for no retry
    /// The n-th delay is random, between 0 and `base` * 2^(n-1), but never longer than `cap`.
    std::chrono::milliseconds base{1000};
    std::chrono::milliseconds cap{300000};  ///< see `base`
    /// When the server sends Retry-After, the download waits for that time, but not longer than
    /// this. A random delay comes on top, between 0 and the longer of this wait and the limit of
    /// the random delay above. So devices that were told the same time do not return together.
    std::chrono::milliseconds longest_retry_after{300000};
};

/// Limits of a download; 0 is none.
struct DownloadLimits {
    std::uint64_t size = 0;                  ///< bytes of the whole body
    std::uint64_t bytes_per_second = 0;      ///< the average rate at which the sink gets bytes
    std::chrono::milliseconds stall{60000};  ///< longest time without a byte; pauses do not count
    std::chrono::milliseconds whole{0};      ///< from start to outcome, with all pauses and retries
};

/// The description of a download, copied when it starts.
struct DownloadConfig {
    /// What to fetch, as for a `Client`. `max_download_size` is ignored: use `limits.size`.
    /// `timeout` limits each try. Header fields Range and If-Range are ignored: the download sets
    /// its own.
    RequestConfig request;
    DownloadSink sink;      ///< where the body goes; a callable must be set
    DownloadLimits limits;  ///< of size, rate and time
    RetryPolicy retry;      ///< what is repeated, and when
    /// The SHA-256 of the whole body in hexadecimal digits, resumed bytes included; empty for no
    /// check. If the file has another one, it is deleted and never gets its name.
    std::string sha256;
    /// Take the body whatever the status. Otherwise a status other than 200 and 206 is a failure.
    bool any_status = false;
    std::chrono::milliseconds progress_interval{500};  ///< the least time between two reports
};

/// A response's head.
struct DownloadHead {
    std::uint32_t status = 0;  ///< 206 when a body is resumed
    HeaderMap headers;         ///< of the last response; of several with one name the first
    std::uint64_t offset = 0;  ///< bytes that the sink has already, when a body is resumed
    std::optional<std::uint64_t> total;  ///< bytes of the whole body, where the server tells
    /// Names and values of all header fields of the last response, in their order.
    std::vector<std::pair<std::string, std::string>> fields{};
};

/// How far a download is.
struct DownloadProgress {
    std::uint64_t bytes = 0;             ///< bytes that the sink has, resumed ones included
    std::optional<std::uint64_t> total;  ///< bytes of the whole body, if known
    double bytes_per_second = 0;         ///< the speed of the last few reports
    std::optional<std::chrono::milliseconds> left{};  ///< time to the end at that speed, if known
};

/// A try that failed and is repeated.
struct DownloadRetry {
    unsigned attempt = 0;             ///< the number of the retry that will come, from 1
    std::chrono::milliseconds delay;  ///< the time until then
    std::string reason;               ///< why the last try failed, as a text for people
};

/// A download that is complete: the sink has the whole body, and a file has its name.
struct DownloadResult {
    DownloadHead head;        ///< of the last response
    std::uint64_t bytes = 0;  ///< bytes of the whole body
    unsigned retries = 0;     ///< how many retries there were
    TransferFacts facts;      ///< of the last try
};

/// Why a download failed.
enum class DownloadFailure : std::int32_t {
    InvalidUrl = 0,             ///< this and the next five are as in `ClientFailure`
    DnsLookupFailure = 1,       ///< may pass
    ProtocolFailure = 2,        ///< also a body that was cut, and faults of TLS
    OperationTimedOut = 3,      ///< by `RequestConfig::timeout`, or by a limit of the system
    AuthenticationFailure = 4,  ///< status 401, 403 or 407
    ConnectionFailure = 5,      ///< may pass
    Status = 6,                 ///< the status is neither 200 nor 206
    Refused = 7,                ///< `on_head` returned false or threw, or the callable threw
    Changed = 8,                ///< the server has another version, or cannot continue this one
    TooLarge = 9,               ///< the body is longer than `DownloadLimits::size`
    Stalled = 10,               ///< nothing came for `DownloadLimits::stall`
    TimeLimit = 11,             ///< `DownloadLimits::whole` has passed
    Checksum = 12,              ///< the body is not the one of `DownloadConfig::sha256`
    Sink = 13,                  ///< the file or descriptor cannot be written, or memory ran out
    Busy = 14,                  ///< another download, maybe another process, writes this file
    NoEngine = 15,              ///< there is no engine, or it was destroyed meanwhile
};

/// Prints a name for people, such as "<Checksum>"; nothing for a value that has no name.
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const DownloadFailure& failure);

/// The record of a failed download.
struct DownloadError {
    DownloadFailure failure = DownloadFailure::ProtocolFailure;  ///< decide by this
    std::uint32_t status = 0;  ///< of the last response; 0 when none came
    std::uint64_t bytes = 0;   ///< bytes that the sink had when the download failed
    std::string message;       ///< a text for people
    TransferFacts facts;       ///< of the last try; empty if the download itself has ended that
};

/// Functions of yours that a download calls, on the executor's thread. The first two must be set,
/// or an assertion ends the process; the others may be empty. Each may destroy the handle. An
/// exception comes out of the function that runs the executor, such as `io_context::run`; the
/// executors of GLib, Qt and `thread_executor` end the process with its text.
struct DownloadCallbacks {
    /// @{
    /// The outcome: one of the two is called, once, unless you destroy the handle before.
    std::function<void(const DownloadResult&)> on_complete;
    std::function<void(const DownloadError&)> on_error;
    /// @}
    /// Called before the first byte of each response that the download would take. The body waits
    /// until it returns. False refuses the body and ends the download.
    std::function<bool(const DownloadHead&)> on_head;
    std::function<void(const DownloadProgress&)> on_progress;  ///< called when bytes have come
    std::function<void(const DownloadRetry&)> on_retry;  ///< called before the delay of a retry
};

/// A running download. Move-only; a moved-from handle does nothing. The handle and its operations
/// belong to the executor's thread, callbacks included.
class ZEL_HTTP_API Download {
public:
    Download() noexcept;  ///< no download
    /// Cancels: once this returns, no callback runs any more, and nothing is written to the sink.
    /// Waits for a write that has begun. The part of a file stays if it can be resumed, and the
    /// next download continues it.
    ~Download();
    /// @{
    /// Assigning cancels what this handle held.
    Download(Download&& other) noexcept;
    Download& operator=(Download&& other) noexcept;
    /// @}
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    void cancel() noexcept;  ///< as the destructor; a second call does nothing

    /// Stops receiving and giving bytes to the sink until `resume`. A slow sink, and a callable
    /// that cannot take more, pause the download, too. The download goes on when no reason is left:
    /// `resume` ends only your own pause.
    void pause();
    void resume();  ///< ends a `pause`
    /// Call it when your `CallableSink` has taken fewer bytes than it was offered and can now take
    /// more.
    void takeMore();

private:
    struct Impl;
    friend ZEL_HTTP_API Download startDownload(oru::executor& executor, logging::Logger& logger,
                                               DownloadConfig config, DownloadCallbacks callbacks);
    explicit Download(std::unique_ptr<Impl> impl) noexcept;

    std::unique_ptr<Impl> impl;
};

/// Starts a download and returns its handle. Keep the handle as long as you want the outcome. Call
/// this on the executor's thread. `executor` and `logger` must outlive the handle.
///
/// Destroy the handle before the engine. If the engine is destroyed first, the download fails with
/// `NoEngine`; and if the download starts or resumes a transfer at that very moment, the behaviour
/// is undefined.
///
/// The download makes a thread of its own, which writes to files and descriptors. Only writes that
/// need no wait, to a file in memory or to a pipe or socket that has room, are made on the engine
/// thread. Throws `std::system_error` when the system gives no thread, or not the one descriptor
/// that a `DescriptorSink` needs. The memory in use is about 1 MiB, whatever the size of the body.
[[nodiscard]] ZEL_HTTP_API Download startDownload(oru::executor& executor, logging::Logger& logger,
                                                  DownloadConfig config,
                                                  DownloadCallbacks callbacks);

}  // namespace zel::http
