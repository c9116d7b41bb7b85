#include "demonstration.h"

#include <fmt/format.h>

#include <boost/asio/ip/tcp.hpp>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "origin.h"
#include "scripted_server.h"
#include "session.h"
#include "text.h"

namespace tool {
namespace {

using namespace std::chrono_literals;
using zel::http::AuthMethod;
using zel::http::ErrorData;
using zel::http::Method;
using zel::http::RequestConfig;
using zel::http::ResponseData;

constexpr std::size_t upload_size = std::size_t{4} * 1024 * 1024;
constexpr std::size_t shown_body = 40;
constexpr std::size_t many = 200;

/// Tells what came of a scenario, once.
using Report = std::function<void(const std::string& came)>;

struct Scenario {
    std::string name;
    std::string expected;
    std::function<void(const Report&)> start;
};

/// 200 to PUT, 4.0 MiB as sent
std::string describe(const RequestConfig& config, const ResponseData& response) {
    std::string text = std::to_string(response.status);
    if (const auto method = response.headers.find("X-Method"); method != response.headers.end()) {
        text += " to " + method->second;
    }
    const std::string& body = response.body;
    if (body.empty()) return text + ", empty";
    if (body.size() > shown_body) {
        text += ", " + sizeText(body.size());
    } else {
        text += ", \"" + body.substr(0, body.find('\n')) + '"';
    }
    return body == config.body ? text + " as sent" : text;
}

RequestConfig request(Method method, const std::string& url, const std::string& body = {}) {
    return {method, url, {}, body, 0ms, {}};
}

/// A port on which nobody listens: the kernel's choice, given back.
unsigned short closedPort() {
    boost::asio::io_context loop;
    const boost::asio::ip::tcp::acceptor acceptor(loop,
                                                  {boost::asio::ip::address_v4::loopback(), 0});
    return acceptor.local_endpoint().port();
}

class Demonstration {
public:
    Demonstration() { arrange(); }

    int run() {
        std::cout << fmt::format("zel-http against its own origin on port {}\n", origin_.port());
        next();
        const bool completed = session_.run([this] { handles_.clear(); });
        if (!completed) {
            std::cout << "interrupted\n";
            return 130;
        }
        std::cout << fmt::format("{} of {} scenarios as expected\n", as_expected_,
                                 scenarios_.size());
        return as_expected_ == scenarios_.size() ? 0 : 1;
    }

private:
    void arrange() {
        add("GET", "200, \"hello\"", request(Method::GET, origin_.url("/hello")));
        add("POST", "200 to POST, \"temperature=21\" as sent",
            request(Method::POST, origin_.url("/echo"), "temperature=21"));
        add("PUT of 4 MiB", "200 to PUT, 4.0 MiB as sent",
            request(Method::PUT, origin_.url("/echo"), std::string(upload_size, 'u')));
        add("PATCH", "200 to PATCH, \"on=true\" as sent",
            request(Method::PATCH, origin_.url("/echo"), "on=true"));
        add("DELETE", "200 to DELETE, empty", request(Method::DELETE, origin_.url("/echo")));
        add("three redirects", "200 to GET, empty",
            request(Method::GET, origin_.url("/redirect/3")));
        add("redirect loop", "<Protocol failure> (Number of redirects hit maximum amount)",
            request(Method::GET, origin_.url("/loop")));
        add("404 is a response", "404, \"nothing here\"",
            request(Method::GET, origin_.url("/nowhere")));
        addAuthentication();
        addLimits();
        addCancel();
        add("connection refused", "<Failed to establish connection> (Couldn't connect to server)",
            request(Method::GET, fmt::format("http://127.0.0.1:{}/", closedPort())));
        add("unknown host name", "<DNS Lookup failure> (Couldn't resolve host name)",
            request(Method::GET, "http://no-such-host.invalid/"));
        add("answer cut short", "<Protocol failure> (Transferred a partial file)",
            request(Method::GET, broken_.url()));
        addManyAtOnce();
    }

    void addAuthentication() {
        RequestConfig config = request(Method::GET, origin_.url("/private"));
        config.user = "device";
        config.password = "secret:word";
        config.auth_method = AuthMethod::BASIC;
        add("basic authentication", "200, \"welcome, GET of 0 bytes\"", config);
    }

    void addLimits() {
        RequestConfig limited = request(Method::GET, origin_.url("/bytes/100000"));
        limited.max_download_size = 1000;
        add("download limit hit", "<Protocol failure> (Maximum file size exceeded)", limited);
        RequestConfig hurried = request(Method::GET, origin_.url("/silence"));
        hurried.timeout = 200ms;
        add("time-out", "<Operation timed out> (Timeout was reached)", hurried);
    }

    /// The answer to a later request proves that the cancelled one stays silent.
    void addCancel() {
        const auto start = [this](const Report& report) {
            auto came = std::make_shared<std::string>("no outcome");
            const RequestConfig silent = request(Method::GET, origin_.url("/silence"));
            {
                const auto dropped = perform(silent, [came](const auto& text) { *came = text; });
            }
            const RequestConfig later = request(Method::GET, origin_.url("/hello"));
            handles_.push_back(perform(later, [came, report](const auto&) { report(*came); }));
        };
        scenarios_.push_back({"handle dropped", "no outcome", start});
    }

    void addManyAtOnce() {
        const auto start = [this](const Report& report) {
            struct Tally {
                std::size_t left = many;
                std::size_t answered = 0;
            };
            auto tally = std::make_shared<Tally>();
            const RequestConfig config = request(Method::GET, origin_.url("/hello"));
            for (std::size_t i = 0; i < many; ++i) {
                handles_.push_back(perform(config, [tally, report](const std::string& text) {
                    if (text == "200, \"hello\"") ++tally->answered;
                    if (--tally->left == 0) report(fmt::format("{} answered", tally->answered));
                }));
            }
        };
        scenarios_.push_back({"200 requests at once", fmt::format("{} answered", many), start});
    }

    void add(const std::string& name, const std::string& expected, const RequestConfig& config) {
        scenarios_.push_back({name, expected, [this, config](const Report& report) {
                                  handles_.push_back(perform(config, report));
                              }});
    }

    oru::AsyncActionHandle<zel::http::ZelHttpClientTag> perform(const RequestConfig& config,
                                                                const Report& report) {
        return session_.client().start_request(
            config, {},
            [config, report](const ResponseData& response) { report(describe(config, response)); },
            [report](const ErrorData& error) { report(errorText(error)); });
    }

    void next() {
        if (current_ == scenarios_.size()) {
            session_.stop();
            return;
        }
        scenarios_[current_].start([this](const std::string& came) { finish(came); });
    }

    void finish(const std::string& came) {
        const Scenario& scenario = scenarios_[current_++];
        const bool same = came == scenario.expected;
        if (same) ++as_expected_;
        std::cout << fmt::format("  {:<7} {:<22} {}{}\n", same ? "ok" : "DIFFERS", scenario.name,
                                 same ? "expected and came: "
                                      : "expected: " + scenario.expected + ", came: ",
                                 came)
                  << std::flush;
        next();
    }

    Origin origin_;
    ScriptedServer broken_{"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf"};
    Session session_;
    std::vector<Scenario> scenarios_;
    std::size_t current_ = 0;
    std::size_t as_expected_ = 0;
    std::vector<oru::AsyncActionHandle<zel::http::ZelHttpClientTag>> handles_;
};

}  // namespace

int demonstrate() {
    // A proxy of the environment has no way to this origin.
    for (const char* name : {"http_proxy", "all_proxy", "ALL_PROXY"}) unsetenv(name);
    return Demonstration().run();
}

}  // namespace tool
