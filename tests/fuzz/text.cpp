// Functions of one text, each beside a plain description of its result. An input's last byte
// chooses the function.

#include <curl/curl.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <boost/algorithm/string.hpp>
#include <cassert>
#include <nlohmann/json.hpp>

#include "Engine/cookie_line.h"
#include "Engine/redirect_rule.h"
#include "Records/header_line.h"
#include "json.h"
#include "zel_http/encoding.h"

using namespace boost::algorithm;
using namespace zel::http;

namespace {

void checkHeaderLine(const std::string& line) {
    const auto colon = line.find(':');
    const std::string name = trim_copy(line.substr(0, colon));
    const bool whole = colon != std::string::npos && !name.empty() && ends_with(line, "\r\n");
    const auto header = splitHeaderLine(line);
    assert(header.has_value() == whole);
    assert(!whole || (header->name == name && header->value == trim_copy(line.substr(colon + 1))));
}

void checkCookieLine(const std::string& line) {
    std::vector<std::string> fields;
    split(fields, line, is_any_of("\t"));
    const auto cookie = splitCookieLine(line);
    assert(cookie.has_value() == (fields.size() == 7));
    if (!cookie) return;
    assert(std::equal(fields.begin(), fields.end(), cookie->fields.begin()));
    fields[CookieLine::expiry] = "7";
    assert(expiredCookieLine(*cookie, 7) == join(fields, "\t"));
}

void checkEncoding(const std::string& text) {
    for (const std::string& encoded : {encodeURI(text), encodeURIComponent(text)}) {
        assert(all(encoded, is_from_range('!', '~')));
        int length = 0;
        char* decoded = curl_easy_unescape(nullptr, encoded.c_str(), 0, &length);
        assert(text == std::string(decoded, static_cast<std::size_t>(length)));
        curl_free(decoded);
    }
}

/// A userinfo, a path or a query that looks like another origin is none.
void checkRedirect(const std::string& text) {
    const auto leaves = [&](const std::string& scheme, const std::string& authority) {
        const std::string user = replace_all_copy(encodeURIComponent(text), "%3A", ":");
        const std::string location = scheme + user + "@" + authority + "/" + encodeURI(text);
        return leavesOrigin("https://device.example:8443/",
                            locationOf("location: " + location + "\r\n"));
    };
    assert(!leaves("https://", "device.example:8443"));
    assert(leaves("https://", "device.example"));
    assert(leaves("https://", "other.example:8443"));
    assert(leaves("http://", "device.example:8443"));
}

/// No user and password in the URL; a body that is no UTF-8 stands as base64.
void checkJson(const std::string& text) {
    const std::string escaped = encodeURIComponent(text);
    RequestConfig request;
    request.url = "https://" + escaped + "@device.example/" + escaped;
    tool::Outcome outcome;
    outcome.request = &request;
    outcome.status = 200;
    outcome.fields = {{"name", text}};
    outcome.body = text;
    const auto json = nlohmann::json::parse(tool::jsonLine(outcome, true));
    assert(json["url"] == "https://***@device.example/" + escaped);
    assert(json.contains("body") ? json["body"] == text && json["headers"][0]["value"] == text
                                 : !all(text, is_from_range('\0', '\x7f')));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider input(data, size);
    const auto check = input.PickValueInArray(
        {checkHeaderLine, checkCookieLine, checkEncoding, checkRedirect, checkJson});
    check(input.ConsumeRemainingBytesAsString());
    return 0;
}
