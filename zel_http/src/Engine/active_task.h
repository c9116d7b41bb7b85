#pragma once

#include <curl/curl.h>

#include <cstdint>
#include <memory>

#include "zel_http/engine.h"

namespace zel::http {

/// One running transfer. Made, used and destroyed on the engine thread; must be detached from the
/// multi handle before it is destroyed.
class Engine::ActiveTask {
public:
    explicit ActiveTask(std::shared_ptr<Request> request);
    ActiveTask(const ActiveTask&) = delete;
    ActiveTask& operator=(const ActiveTask&) = delete;
    ~ActiveTask();

    /// Appends a header line to `headerList`; when memory runs out the list stays as it was.
    void appendHeader(const char* line);

    std::shared_ptr<Request> request;
    CURL* curl;
    curl_slist* headerList = nullptr;
    /// How much of the body an upload has read.
    std::uint32_t readPosition = 0;
    /// The request asked for a pause and has not resumed.
    bool paused = false;
    /// libcurl has not accepted that pause yet.
    bool pausePending = false;
    /// A status line came, and the empty line that ends its block has not. libcurl (7.88) takes a
    /// connection that closes there for the end of a complete response.
    bool headersOpen = false;
    /// What a failed callback made of the transfer; outranks the code that libcurl reports, which
    /// is `CURLE_OK` when a callback fails while the transfer resumes (libcurl 7.88).
    CURLcode callbackFailure = CURLE_OK;
};

}  // namespace zel::http
