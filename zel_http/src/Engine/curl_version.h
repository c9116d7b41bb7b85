#pragma once

#include <curl/curl.h>

namespace zel::http {

/// Whether the libcurl that the program runs with is at least this version, as in 0x075801 for
/// 7.88.1. Asked for once: libcurl prints all its libraries' versions for each answer.
inline bool curlIsAtLeast(unsigned version) {
    static const unsigned running = curl_version_info(CURLVERSION_NOW)->version_num;
    return running >= version;
}

}  // namespace zel::http
