#pragma once

#include <curl/curl.h>

#include <type_traits>

#include "Engine/active_task.h"

/// Typed setters for `curl_easy_setopt`, whose own argument is not checked in C++: an `int` passed
/// for a `long` compiles in silence and is wrong at run time on some targets. The option's number
/// says which kind it takes. A transfer with an option that libcurl refused fails later, with
/// libcurl's own code; one for whose option there was no memory must not start, since it would send
/// what nobody asked for.
namespace zel::http {

/// Of all results of an option only "out of memory" counts. It is kept with the handle's task.
inline void inspect(CURL* curl, CURLcode result) {
    if (result != CURLE_OUT_OF_MEMORY) return;
    if (const auto task = Engine::ActiveTask::of(curl)) task->fail(result);
}

template <CURLoption Option>
void setLong(CURL* curl, long value) {
    static_assert(Option < CURLOPTTYPE_OBJECTPOINT, "not an option that takes a long");
    inspect(curl, curl_easy_setopt(curl, Option, value));
}

/// libcurl copies the text (but for the body of a request, which has an option of its own).
template <CURLoption Option>
void setText(CURL* curl, const char* text) {
    static_assert(Option >= CURLOPTTYPE_OBJECTPOINT && Option < CURLOPTTYPE_FUNCTIONPOINT,
                  "not an option that takes a text");
    inspect(curl, curl_easy_setopt(curl, Option, text));
}

/// libcurl keeps the pointer.
template <CURLoption Option>
void setPointer(CURL* curl, void* pointer) {
    static_assert(Option >= CURLOPTTYPE_OBJECTPOINT && Option < CURLOPTTYPE_FUNCTIONPOINT,
                  "not an option that takes a pointer");
    inspect(curl, curl_easy_setopt(curl, Option, pointer));
}

/// `Callback` is libcurl's type for the option.
template <CURLoption Option, typename Callback>
void setFunction(CURL* curl, std::enable_if_t<true, Callback> function) {
    static_assert(Option >= CURLOPTTYPE_FUNCTIONPOINT && Option < CURLOPTTYPE_OFF_T,
                  "not an option that takes a function");
    inspect(curl, curl_easy_setopt(curl, Option, function));
}

}  // namespace zel::http
