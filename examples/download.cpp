// A body into a file, with a progress bar and in constant memory. Interrupted, it goes on where it
// stopped when it is started again. download URL FILE

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/download.h"
#include "zel_http/engine.h"

namespace {

void show(const zel::http::DownloadProgress& progress) {
    constexpr std::uint64_t width = 30;
    std::cout << '\r';
    if (const auto total = progress.total.value_or(0); total != 0) {
        const auto filled =
            static_cast<std::size_t>(std::min(progress.bytes * width / total, width));
        std::cout << '[' << std::string(filled, '#') << std::string(width - filled, ' ') << "] "
                  << progress.bytes * 100 / total << " %, ";
    }
    std::cout << progress.bytes << " bytes" << std::flush;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: download URL FILE\n";
        return 2;
    }
    boost::asio::io_context loop;
    const auto work = boost::asio::make_work_guard(loop);  // run() waits for more
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("download");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);

    zel::http::DownloadConfig config;
    config.request.url = argv[1];
    config.sink = zel::http::FileSink{argv[2]};

    bool complete = false;
    const auto end = [&](const std::string& text) {
        std::cout << '\n' << text << '\n';
        loop.stop();
    };
    zel::http::DownloadCallbacks callbacks;
    callbacks.on_progress = show;
    callbacks.on_complete = [&](const zel::http::DownloadResult& result) {
        show({result.bytes, result.bytes});
        complete = true;
        end("complete");
    };
    callbacks.on_error = [&](const zel::http::DownloadError& error) { end(error.message); };
    const auto handle = zel::http::startDownload(executor, logger, config, callbacks);
    loop.run();
    return complete ? 0 : 1;
}
