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

/// The unit of work that the engine drives. A host derives from it to handle a transfer's data
/// itself: fill `config`, own the object through a `std::shared_ptr`, call `runRequest` once.
///
/// The control operations may be called on any thread and return at once. Without an engine they do
/// nothing; with one they throw `std::bad_weak_ptr` when no `std::shared_ptr` owns the request.
/// Pause and resume must always be called on the same thread, whichever it is. The engine shares
/// the ownership while a transfer runs.
///
/// Threads of the notifications: data, headers, size and X-Auth domain come on the engine thread
/// while the transfer runs. The outcome comes after all of them, in the FSM context (see
/// `Engine::Engine`). An exception from a notification on the engine thread fails the transfer; one
/// from `xauthCookieDomain` ends the process.
class ZEL_HTTP_API Request : public std::enable_shared_from_this<Request> {
public:
    Request();
    /// Starts from a copy of `config`.
    explicit Request(const RequestConfig& config);
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    /// What to transfer. Constant from `runRequest` until the outcome; only the engine writes its
    /// `xauth_previous_domain`.
    RequestConfig config;
    /// Proxies for retries, in order; each is removed when it is used. A transfer that ends without
    /// a proxy's answer to CONNECT is performed again through the next one, even if it succeeded.
    /// So where neither the engine nor the environment sets a proxy every request is sent again,
    /// whatever its method. Only the last outcome is notified. Such a request never reuses a
    /// connection.
    std::list<std::string> fallbackProxies;

    /// Hands the request to the engine. A second call starts a second transfer; of two that run,
    /// the other operations act on the one whose easy handle has the lower address.
    virtual void runRequest();
    /// Stops receiving and sending until `resumeRequest`: the next block of the body is not
    /// delivered. A pause before the transfer has a connection takes effect as soon as it has one.
    /// `RequestConfig::timeout` runs on meanwhile.
    virtual void pauseRequest();
    virtual void resumeRequest();  ///< continues where `pauseRequest` stopped

    /// A block of the body. Throwing fails the transfer.
    virtual void notifyDataReceived(const char* data, unsigned length) = 0;
    /// One header line as received, line end included; also the status line and the empty line that
    /// ends the block. Comes for every response, redirects and authentication included.
    virtual void notifyHeader(const char* line, unsigned length);
    /// The transfer ended with a status from 100 to 399.
    virtual void notifyDataEnd() = 0;
    /// The transfer failed or ended with another status. `text` is valid during the call.
    virtual void notifyFailure(Failure failure, const char* text) = 0;
    /// Not called by the engine.
    virtual void notifyAuthRetry();
    /// The declared length of the current response's body in bytes, after each header line once it
    /// is known; the largest 32-bit value stands for anything above.
    virtual void notifySize(unsigned size);
    /// The domain of the X-Auth cookie that the response set; empty unless overridden.
    virtual std::string xauthCookieDomain() const;
    /// Body bytes in total and so far. Called only where a host installs
    /// `Engine::downloadProgress`.
    virtual void reportDownloadProgress(unsigned total, unsigned now);
    /// Not called by the engine.
    virtual void start() = 0;

    virtual ~Request();

    /// Cancels the request's transfer. Asynchronous: until the engine thread runs the cancel,
    /// notifications may still arrive, the outcome included. Without a transfer it has no effect.
    void tryToCancelRequest();

    /// The HTTP status: set just before the outcome is notified, 0 when there was none, all bits
    /// set until then.
    void setResponseCode(unsigned code) { responseCode = code; }
    unsigned getResponseCode() const { return responseCode; }  ///< as set

    /// @{
    /// What `Engine::allowsPayloadLogging` returns for its transfer; not used by the library
    /// itself.
    void setAllowPayloadLogging(bool allow) { allowPayloadLogging = allow; }
    bool allowsPayloadLogging() const { return allowPayloadLogging; }
    /// @}

    /// Whether the engine collects the facts of its transfers, which it does by default. Call it
    /// before `runRequest`.
    void setKeepsFacts(bool keep) { keepsFacts = keep; }
    /// The facts of the last transfer. To be read in the notification of the outcome, and after it
    /// until the request runs again; the thread is that of the outcome, or any that it hands the
    /// request to.
    const TransferFacts& facts() const;

private:
    friend class Engine;

    std::uint32_t responseCode = static_cast<std::uint32_t>(-1);
    /// True from `pauseRequest` to `resumeRequest`. The engine thread reads it, too.
    std::atomic<bool> paused{false};
    bool allowPayloadLogging = true;
    bool keepsFacts = true;
    /// Null until a transfer has told any.
    std::unique_ptr<TransferFacts> transferFacts;
    /// The easy handle of its transfer, the lowest if it has several, null if none. Engine thread.
    void* handle = nullptr;
    /// The number of its transfers that are queued or running; the engine counts. Any thread.
    std::atomic<unsigned> transfers{0};
};

}  // namespace zel::http
