#pragma once

#include <curl/curl.h>

#include "zel_http/export.h"

/// @file
/// Functions that you can replace, to see or change what the engine does with libcurl. Define the
/// same function in your program, or in a shared library that is loaded before this one: the engine
/// then calls yours instead of the library's own.

/// Called after a request has been queued, on the thread that queued it. The library's own does
/// nothing.
ZEL_HTTP_API void engine_request_added();

/// Called on the engine thread to start a transfer. The library's own returns
/// `curl_multi_add_handle(multi, easy)`. Any result but `CURLM_OK` ends the process. Called again,
/// with the same handle, for a transfer that has waited too long for another's connection.
ZEL_HTTP_API CURLMcode engine_curl_multi_add_handle(void* multi, void* easy);

/// Called on the engine thread once in every round of its loop. The library's own returns
/// `curl_multi_perform(multi, running)`.
ZEL_HTTP_API CURLMcode engine_curl_multi_perform(void* multi, int* running);
