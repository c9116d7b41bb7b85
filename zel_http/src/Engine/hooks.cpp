// Defaults of the hooks. They stand in a file of their own and are weak, so that no compiler
// inlines or binds them inside the library.

#include "zel_http/engine_hooks.h"

__attribute__((weak)) void engine_request_added() {}

__attribute__((weak)) CURLMcode engine_curl_multi_add_handle(void* multi, void* easy) {
    return curl_multi_add_handle(multi, easy);
}

__attribute__((weak)) CURLMcode engine_curl_multi_perform(void* multi, int* running) {
    return curl_multi_perform(multi, running);
}
