#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "zel_http/export.h"
#include "zel_http/records.h"
#include "zel_http/transfer_facts.h"

namespace zel::http {

/// One request, as the engine performs it. Derive a class from it to handle the data of a transfer
/// yourself: fill `config`, own the object through a `std::shared_ptr`, call `runRequest` once.
///
/// You may call `runRequest`, `pauseRequest`, `resumeRequest` and `tryToCancelRequest` on any
/// thread. They return at once. Without an engine they do nothing; with one they throw
/// `std::bad_weak_ptr` when no `std::shared_ptr` owns the request. Call `pauseRequest` and
/// `resumeRequest` of one request always on the same thread. The engine shares the ownership while
/// a transfer runs.
///
/// The functions named `notify...` tell you what happens. Those for data, header lines and size,
/// and `xauthCookieDomain`, run on the engine thread while the transfer runs. The outcome comes
/// after all of them, in the FSM context (see `Engine::Engine`). An exception from a notification
/// on the engine thread fails the transfer; one from `xauthCookieDomain` ends the process.
class ZEL_HTTP_API Request : public std::enable_shared_from_this<Request> {
public:
    Request();
    /// Starts from a copy of `config`.
    explicit Request(const RequestConfig& config);
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    /// What to transfer. Do not change it from `runRequest` until the outcome. Only the engine
    /// writes `xauth_previous_domain` in it.
    RequestConfig config;
    /// Proxies to try after the first transfer, in this order; each is removed when it is used.
    /// When a transfer ends and no proxy has answered its CONNECT, the request is sent again
    /// through the next proxy, even if the transfer succeeded. So if neither the engine nor the
    /// environment sets a proxy, every such request is sent again, whatever its method. You are
    /// told the last outcome only. Such a request always makes a new connection.
    std::list<std::string> fallbackProxies;

    /// Gives the request to the engine, which starts a transfer for it. A second call starts a
    /// second transfer. While both run, pause, resume and cancel act on one of them: the one whose
    /// easy handle (libcurl's object for a transfer) has the lower address.
    virtual void runRequest();
    /// Stops receiving and sending until `resumeRequest`. The next block of the body is not
    /// delivered. If the transfer has no connection yet, it pauses as soon as it has one. A pause
    /// does not stop the time of `RequestConfig::timeout`.
    virtual void pauseRequest();
    virtual void resumeRequest();  ///< continues where `pauseRequest` has stopped the transfer

    /// Gives you a block of the body, valid during the call. If you throw, the transfer fails.
    virtual void notifyDataReceived(const char* data, unsigned length) = 0;
    /// Gives you one header line as received, with its line end. Also the status line, and the
    /// empty line after the last header line. Called for every response, also for redirects and for
    /// those that ask for authentication.
    virtual void notifyHeader(const char* line, unsigned length);
    /// The transfer ended with a status from 100 to 399.
    virtual void notifyDataEnd() = 0;
    /// The transfer failed or ended with another status. `text` is valid during the call.
    virtual void notifyFailure(Failure failure, const char* text) = 0;
    /// Not called by the engine.
    virtual void notifyAuthRetry();
    /// Tells the length in bytes that the current response declares for its body. Called after each
    /// header line as soon as the length is known. The largest 32-bit value stands for any larger
    /// length.
    virtual void notifySize(unsigned size);
    /// Override it to return the domain of the X-Auth cookie that the response has set. It is for
    /// the X-Auth checks of `RequestConfig`. Empty unless overridden.
    virtual std::string xauthCookieDomain() const;
    /// Tells how many bytes the body has, and how many have come. Called only if your program sets
    /// `Engine::downloadProgress` as libcurl's progress function.
    virtual void reportDownloadProgress(unsigned total, unsigned now);
    /// Not called by the engine.
    virtual void start() = 0;

    virtual ~Request();

    /// Cancels the request's transfer. The call returns at once; the engine thread ends the
    /// transfer later. Until then you may still be notified, also of the outcome. Does nothing when
    /// the request has no transfer.
    void tryToCancelRequest();

    /// The HTTP status. The engine sets it just before it tells the outcome; 0 means that there was
    /// no status. Until then it is 0xffffffff.
    void setResponseCode(unsigned code) { responseCode = code; }
    unsigned getResponseCode() const { return responseCode; }  ///< what was set last

    /// @{
    /// A mark for your own use: `Engine::allowsPayloadLogging` returns it for the request's
    /// transfer. The library does not use it.
    void setAllowPayloadLogging(bool allow) { allowPayloadLogging = allow; }
    bool allowsPayloadLogging() const { return allowPayloadLogging; }
    /// @}

    /// Whether the engine collects the facts of its transfers, which it does by default. Call it
    /// before `runRequest`.
    void setKeepsFacts(bool keep) { keepsFacts = keep; }
    /// The facts of the last transfer. Read them in `notifyDataEnd` or `notifyFailure`, or later,
    /// until you run the request again. If you read them on another thread, hand the request over
    /// to that thread first.
    const TransferFacts& facts() const;

private:
    friend class Engine;

    std::uint32_t responseCode = static_cast<std::uint32_t>(-1);
    /// True from `pauseRequest` to `resumeRequest`. The engine thread reads it, too.
    std::atomic<bool> paused{false};
    bool allowPayloadLogging = true;
    bool keepsFacts = true;
    /// Null until a transfer has ended and its facts were kept.
    std::unique_ptr<TransferFacts> transferFacts;
    /// The easy handle of its transfer, the lowest if it has several, null if none. Engine thread.
    void* handle = nullptr;
    /// The number of its transfers that are queued or running; the engine counts. Any thread.
    std::atomic<unsigned> transfers{0};
};

}  // namespace zel::http
