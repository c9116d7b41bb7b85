// Many requests at once, of which the first answers are enough: the others are cancelled, by
// dropping their handles or, where a number is handier than an object, by their identifiers.

#include <cstddef>
#include <iostream>
#include <set>
#include <vector>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

namespace {

using Handle = oru::AsyncActionHandle<zel::http::ZelHttpClientTag>;

constexpr std::size_t requests = 100;
constexpr std::size_t enough = 10;

/// Asks the same question many times. Lives on the client's thread.
class Poll {
public:
    Poll(zel::http::Client& client, boost::asio::io_context& loop) : client_(client), loop_(loop) {}

    void start(const std::string& url) {
        zel::http::RequestConfig config;
        config.url = url;
        zel::http::LogFilter silent;  // no line for each cancelled request
        silent.payload = zel::http::LogFilter::None;
        for (std::size_t i = 0; i < requests / 2; ++i) {
            handles_.push_back(client_.start_request(
                config, silent, [this](const zel::http::ResponseData&) { count(answered_); },
                [this](const zel::http::ErrorData&) { count(failed_); }));
            using Id = zel::http::Client::RequestId;
            running_.insert(client_.start_request(
                config, silent,
                [this](Id id, const zel::http::ResponseData&) {
                    running_.erase(id);
                    count(answered_);
                },
                [this](Id id, const zel::http::ErrorData&) {
                    running_.erase(id);
                    count(failed_);
                }));
        }
    }

    void report() const {
        std::cout << answered_ << " answered, " << failed_ << " failed, "
                  << requests - answered_ - failed_ << " cancelled\n";
    }

private:
    void count(std::size_t& outcomes) {
        ++outcomes;
        if (answered_ < enough && answered_ + failed_ < requests) return;
        handles_.clear();  // its own callbacks may drop a handle
        for (const auto id : running_) client_.cancel_request(id);
        running_.clear();
        loop_.stop();
    }

    zel::http::Client& client_;
    boost::asio::io_context& loop_;
    std::vector<Handle> handles_;
    std::set<zel::http::Client::RequestId> running_;
    std::size_t answered_ = 0;
    std::size_t failed_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    boost::asio::io_context loop;
    const auto work = boost::asio::make_work_guard(loop);
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("app");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);
    const auto client = zel::http::createClient(executor, logger);
    Poll poll(*client, loop);
    poll.start(argc > 1 ? argv[1] : "http://localhost/");
    loop.run();
    poll.report();
}
