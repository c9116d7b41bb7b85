// A request of the program's own that streams a body into a file, with a progress bar and in
// constant memory: while the disk is behind, the transfer pauses. download URL FILE

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <future>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "logging/logger.h"
#include "oru/thread_executor.h"
#include "zel_http/engine.h"
#include "zel_http/request.h"

namespace {

// Of bytes that have come and are not written.
constexpr std::size_t pause_above = std::size_t{4} * 1024 * 1024;
constexpr std::size_t resume_below = std::size_t{1} * 1024 * 1024;

class Download final : public zel::http::Request {
public:
    Download(const std::string& url, std::ofstream file, zel::http::Engine& engine,
             oru::executor& disk)
        : engine_(engine), disk_(disk), file_(std::move(file)) {
        config.url = url;
    }

    /// The outcome: empty for a complete file, else what went wrong.
    std::future<std::string> outcome() { return outcome_.get_future(); }

    void showProgress() const {
        constexpr std::uint64_t width = 30;
        const std::uint64_t total = total_;
        const std::uint64_t now = written_;
        std::cout << '\r';
        if (total != 0) {
            const auto filled = static_cast<std::size_t>(std::min(now * width / total, width));
            std::cout << '[' << std::string(filled, '#') << std::string(width - filled, ' ') << "] "
                      << now * 100 / total << " %, ";
        }
        std::cout << now << " of " << total << " bytes" << (paused_ ? ", paused " : "         ")
                  << std::flush;
    }

    // The engine thread calls these, while the transfer runs.

    void notifyHeader(const char* line, unsigned length) override {
        // After a redirect another body comes, maybe of unknown length.
        if (std::string_view(line, length).substr(0, 5) == "HTTP/") total_ = 0;
    }
    void notifySize(unsigned size) override { total_ = size; }

    void notifyDataReceived(const char* data, unsigned length) override {
        if (disk_failed_)
            throw std::runtime_error("the disk does not take it");  // ends the transfer
        if ((waiting_ += length) > pause_above) {
            paused_ = true;
            pauseRequest();
        }
        disk_.post([self = self(), block = std::string(data, length)] { self->write(block); }, 0);
    }

    // The disk's thread calls these: the engine's outcomes go there, behind the last block.

    void notifyDataEnd() override {
        paused_ = false;  // the last block may have asked for a pause
        file_.close();
        outcome_.set_value(file_ ? "" : "the disk does not take it");
    }
    void notifyFailure(zel::http::Failure /*failure*/, const char* text) override {
        outcome_.set_value(text);
    }

    void start() override {}

private:
    std::shared_ptr<Download> self() {
        return std::static_pointer_cast<Download>(shared_from_this());
    }

    void write(const std::string& block) {
        if (!file_.write(block.data(), static_cast<std::streamsize>(block.size()))) {
            disk_failed_ = true;
        }
        written_ += block.size();
        const std::size_t before = waiting_.fetch_sub(block.size());
        if (before < resume_below || before - block.size() >= resume_below) return;
        engine_.queueRequest([self = self()] {  // pause and resume belong to one thread
            self->paused_ = false;
            self->resumeRequest();
        });
    }

    zel::http::Engine& engine_;
    oru::executor& disk_;
    std::ofstream file_;  // the disk's thread
    std::promise<std::string> outcome_;
    std::atomic<std::uint64_t> total_{0};  // 0 while unknown
    std::atomic<std::uint64_t> written_{0};
    std::atomic<std::size_t> waiting_{0};
    std::atomic<bool> paused_{false};
    std::atomic<bool> disk_failed_{false};
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: download URL FILE\n";
        return 2;
    }
    const std::string file = argv[2];
    const std::string part = file + ".part";  // nobody takes half a file for the whole
    oru::thread_executor disk("disk");
    zel::http::Engine engine([&](const auto& outcome) { disk.post(outcome, 0); },
                             &logging::getLogger("download"));
    const auto download =
        std::make_shared<Download>(argv[1], std::ofstream(part, std::ios::binary), engine, disk);
    auto outcome = download->outcome();
    download->runRequest();
    while (outcome.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
        download->showProgress();
    }
    download->showProgress();
    std::string fault = outcome.get();
    if (fault.empty() && std::rename(part.c_str(), file.c_str()) != 0)
        fault = "cannot write " + file;
    std::cout << '\n' << (fault.empty() ? "complete" : fault) << '\n';
    return fault.empty() ? 0 : 1;
}
