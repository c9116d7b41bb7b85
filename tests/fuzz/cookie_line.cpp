// A line of libcurl's cookie list.

#include "Engine/cookie_line.h"

#include "fuzz.h"

using namespace test;
using namespace zel::http;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string line(text(data, size));
    const auto cookie = splitCookieLine(line);
    if (!cookie) return 0;
    std::string joined = (*cookie)[CookieLine::domain];
    for (std::size_t field = 1; field < CookieLine::count; ++field) {
        joined += '\t' + cookie->fields[field];
    }
    require(joined == line, "the fields are the line");
    require(hostMatches((*cookie)[CookieLine::domain], (*cookie)[CookieLine::domain]),
            "a domain matches itself");
    const auto expired = splitCookieLine(expiredCookieLine(*cookie, 7));
    require(expired && (*expired)[CookieLine::expiry] == "7", "the expired line has its time");
    require((*expired)[CookieLine::value] == (*cookie)[CookieLine::value], "and the same value");
    return 0;
}
