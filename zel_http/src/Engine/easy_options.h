#pragma once

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <limits>
#include <type_traits>

#include "Engine/active_task.h"

/// Typed setters for `curl_easy_setopt`, whose variadic argument is not checked in C++: an `int`
/// passed for a `long` compiles silently and is wrong at run time on some targets. The option's
/// number says which type it takes. With an option that libcurl refuses, the transfer fails later
/// with libcurl's own code. With an option lost for lack of memory it must not start, since it
/// would send another request than the caller's.
namespace zel::http {

/// Records "out of memory" as the failure of the handle's task; other results need no record.
inline void recordOutOfMemory(CURL* curl, CURLcode result) {
    if (result != CURLE_OUT_OF_MEMORY) return;
    if (const auto task = Engine::ActiveTask::of(curl)) task->fail(result);
}

template <CURLoption Option>
void setLong(CURL* curl, long value) {
    static_assert(Option < CURLOPTTYPE_OBJECTPOINT, "not an option that takes a long");
    recordOutOfMemory(curl, curl_easy_setopt(curl, Option, value));
}

/// libcurl copies the text. (Not for `CURLOPT_POSTFIELDS`, which is not used here.)
template <CURLoption Option>
void setText(CURL* curl, const char* text) {
    static_assert(Option >= CURLOPTTYPE_OBJECTPOINT && Option < CURLOPTTYPE_FUNCTIONPOINT,
                  "not an option that takes a text");
    recordOutOfMemory(curl, curl_easy_setopt(curl, Option, text));
}

/// libcurl keeps the pointer.
template <CURLoption Option>
void setPointer(CURL* curl, void* pointer) {
    static_assert(Option >= CURLOPTTYPE_OBJECTPOINT && Option < CURLOPTTYPE_FUNCTIONPOINT,
                  "not an option that takes a pointer");
    recordOutOfMemory(curl, curl_easy_setopt(curl, Option, pointer));
}

/// `Callback` is libcurl's type for the option.
template <CURLoption Option, typename Callback>
void setFunction(CURL* curl, std::enable_if_t<true, Callback> function) {
    static_assert(Option >= CURLOPTTYPE_FUNCTIONPOINT && Option < CURLOPTTYPE_OFF_T,
                  "not an option that takes a function");
    recordOutOfMemory(curl, curl_easy_setopt(curl, Option, function));
}

/// The limit of the whole transfer, cut to libcurl's `long`, which has 32 bits on some targets. At
/// least 1 ms: libcurl takes a negative limit for 49 days.
inline void setTimeLimit(CURL* curl, std::chrono::milliseconds limit) {
    using Count = std::chrono::milliseconds::rep;
    const auto count = std::clamp<Count>(limit.count(), 1, std::numeric_limits<long>::max());
    setLong<CURLOPT_TIMEOUT_MS>(curl, static_cast<long>(count));
}

}  // namespace zel::http
