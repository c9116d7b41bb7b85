// What a caller's texts put on the wire: the request that was asked for and not a line more.

#include <fuzzer/FuzzedDataProvider.h>
#include <algorithm>

#include "exchange.h"
#include "fuzz.h"

using namespace test;
using zel::http::Method;

namespace {

constexpr char challenge[] =
    "HTTP/1.1 401 No\r\nWWW-Authenticate: Digest realm=\"r\", nonce=\"n\", "
    "qop=\"auth\"\r\nContent-Length: 0\r\n\r\n";
constexpr char ok[] = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n";

bool startsWith(const std::string& line, const std::string& start) {
    return line.rfind(start, 0) == 0;
}

bool requestLine(const std::string& line) {
    return std::count(line.begin(), line.end(), ' ') == 2 && line.find(" /") != std::string::npos &&
           line.size() > 9 && line.substr(line.size() - 9) == " HTTP/1.1";
}

/// Lines that a request has without being asked for.
bool own(const std::string& line) {
    const auto names = {"Host: 127.0.0.1",
                        "Accept: */*",
                        "User-Agent: Velto/",
                        "Accept-Charset: ISO",
                        "Authorization: ",
                        "Content-Length: ",
                        "Content-Type: application/x-www-form-urlencoded"};
    return std::any_of(names.begin(), names.end(),
                       [&](const char* name) { return startsWith(line, name); });
}

void check(const std::string& request, const std::string& asked, const std::string& body) {
    const auto head = request.find("\r\n\r\n");
    if (head == std::string::npos) return;  // libcurl has given up before
    const std::string rest = request.substr(head + 4);
    require(rest.empty() || rest == body, "behind the head comes the body and nothing else");
    std::size_t begin = 0;
    for (std::size_t end = 0; begin < head; begin = end + 2) {
        end = request.find("\r\n", begin);
        const std::string line = request.substr(begin, end - begin);
        require(begin == 0 ? requestLine(line) : own(line) || line == asked,
                "a line that was asked for");
        require(line.find_first_of("\r\n") == std::string::npos, "a line is one line");
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto& exchange = *new PairedExchange;
    FuzzedDataProvider input(data, size);
    zel::http::RequestConfig config;
    config.method = static_cast<Method>(input.ConsumeIntegralInRange(0, 7));
    config.user = input.ConsumeRandomLengthString();
    config.password = input.ConsumeRandomLengthString();
    const std::string name = "X-" + input.ConsumeRandomLengthString();
    const std::string value = "v" + input.ConsumeRandomLengthString();
    config.headers = {{name, value}};
    config.url = "http://127.0.0.1/" + input.ConsumeRandomLengthString();
    config.body = input.ConsumeRemainingBytesAsString();
    require(exchange.perform(config, {challenge, ok}) == 1, "one outcome");
    for (const auto& request : exchange.sent) check(request, name + ": " + value, config.body);
    return 0;
}
