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

/// Counts a transfer of a request, queued or running, while it lives. Copies count, too. Any
/// thread.
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
    /// Makes `code` the transfer's result, unless it has failed before.
    void fail(CURLcode code);

    std::shared_ptr<Request> request;
    CURL* curl;
    curl_slist* headerList = nullptr;
    /// How much of the body an upload has read.
    std::uint32_t readPosition = 0;
    /// Ends with the transfer, before its outcome is handed over.
    std::optional<CountedTransfer> counted;
    /// The engine's own TLS step has run, not one that replaces it.
    bool ownTlsConfig = false;
    /// A status line came, and the empty line that ends its block has not. libcurl (7.88) takes a
    /// connection that closes there for the end of a complete response.
    bool inHeaderBlock = false;
    /// The current response's body comes in chunks, which end by themselves.
    bool chunked = false;
    /// Its body ends with this TLS connection, whose close_notify has not come yet.
    const void* endAwaited = nullptr;
    /// Cancelled: what libcurl still delivers goes nowhere.
    bool dropped = false;
    /// What came in header lines so far, of all responses on the way and in trailers.
    std::size_t headerFields = 0;
    std::size_t headerBytes = 0;
    /// The pass in which the last block of the body came, and how many came in it.
    unsigned long pass = 0;
    std::size_t blocksInPass = 0;
    /// A failure that libcurl does not report: of the set-up, or of a callback that fails while the
    /// transfer resumes (libcurl 7.88). Outranks libcurl's code.
    CURLcode failure = CURLE_OK;
    /// libcurl's own words about the failure; empty when it has none.
    std::array<char, CURL_ERROR_SIZE> reason{};
};

}  // namespace zel::http
