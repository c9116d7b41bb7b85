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
/// Downloads whose bodies are not held in memory: into a file that survives a crash and resumes, a
/// descriptor, or a callable. docs/downloads.md says what happens after each failure.
namespace zel::http {

/// What to do when the server has another version than the one of which bytes are there.
enum class OnChange : std::int32_t {
    StartOver = 0,  ///< drop the bytes and begin with the new version
    Fail = 1,       ///< end with `DownloadFailure::Changed`
};

/// Writes a file. The body goes to `path`.part, beside it `path`.part.state tells of which version
/// of which URL the bytes are; a whole body is synced to the disk and renamed to `path`. What is
/// left of an earlier download, by this process or another, is resumed. A symbolic link at `path`
/// is replaced, not followed. A file that is replaced leaves its permissions and, where the process
/// may set it, its owner to the new one.
struct FileSink {
    std::string path;                          ///< replaced when the body is whole, never before
    OnChange on_change = OnChange::StartOver;  ///< for resumed bytes
    bool resumes = true;                       ///< false drops what an earlier download has left
};

/// Writes to a descriptor of the caller's, from where it stands. It stays open, and must stay so
/// until the outcome or until the handle is dropped.
struct DescriptorSink {
    int descriptor = -1;  ///< a file, pipe or stream socket in blocking mode
};

/// Gives the body to a callable, block by block, on the executor's thread.
struct CallableSink {
    /// Takes bytes, valid during the call, and returns how many of them, from the front. With fewer
    /// than `size` the download waits for `Download::takeMore`, then offers the rest.
    std::function<std::size_t(const char* data, std::size_t size)> take;
};

using DownloadSink = std::variant<FileSink, DescriptorSink, CallableSink>;  ///< where a body goes

/// When a try that failed is repeated. Only a `GET` is, and only after what may pass: no
/// connection, a time-out, a body that was cut, a status 429, 500, 502, 503 or 504. The next try
/// asks for the rest of the body.
struct RetryPolicy {
    unsigned most_retries = 10;  ///< of the whole download; 0 for none
    /// The n-th delay is random, between 0 and `base` * 2^(n-1), which `cap` bounds.
    std::chrono::milliseconds base{1000};
    std::chrono::milliseconds cap{300000};  ///< see `base`
    /// A server's Retry-After is waited for, up to this. The random delay comes on top, here
    /// between 0 and the longer of both: devices that were told the same do not return together.
    std::chrono::milliseconds longest_retry_after{300000};
};

/// Limits of a download; 0 is none.
struct DownloadLimits {
    std::uint64_t size = 0;              ///< bytes of the whole body
    std::uint64_t bytes_per_second = 0;  ///< the rate; the sink gets no more, so the server waits
    std::chrono::milliseconds stall{60000};  ///< without a byte; a paused download does not stall
    std::chrono::milliseconds whole{0};      ///< from start to outcome, pauses and retries included
};

/// The description of a download, copied when it starts.
struct DownloadConfig {
    /// What to fetch, as for a `Client`. Its `max_download_size` is not used, its `timeout` is for
    /// each try. Header fields Range and If-Range are the download's own.
    RequestConfig request;
    DownloadSink sink;      ///< where the body goes; a callable must be set
    DownloadLimits limits;  ///< see there
    RetryPolicy retry;      ///< see there
    /// The SHA-256 of the whole body in hexadecimal digits, resumed bytes included; empty for no
    /// check. A file with another one is deleted, never renamed.
    std::string sha256;
    /// Take the body whatever the status. Otherwise a status other than 200 and 206 is a failure.
    bool any_status = false;
    std::chrono::milliseconds progress_interval{500};  ///< the least time between two reports
};

/// A response's head.
struct DownloadHead {
    std::uint32_t status = 0;  ///< 206 when a body is resumed
    HeaderMap headers;         ///< of the last response; of several with one name the first
    std::uint64_t offset = 0;  ///< bytes that are there already
    std::optional<std::uint64_t> total;  ///< bytes of the whole body, where the server tells
    /// Names and values of all header fields of the last response, in their order.
    std::vector<std::pair<std::string, std::string>> fields{};
};

/// How far a download is.
struct DownloadProgress {
    std::uint64_t bytes = 0;                          ///< that the sink has, resumed ones included
    std::optional<std::uint64_t> total;               ///< of the whole body, where known
    double bytes_per_second = 0;                      ///< of late
    std::optional<std::chrono::milliseconds> left{};  ///< at that speed
};

/// A try that failed and is repeated.
struct DownloadRetry {
    unsigned attempt = 0;             ///< the one to come; the first retry is 1
    std::chrono::milliseconds delay;  ///< until then
    std::string reason;               ///< for people
};

/// A download that is complete: the sink has all of it, a file has its name.
struct DownloadResult {
    DownloadHead head;        ///< of the last response
    std::uint64_t bytes = 0;  ///< of the whole body
    unsigned retries = 0;     ///< how many there were
    TransferFacts facts;      ///< of the last try
};

/// Why a download failed.
enum class DownloadFailure : std::int32_t {
    InvalidUrl = 0,             ///< as `ClientFailure`, and so the next five
    DnsLookupFailure = 1,       ///< may pass
    ProtocolFailure = 2,        ///< also a body that was cut, and what TLS refuses
    OperationTimedOut = 3,      ///< `RequestConfig::timeout`, or the system's
    AuthenticationFailure = 4,  ///< status 401, 403 or 407
    ConnectionFailure = 5,      ///< may pass
    Status = 6,                 ///< other than 200 and 206
    Refused = 7,                ///< by `DownloadCallbacks::on_head`, or a callback threw
    Changed = 8,                ///< the server has another version, or cannot continue this one
    TooLarge = 9,               ///< for `DownloadLimits::size`
    Stalled = 10,               ///< `DownloadLimits::stall`
    TimeLimit = 11,             ///< `DownloadLimits::whole`
    Checksum = 12,              ///< the body is not the one of `DownloadConfig::sha256`
    Sink = 13,                  ///< the file or descriptor cannot be written, or memory ran out
    Busy = 14,                  ///< another download, maybe another process, writes this file
    NoEngine = 15,              ///< there is no engine, or it was destroyed meanwhile
};

/// Prints a name for people, such as "<Checksum>"; nothing for a value outside.
ZEL_HTTP_API std::ostream& operator<<(std::ostream& stream, const DownloadFailure& failure);

/// The record of a failed download.
struct DownloadError {
    DownloadFailure failure = DownloadFailure::ProtocolFailure;  ///< what to decide by
    std::uint32_t status = 0;  ///< of the last response; 0 when none came
    std::uint64_t bytes = 0;   ///< that the sink has; of a file they are kept unless they are wrong
    std::string message;       ///< for people
    TransferFacts facts;       ///< of the last try; of one that was ended meanwhile, nothing
};

/// What a download tells, on the executor's thread. The first two must be set, or the process stops
/// by assertion; the others may be empty. Each may drop the handle. An exception goes to whoever
/// runs the executor's tasks.
struct DownloadCallbacks {
    /// @{
    /// The outcome: one of the two, once, unless the handle is dropped before.
    std::function<void(const DownloadResult&)> on_complete;
    std::function<void(const DownloadError&)> on_error;
    /// @}
    /// Before the first byte of each response that the download would take. False refuses the body
    /// and ends the download; the body waits until then.
    std::function<bool(const DownloadHead&)> on_head;
    std::function<void(const DownloadProgress&)> on_progress;  ///< as bytes come
    std::function<void(const DownloadRetry&)> on_retry;        ///< before its delay
};

/// A running download. Move-only; a moved-from handle does nothing. The handle and its operations
/// belong to the executor's thread, callbacks included.
class ZEL_HTTP_API Download {
public:
    Download() noexcept;  ///< no download
    /// Cancels: no callback runs any more, and nothing writes to the sink once this returns. Waits
    /// for a write that is under way. Of a file the part stays and is resumed by the next download.
    ~Download();
    /// @{
    /// Assigning cancels what this handle held.
    Download(Download&& other) noexcept;
    Download& operator=(Download&& other) noexcept;
    /// @}
    Download(const Download&) = delete;
    Download& operator=(const Download&) = delete;

    void cancel() noexcept;  ///< as the destructor; a second call does nothing

    /// Stops receiving and giving bytes to the sink until `resume`. A pause by the sink, full disk
    /// queue or callable, is another matter: neither ends the other.
    void pause();
    void resume();  ///< ends a `pause`
    /// Tells that a `CallableSink` that took fewer bytes than it was offered can take more.
    void takeMore();

private:
    struct Impl;
    friend ZEL_HTTP_API Download startDownload(oru::executor& executor, logging::Logger& logger,
                                               DownloadConfig config, DownloadCallbacks callbacks);
    explicit Download(std::unique_ptr<Impl> impl) noexcept;

    std::unique_ptr<Impl> impl;
};

/// Starts a download and returns its handle; keep that as long as the outcome is wanted. On the
/// executor's thread. `executor` and `logger` must outlive the handle. Drop the handle before the
/// engine is destroyed: a download that is under way then fails with `NoEngine`, but it must not
/// start or resume a transfer at that moment. Files and descriptors are written on a thread of the
/// download's own, but what needs no wait, into a file in memory or into a pipe with room, is
/// written on the engine's thread at once; throws `std::system_error` when the system refuses that
/// thread, or the one descriptor that a `DescriptorSink` needs. Memory in use is about 1 MiB,
/// whatever the size of the body.
[[nodiscard]] ZEL_HTTP_API Download startDownload(oru::executor& executor, logging::Logger& logger,
                                                  DownloadConfig config,
                                                  DownloadCallbacks callbacks);

}  // namespace zel::http
