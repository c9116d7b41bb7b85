// The whole road of a response: libcurl, the callbacks, the client, the log. The first byte chooses
// the request; "=====\n" ends what one connection says and begins what the next one does.

#include "exchange.h"
#include "fuzz.h"

using namespace test;
using zel::http::Method;

namespace {

std::deque<std::string> connections(std::string_view text) {
    constexpr std::string_view separator = "=====\n";
    std::deque<std::string> answers;
    for (std::size_t end = 0; (end = text.find(separator)) != std::string_view::npos;) {
        answers.emplace_back(text.substr(0, end));
        text.remove_prefix(end + separator.size());
    }
    answers.emplace_back(text);
    return answers;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto& exchange = *new PairedExchange;
    if (size == 0) return 0;
    zel::http::RequestConfig config;
    config.url = "http://127.0.0.1/";
    config.method = static_cast<Method>(data[0] % 5);
    config.body = "body";
    if ((data[0] & 32) != 0) config.max_download_size = 10;
    if ((data[0] & 64) != 0) config.user = "device";
    const int outcomes = exchange.perform(config, connections(text(data + 1, size - 1)));
    require(outcomes == 1, "one outcome");
    require(config.max_download_size == -1 || exchange.response.body.size() <= 10,
            "no more than the limit");
    return 0;
}
