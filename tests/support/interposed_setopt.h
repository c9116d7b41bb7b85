#pragma once

#include <curl/curl.h>
#include <dlfcn.h>

#include <cstdarg>

namespace test {

/// Sees every option that the library sets; false keeps it from libcurl. A `long` for options that
/// take one, else a pointer.
bool passes(CURL* easy, const curl_easyoption& option, long number, void* pointer);

}  // namespace test

/// Stands in the library's way to libcurl. Include in one file of an executable that exports it.
/// (The identifier is an int here: a variadic function must not end its list with an enumeration.)
extern "C" CURLcode interposedSetopt(CURL* easy, int id, ...) asm("curl_easy_setopt");
// NOLINTNEXTLINE(misc-definitions-in-headers)
extern "C" CURLcode interposedSetopt(CURL* easy, int id, ...) {
    using Setopt = CURLcode (*)(CURL*, int, ...);
    static const auto next = reinterpret_cast<Setopt>(dlsym(RTLD_NEXT, "curl_easy_setopt"));
    const curl_easyoption* option = curl_easy_option_by_id(static_cast<CURLoption>(id));
    const bool is_long = option->type == CURLOT_LONG || option->type == CURLOT_VALUES;
    std::va_list arguments;
    va_start(arguments, id);
    const long number = is_long ? va_arg(arguments, long) : 0;
    void* pointer = is_long ? nullptr : va_arg(arguments, void*);
    va_end(arguments);
    if (!test::passes(easy, *option, number, pointer)) return CURLE_OK;
    return is_long ? next(easy, id, number) : next(easy, id, pointer);
}
