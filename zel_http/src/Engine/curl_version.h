#pragma once

#include <curl/curl.h>

namespace zel::http {

/// Whether the libcurl of this process is older. Asked at run time, since a device may replace the
/// shared library, and once: libcurl prints the versions of all its libraries for each answer.
/// docs/libcurl.md lists what depends on it.
inline bool curlIsBefore(unsigned major, unsigned minor) {
    static const unsigned running = curl_version_info(CURLVERSION_NOW)->version_num;
    return running < (major << 16U | minor << 8U);
}

}  // namespace zel::http
