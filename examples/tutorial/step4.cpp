// Step 4 of docs/tutorial.md: downloads the image into a file.

#include <chrono>
#include <cstdint>
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
#include "zel_http/download.h"
#include "zel_http/engine.h"

namespace {

/// Belongs to the loop's thread.
class UpdateClient {
public:
    UpdateClient(boost::asio::io_context& loop, oru::executor& executor, logging::Logger& logger,
                 std::string file)
        : loop_(loop),
          executor_(executor),
          logger_(logger),
          file_(std::move(file)),
          client_(zel::http::createClient(executor, logger)) {}

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
        download();
    }

    void download() {
        zel::http::DownloadConfig config;
        config.request.url = release_["url"];
        config.sink = zel::http::FileSink{file_};
        zel::http::DownloadCallbacks callbacks;
        callbacks.on_progress = [](const zel::http::DownloadProgress& progress) {
            std::cout << progress.bytes / 1000 << " kB, "
                      << static_cast<std::uint64_t>(progress.bytes_per_second / 1000) << " kB/s\n";
        };
        callbacks.on_complete = [this](const zel::http::DownloadResult& result) {
            end(0, "updated, " + std::to_string(result.bytes) + " bytes");
        };
        callbacks.on_error = [this](const zel::http::DownloadError& error) {
            end(1, error.message);
        };
        download_ = zel::http::startDownload(executor_, logger_, config, callbacks);
    }

    void end(int result, const std::string& text) {
        std::cout << text << '\n';
        result_ = result;
        loop_.stop();
    }

    boost::asio::io_context& loop_;
    oru::executor& executor_;
    logging::Logger& logger_;
    const std::string file_;
    std::shared_ptr<zel::http::Client> client_;
    oru::AsyncActionHandle<zel::http::ZelHttpClientTag> check_;
    zel::http::Download download_;
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
