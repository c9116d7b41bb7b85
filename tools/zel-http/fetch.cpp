#include "fetch.h"

#include <fmt/format.h>

#include <chrono>
#include <cstddef>
#include <fstream>
#include <iostream>
#include <utility>
#include <vector>

#include "session.h"
#include "text.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;
using zel::http::ErrorData;
using zel::http::RequestConfig;
using zel::http::ResponseData;

constexpr unsigned first_failing_status = 400;

/// The requests of one command line and what became of them.
class Fetch {
public:
    Fetch(const CommandLine& command_line, std::ostream& out)
        : command_line_(command_line), out_(out), waiting_(command_line.requests.size()) {}

    int run() {
        session_.engine().setProxyConfig(command_line_.proxy, command_line_.proxy_user,
                                         command_line_.proxy_password);
        for (const auto& config : command_line_.requests) start(config);
        const bool completed = session_.run([this] {
            handles_.clear();  // dropping a handle cancels its request
            std::cerr << fmt::format("zel-http: interrupted, {} cancelled\n", waiting_);
        });
        if (!completed) return 130;
        return failed_ ? 1 : 0;
    }

private:
    void start(const RequestConfig& config) {
        const auto begun = Clock::now();
        const std::string& url = config.url;
        handles_.push_back(session_.client().start_request(
            config, command_line_.log_filter,
            [this, begun, &url](const ResponseData& response) {
                write(response);
                report(fmt::format("{}  {:>10}", response.status, sizeText(response.body.size())),
                       begun, url);
                failed_ = failed_ || response.status >= first_failing_status;
                finishOne();
            },
            [this, begun, &url](const ErrorData& error) {
                report(errorText(error), begun, url);
                failed_ = true;
                finishOne();
            }));
    }

    void write(const ResponseData& response) {
        if (command_line_.show_headers) {
            out_ << "HTTP " << response.status << '\n';
            for (const auto& [name, value] : response.headers) {
                out_ << name << ": " << value << '\n';
            }
            out_ << '\n';
        }
        out_ << response.body << std::flush;
        if (!out_) {
            std::cerr << "zel-http: cannot write the body\n";
            failed_ = true;
        }
    }

    static void report(const std::string& outcome, Clock::time_point begun,
                       const std::string& url) {
        const std::chrono::duration<double, std::milli> took = Clock::now() - begun;
        std::cerr << fmt::format("{}  {:.1f} ms  {}\n", outcome, took.count(), url);
    }

    void finishOne() {
        if (--waiting_ == 0) session_.stop();
    }

    const CommandLine& command_line_;
    std::ostream& out_;
    std::size_t waiting_;
    bool failed_ = false;
    Session session_;
    // Destroyed before the session's client, which they cancel at.
    std::vector<oru::AsyncActionHandle<zel::http::ZelHttpClientTag>> handles_;
};

}  // namespace

int fetch(const CommandLine& command_line) {
    if (command_line.output.empty()) return Fetch(command_line, std::cout).run();
    std::ofstream file(command_line.output, std::ios::binary);
    if (!file) {
        std::cerr << "zel-http: -o: cannot write " << command_line.output << '\n';
        return 2;
    }
    return Fetch(command_line, file).run();
}

}  // namespace tool
