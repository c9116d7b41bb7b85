// Step 3 of docs/tutorial.md: a class that compares the server's release with the one that is here.

#include <chrono>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

namespace {

/// Belongs to the loop's thread.
class UpdateClient {
public:
    UpdateClient(boost::asio::io_context& loop, oru::executor& executor, logging::Logger& logger,
                 std::string file)
        : loop_(loop), file_(std::move(file)), client_(zel::http::createClient(executor, logger)) {}

    void check(const std::string& url) {
        zel::http::RequestConfig config;
        config.url = url;
        config.timeout = std::chrono::seconds(30);
        config.max_download_size = 4096;
        check_ = client_->start_request(
            config, {}, [this](const zel::http::ResponseData& response) { compare(response); },
            [this](const zel::http::ErrorData& error) { end(1, error.message); });
    }
    int result() const { return result_; }

private:
    void compare(const zel::http::ResponseData& response) {
        if (response.status != 200) return end(1, "status " + std::to_string(response.status));
        std::istringstream lines(response.body);
        for (std::string name, value; lines >> name >> value;) release_[name] = value;
        std::string present;
        std::ifstream(file_ + ".version") >> present;
        if (release_["version"].empty() || release_["sha256"].empty()) return end(1, "no release");
        if (present == release_["version"]) return end(0, "up to date");
        end(0, "there is version " + release_["version"]);
    }

    void end(int result, const std::string& text) {
        std::cout << text << '\n';
        result_ = result;
        loop_.stop();
    }

    boost::asio::io_context& loop_;
    const std::string file_;
    std::shared_ptr<zel::http::Client> client_;
    oru::AsyncActionHandle<zel::http::ZelHttpClientTag> check_;
    std::map<std::string, std::string> release_;
    int result_ = 1;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    boost::asio::io_context loop;
    const auto work = boost::asio::make_work_guard(loop);
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("update");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);
    UpdateClient update(loop, executor, logger, argv[2]);
    update.check(argv[1]);
    loop.run();
    return update.result();
}
