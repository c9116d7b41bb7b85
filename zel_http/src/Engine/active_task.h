#pragma once

#include <curl/curl.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "zel_http/engine.h"

namespace zel::http {

/// Keeps `Request::transfers` incremented for one queued or running transfer while it lives. Copies
/// count, too. Any thread.
class Engine::CountedTransfer {
public:
    explicit CountedTransfer(std::shared_ptr<Request> request) : request(std::move(request)) {
        ++this->request->transfers;
    }
    CountedTransfer(const CountedTransfer& other) : CountedTransfer(other.request) {}
    CountedTransfer& operator=(const CountedTransfer&) = delete;
    ~CountedTransfer() { --request->transfers; }

    const std::shared_ptr<Request> request;
};

/// One running transfer. Made, used and destroyed on the engine thread; must be detached from the
/// multi handle before it is destroyed.
class Engine::ActiveTask {
public:
    explicit ActiveTask(std::shared_ptr<Request> request);
    ActiveTask(const ActiveTask&) = delete;
    ActiveTask& operator=(const ActiveTask&) = delete;
    ~ActiveTask();

    /// The task of an easy handle; null for one that the engine does not drive.
    static std::shared_ptr<ActiveTask> of(void* handle) { return findTask(handle); }

    /// Appends a header line to `headerList`; when memory runs out the transfer fails.
    void appendHeader(const char* line);
    /// Makes `code` the transfer's result, unless an earlier failure is recorded.
    void fail(CURLcode code);

    std::shared_ptr<Request> request;
    CURL* curl;
    curl_slist* headerList = nullptr;
    /// How many bytes of the body an upload has read.
    std::uint32_t readPosition = 0;
    /// What `CURLOPT_CURLU` points to; null when libcurl parses the text itself.
    std::shared_ptr<CURLU> url;
    /// Reset before the outcome is handed over: the notified request no longer counts the transfer.
    std::optional<CountedTransfer> counted;
    /// `Engine::addTlsConfig` itself has run, not an override of it.
    bool ownTlsConfig = false;
    /// libcurl has told a length of the current response's body.
    bool lengthKnown = false;
    /// A status line has come, but not the empty line that ends its header block. When the
    /// connection closes in between, libcurl (7.88) reports a complete response.
    bool inHeaderBlock = false;
    /// The current response's body is chunked, and so marks its own end.
    bool chunked = false;
    /// The TLS connection whose close_notify must end the current body and is still missing, or
    /// null.
    const void* endAwaited = nullptr;
    /// The TLS of the current response's connection to the origin, for a request that keeps facts;
    /// empty for none. OpenSSL's text.
    const char* tlsVersion = "";
    bool tlsResumed = false;
    /// Memory has run out while the transfer was paused or resumed. Asked once more, libcurl (7.88)
    /// would divide by zero: the transfer is ended.
    bool pauseFailed = false;
    /// Cancelled: header lines and blocks that libcurl still delivers are discarded.
    bool dropped = false;
    /// Header fields and bytes received so far, over all responses of the transfer and trailers.
    std::size_t headerFields = 0;
    std::size_t headerBytes = 0;
    /// The pass of the loop in which the last block of the body came, and the blocks in that pass.
    unsigned long pass = 0;
    std::size_t blocksInPass = 0;
    /// A failure that libcurl does not report: one of the set-up, or of a callback that libcurl
    /// (7.88) calls while it resumes the transfer. Overrides libcurl's result.
    CURLcode failure = CURLE_OK;
    /// libcurl's message about a failure (`CURLOPT_ERRORBUFFER`); empty when it has none.
    std::array<char, CURL_ERROR_SIZE> reason{};
};

/// The transfer time, in whole seconds, at the last progress report of any transfer. Engine thread;
/// the engine's destructor resets it.
extern long lastProgressReport;

}  // namespace zel::http
