// A header line of a response: its name and value, and where a Location leads.

#include "Records/header_line.h"
#include "Engine/redirect_rule.h"
#include "fuzz.h"

using namespace test;
using namespace zel::http;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view line = text(data, size);
    if (const auto header = splitHeaderLine(line)) {
        require(!header->name.empty(), "a header has a name");
        require(header->name.find(':') == std::string_view::npos, "the name ends at the colon");
        require(trimmed(header->name) == header->name, "the name is trimmed");
        require(trimmed(header->value) == header->value, "the value is trimmed");
    }
    const char* url = "https://device.example:8443/path?query";
    const std::string location = locationOf(line);
    const bool leaves = leavesOrigin(url, location);
    if (location.rfind("http://", 0) == 0) require(leaves, "https to http leaves the origin");
    return 0;
}
