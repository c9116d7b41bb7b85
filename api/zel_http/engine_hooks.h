#pragma once

#include <curl/curl.h>

#include "zel_http/export.h"

/// @file
/// Points at which a host can step between the engine and libcurl. The library calls these through
/// the dynamic symbol table: a definition of the same function in the executable, or in a library
/// loaded earlier, takes the place of the library's own.

/// Called after a request has been queued, on the thread that queued it. Does nothing.
ZEL_HTTP_API void engine_request_added();

/// Called on the engine thread to attach a transfer. Returns `curl_multi_add_handle(multi, easy)`;
/// any result but `CURLM_OK` ends the process. Called again, with the same handle, for a transfer
/// that has waited too long for another's connection.
ZEL_HTTP_API CURLMcode engine_curl_multi_add_handle(void* multi, void* easy);

/// Called on the engine thread in every pass. Returns `curl_multi_perform(multi, running)`.
ZEL_HTTP_API CURLMcode engine_curl_multi_perform(void* multi, int* running);
