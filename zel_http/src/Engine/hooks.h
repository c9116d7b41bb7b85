#pragma once

namespace zel::http {

/// Set by the library's own `engine_curl_multi_add_handle`. A host's definition leaves it alone: it
/// may have set options of the host's own. Engine thread.
extern bool attachedByOwnHook;

}  // namespace zel::http
