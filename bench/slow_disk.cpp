// slow_disk URL SMALL_URL FILE: what requests for SMALL_URL take while nothing else goes on, while
// URL is downloaded to FILE, and while each write to that file takes 200 ms.

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <exception>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "logging/bundled.h"
#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/download.h"
#include "zel_http/engine.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto phase_time = 5s;
constexpr auto between_requests = 5ms;

std::atomic<std::chrono::milliseconds> write_time{0ms};

bool isRegular(int descriptor) {
    struct stat file {};
    return fstat(descriptor, &file) == 0 && S_ISREG(file.st_mode);
}

}  // namespace

/// Stands before the C library's, for this program and the libraries in it.
extern "C" __attribute__((visibility("default"))) ssize_t write(int descriptor, const void* data,
                                                                std::size_t size) {
    const std::chrono::milliseconds takes = write_time;
    if (takes != 0ms && isRegular(descriptor)) std::this_thread::sleep_for(takes);
    return syscall(SYS_write, descriptor, data, size);
}

namespace {

/// One small request after the other, for some time.
class Beside {
public:
    Beside(boost::asio::io_context& loop, zel::http::Client& client, const std::string& url)
        : loop_(loop), client_(client), next_(loop) {
        config_.url = url;
    }

    std::vector<double> measure() {
        end_ = Clock::now() + phase_time;
        microseconds_.clear();
        start();
        loop_.restart();
        loop_.run();
        std::sort(microseconds_.begin(), microseconds_.end());
        return microseconds_;
    }

private:
    void start() {
        const auto begun = Clock::now();
        client_.start_request(
            config_, {},
            [this, begun](zel::http::Client::RequestId, const zel::http::ResponseData&) {
                microseconds_.push_back(
                    std::chrono::duration<double, std::micro>(Clock::now() - begun).count());
                goOn();
            },
            [](zel::http::Client::RequestId, const zel::http::ErrorData& error) {
                throw std::runtime_error(error.message);
            });
    }

    void goOn() {
        if (Clock::now() >= end_) return loop_.stop();
        next_.expires_after(between_requests);
        next_.async_wait([this](const boost::system::error_code& error) {
            if (!error) start();
        });
    }

    boost::asio::io_context& loop_;
    zel::http::Client& client_;
    boost::asio::steady_timer next_;
    zel::http::RequestConfig config_;
    Clock::time_point end_;
    std::vector<double> microseconds_;
};

void print(const std::string& beside, const std::vector<double>& sorted, std::uint64_t bytes) {
    std::cout
        << fmt::format(
               R"({{"beside": "{}", "requests": {}, "p50_us": {:.0f}, "p99_us": {:.0f}, "most_us": {:.0f}, "bytes": {}}})",
               beside, sorted.size(), sorted.at(sorted.size() / 2),
               sorted.at(sorted.size() * 99 / 100), sorted.back(), bytes)
        << std::endl;
}

void measure(const std::string& url, const std::string& small_url, const std::string& file) {
    logging::setReceiver({});
    logging::Logger& logger = logging::getLogger("bench");
    boost::asio::io_context loop(1);
    const auto work = boost::asio::make_work_guard(loop);
    oru::asio_executor executor(loop);
    zel::http::Engine engine([&](const auto& closure) { executor.post(closure, 0); }, &logger);
    const auto client = zel::http::createClient(executor, logger);
    Beside beside(loop, *client, small_url);
    beside.measure();  // connections and memory are in place then
    print("nothing", beside.measure(), 0);
    for (const auto takes : {0ms, 200ms}) {
        std::uint64_t bytes = 0;
        zel::http::DownloadConfig config;
        config.request.url = url;
        config.sink = zel::http::FileSink{file};
        // Slow enough to last for the whole phase.
        if (takes == 0ms) config.limits.bytes_per_second = 100 << 20;
        zel::http::DownloadCallbacks callbacks;
        callbacks.on_complete = [](const zel::http::DownloadResult&) {};
        callbacks.on_error = [](const zel::http::DownloadError& error) {
            throw std::runtime_error(error.message);
        };
        callbacks.on_progress = [&](const zel::http::DownloadProgress& progress) {
            bytes = progress.bytes;
        };
        write_time = takes;
        const auto download = zel::http::startDownload(executor, logger, config, callbacks);
        const auto latencies = beside.measure();
        print(takes == 0ms ? "a download" : "a download, 200 ms a write", latencies, bytes);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const std::string file = argv[3];
    try {
        measure(argv[1], argv[2], file);
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
    for (const char* suffix : {"", ".part", ".part.state"}) std::filesystem::remove(file + suffix);
    return 0;
}
