// Default definitions of the hooks. They are weak and in a file of their own, so that the library's
// calls are neither inlined nor bound to them, and a host's definitions take effect.

#include "Engine/hooks.h"

#include "zel_http/engine_hooks.h"

bool zel::http::attachedByOwnHook = false;

__attribute__((weak)) void engine_request_added() {}

__attribute__((weak)) CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    zel::http::attachedByOwnHook = true;
    return curl_multi_add_handle(multi, easy);
}

__attribute__((weak)) CURLMcode engine_curl_multi_perform(void* multi, int* running) {
    return curl_multi_perform(multi, running);
}
