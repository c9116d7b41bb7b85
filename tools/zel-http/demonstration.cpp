#include "demonstration.h"

#include <curl/curl.h>
#include <fmt/format.h>

#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "loopback/origin.h"
#include "loopback/recording_logger.h"
#include "loopback/tls_servers.h"
#include "session.h"
#include "text.h"
#include "zel_http/testing/scripted_server.h"

namespace tool {
namespace {

using namespace std::chrono_literals;
using loopback::closedPort;
using loopback::Origin;
using zel::http::AuthMethod;
using zel::http::ErrorData;
using zel::http::Method;
using zel::http::RequestConfig;
using zel::http::ResponseData;

constexpr std::size_t upload_size = std::size_t{4} * 1024 * 1024;
constexpr std::size_t shown_body = 40;
constexpr std::size_t many = 200;
constexpr std::size_t name_width = 22;

/// Called once with the outcome of a scenario, as text.
using Report = std::function<void(const std::string& actual)>;

struct Scenario {
    std::string name;
    std::string expected;
    std::function<void(const Report&)> start;
};

/// libcurl's texts differ from one version to the next.
std::string failed(const char* failure, CURLcode code) {
    return fmt::format("<{}> ({})", failure, curl_easy_strerror(code));
}

/// A response as text: "200 to PUT, 4.0 MiB as sent".
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

class Demonstration {
public:
    Demonstration() { arrange(); }

    int run() {
        std::cout << fmt::format("zel-http against its own origin on port {}\n", origin_.port());
        next();
        if (const int status = session_.run([this] { handles_.clear(); }); status != 0) {
            std::cout << "interrupted\n";
            return status;
        }
        std::cout << fmt::format("{} of {} scenarios as expected\n", as_expected_,
                                 scenarios_.size());
        if (tls_.http2().empty()) std::cout << "HTTP/2 was left out: there is no nginx here\n";
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
        add("redirect loop", failed("Protocol failure", CURLE_TOO_MANY_REDIRECTS),
            request(Method::GET, origin_.url("/loop")));
        add("404 is a response", "404, \"nothing here\"",
            request(Method::GET, origin_.url("/nowhere")));
        addAuthentication();
        addLimits();
        addCancel();
        add("connection refused", failed("Failed to establish connection", CURLE_COULDNT_CONNECT),
            request(Method::GET, fmt::format("http://127.0.0.1:{}/", closedPort())));
        add("unknown host name", failed("DNS Lookup failure", CURLE_COULDNT_RESOLVE_HOST),
            request(Method::GET, "http://no-such-host.invalid/"));
        add("answer cut short", failed("Protocol failure", CURLE_PARTIAL_FILE),
            request(Method::GET, broken_.url()));
        addTls();
        addMaskedLog();
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
        add("download limit hit", failed("Protocol failure", CURLE_FILESIZE_EXCEEDED), limited);
        RequestConfig hurried = request(Method::GET, origin_.url("/silence"));
        hurried.timeout = 200ms;
        add("time-out", failed("Operation timed out", CURLE_OPERATION_TIMEDOUT), hurried);
    }

    /// The answer to a later request proves that the cancelled one stays silent.
    void addCancel() {
        const auto start = [this](const Report& report) {
            auto outcome = std::make_shared<std::string>("no outcome");
            const RequestConfig silent = request(Method::GET, origin_.url("/silence"));
            {
                const auto dropped =
                    perform(silent, [outcome](const auto& text) { *outcome = text; });
            }
            const RequestConfig later = request(Method::GET, origin_.url("/hello"));
            handles_.push_back(
                perform(later, [outcome, report](const auto&) { report(*outcome); }));
        };
        scenarios_.push_back({"handle dropped", "no outcome", start});
    }

    void addTls() {
        const auto trusting = [this](const Origin& origin) {
            RequestConfig config = request(Method::GET, origin.url("/hello"));
            config.ca_file = tls_.certificates().file("root.pem");
            return config;
        };
        const std::string refused = failed("Protocol failure", CURLE_PEER_FAILED_VERIFICATION);
        add("verified HTTPS", "200, \"hello\"", trusting(tls_.local()));
        RequestConfig strange = trusting(tls_.local());
        strange.ca_file.reset();  // the system's bundle does not know the root
        add("unknown authority", refused, strange);
        add("wrong host name", refused, trusting(tls_.elsewhere()));
        RequestConfig mutual = trusting(tls_.mutual());
        mutual.own_cert = tls_.certificates().file("client.pem");
        mutual.own_pkey = tls_.certificates().file("client.key");
        add("mutual TLS", "200, \"hello\"", mutual);
        RequestConfig second = trusting(tls_.local());
        second.url = tls_.http2();
        if (!second.url.empty()) add("HTTP/2, from nginx", "200, \"HTTP/2.0\"", second);
    }

    /// Logs everything of an exchange, and shows its body line unless a secret is in any line.
    void addMaskedLog() {
        const auto start = [this](const Report& report) {
            RequestConfig config = request(Method::POST, origin_.url("/echo"), "password=secret");
            config.headers = {{"Content-Type", "application/x-www-form-urlencoded"},
                              {"X-Key", "secret"}};
            zel::http::LogFilter filter;
            filter.request_body_filter = [](const std::string&) { return "password=***"; };
            filter.response_body_filter = filter.request_body_filter;
            filter.headers_filter = [](zel::http::HeaderMap headers) {
                headers.erase("X-Key");
                return headers;
            };
            const auto done = [this, report](auto, const auto&) {
                report(masked_log_.lines("secret").empty() ? masked_log_.lines("Body").at(0)
                                                           : masked_log_.lines("secret").at(0));
            };
            masking_client_ = session_.createClient(masked_log_);
            masking_client_->start_request(config, filter, done, done);
        };
        scenarios_.push_back({"masked log", "1:  Body: password=***", start});
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
        scenarios_[current_].start([this](const std::string& actual) { finish(actual); });
    }

    void finish(const std::string& actual) {
        const Scenario& scenario = scenarios_[current_++];
        if (actual == scenario.expected) ++as_expected_;
        std::cout << comparison(scenario.name, name_width, scenario.expected, actual) << std::flush;
        next();
    }

    Origin origin_;
    zel::testing::ScriptedServer broken_{"HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nhalf"};
    loopback::TlsServers tls_;
    loopback::RecordingLogger masked_log_{9};
    Session session_;
    std::shared_ptr<zel::http::Client> masking_client_;
    std::vector<Scenario> scenarios_;
    std::size_t current_ = 0;
    std::size_t as_expected_ = 0;
    std::vector<oru::AsyncActionHandle<zel::http::ZelHttpClientTag>> handles_;
};

}  // namespace

int demonstrate() {
    // A proxy that the environment names could not reach servers on this machine's loopback.
    setenv("no_proxy", "*", 1);
    return Demonstration().run();
}

}  // namespace tool
