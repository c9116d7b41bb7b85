#pragma once

#include <algorithm>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "command_line.h"
#include "loopback/origin.h"
#include "loopback/recording_logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

namespace test {

/// Proxies of the environment have no way to servers on loopback.
inline const bool without_proxies = [] {
    for (const char* scheme : {"http_proxy", "https_proxy", "all_proxy"}) unsetenv(scheme);
    for (const char* scheme : {"HTTPS_PROXY", "ALL_PROXY"}) unsetenv(scheme);
    return true;
}();

/// How long a test waits for an event that must come.
constexpr std::chrono::seconds patience{30};

/// The request of a command line of zel-http, split at blanks; no default headers.
inline zel::http::RequestConfig requestOf(const std::string& line) {
    std::istringstream text(line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(text), {}};
    std::vector<const char*> arguments(words.size() + 1, "zel-http");
    std::transform(words.begin(), words.end(), arguments.begin() + 1,
                   [](const auto& word) { return word.c_str(); });
    tool::CommandLine parsed;
    const auto refused = tool::parse(static_cast<int>(arguments.size()), arguments.data(), parsed);
    if (refused) throw std::invalid_argument(refused->text);
    if (parsed.requests.empty()) parsed.requests.emplace_back();
    if (line.find("-H Content-Type") == std::string::npos)
        parsed.requests[0].headers.erase("Content-Type");
    return parsed.requests[0];
}

/// "200 text", with " hop=H" for a response with X-Hop; long bodies as their length.
inline std::string textOf(const zel::http::ResponseData& data) {
    std::string text = std::to_string(data.status) + " ";
    text += data.body.size() > 60 ? std::to_string(data.body.size()) + " bytes"
                                  : data.body.substr(0, data.body.find('\n'));
    const auto hop = data.headers.find("x-hop");
    return hop == data.headers.end() ? text : text + " hop=" + hop->second;
}
inline std::string textOf(const zel::http::ErrorData& data) {
    std::ostringstream text;
    text << data.failure << ' ' << data.message;
    return text.str();
}

/// An engine, whose outcomes are run at once on its thread unless `runner` does otherwise, and a
/// client on the test's thread.
class Exchange {
public:
    using Runner = std::function<void(const std::function<void()>&)>;

    Exchange() : Exchange([](const auto& closure) { closure(); }) {}
    /// Debug lines above `log_level` are off.
    explicit Exchange(const Runner& runner, int log_level = 8)
        : logger(log_level), engine(runner, &logger) {}

    /// The outcome of one request.
    std::string perform(const zel::http::RequestConfig& config) {
        std::string came;
        const auto note = [&](auto, const auto& data) { came = textOf(data); };
        client->start_request(config, filter, note, note);
        runUntil([&] { return !came.empty(); });
        return came;
    }
    std::string perform(const std::string& line) { return perform(requestOf(line)); }

    void runUntil(const std::function<bool()>& reached) {
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (!reached()) {
            if (std::chrono::steady_clock::now() > deadline) throw std::runtime_error("no event");
            loop.run_one_for(std::chrono::milliseconds(100));
        }
    }
    /// Returns when the engine thread has run all that was queued before, and a pass after it.
    void settle() {
        for (int pass = 0; pass < 2; ++pass) {
            std::atomic<bool> reached{false};
            engine.queueRequest([&] { reached = true; });
            while (!reached) std::this_thread::yield();
        }
    }

    loopback::RecordingLogger logger;
    zel::http::LogFilter filter;
    boost::asio::io_context loop;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> work{
        loop.get_executor()};
    oru::asio_executor executor{loop};
    zel::http::Engine engine;
    std::shared_ptr<zel::http::Client> client = zel::http::createClient(executor, logger);
};

}  // namespace test
