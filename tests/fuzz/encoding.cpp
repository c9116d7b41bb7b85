// Percent encoding: what comes out is plain, and decodes to what went in.

#include "zel_http/encoding.h"

#include <curl/curl.h>

#include <algorithm>
#include <string>

#include "fuzz.h"

using namespace test;

namespace {

std::string decoded(const std::string& encoded) {
    int length = 0;
    char* bytes =
        curl_easy_unescape(nullptr, encoded.c_str(), static_cast<int>(encoded.size()), &length);
    std::string result(bytes, static_cast<std::size_t>(length));
    curl_free(bytes);
    return result;
}

bool plain(const std::string& encoded) {
    return std::all_of(encoded.begin(), encoded.end(),
                       [](char c) { return c > ' ' && c < '\x7f'; });
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(text(data, size));
    for (const auto& encoded : {encodeURI(input), encodeURIComponent(input)}) {
        require(plain(encoded), "only printable ASCII");
        require(decoded(encoded) == input, "decodes to the input");
    }
    zel::http::QueryEncoder query;
    query.addParameter(input, static_cast<int>(size));
    query.addParameter("other", input);
    const std::string whole = query.getQueryString();
    require(std::count(whole.begin(), whole.end(), '&') == 1, "one parameter stays one");
    require(std::count(whole.begin(), whole.end(), '=') == 2, "one value stays one");
    return 0;
}
