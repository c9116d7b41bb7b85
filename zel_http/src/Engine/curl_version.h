#pragma once

#include <curl/curl.h>

namespace zel::http {

/// Whether the libcurl of this process is older. Asked at run time, since a device may replace the
/// shared library. docs/libcurl.md lists what depends on it.
inline bool curlIsBefore(unsigned major, unsigned minor) {
    return curl_version_info(CURLVERSION_NOW)->version_num < (major << 16U | minor << 8U);
}

}  // namespace zel::http
