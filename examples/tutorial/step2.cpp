// Step 2 of docs/tutorial.md: bounds the time and the size, and ends with an exit status.

#include <chrono>
#include <iostream>
#include <string>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    boost::asio::io_context loop;
    const auto work = boost::asio::make_work_guard(loop);
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("update");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);
    const auto client = zel::http::createClient(executor, logger);

    int result = 1;
    const auto end = [&](int status, const std::string& text) {
        std::cout << text << '\n';
        result = status;
        loop.stop();
    };

    zel::http::RequestConfig config;
    config.url = argv[1];
    config.timeout = std::chrono::seconds(30);
    config.max_download_size = 4096;
    const auto handle = client->start_request(
        config, {},
        [&](const zel::http::ResponseData& response) {
            if (response.status != 200) return end(1, "status " + std::to_string(response.status));
            end(0, response.body);
        },
        [&](const zel::http::ErrorData& error) { end(1, error.message); });
    loop.run();
    return result;
}
