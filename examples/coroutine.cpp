// Requests that a coroutine awaits, one after another, on a loop of Boost.Asio: no callback, and
// the work of each step stands below the last. Needs C++20. coroutine URL...

#include <utility>  // Boost 1.74's awaitable.hpp misses it

#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/asio.h"
#include "zel_http/engine.h"

namespace {

boost::asio::awaitable<void> getAll(boost::asio::io_context& loop,
                                    std::shared_ptr<zel::http::Client> client,
                                    std::vector<std::string> urls) {
    for (const auto& url : urls) {
        zel::http::RequestConfig config;
        config.url = url;
        const zel::http::Outcome outcome =
            co_await zel::http::async_request(loop, client, config, {}, boost::asio::use_awaitable);
        if (const auto* response = std::get_if<zel::http::ResponseData>(&outcome)) {
            std::cout << response->status << ' ' << response->body << '\n';
        } else {
            std::cout << std::get<zel::http::ErrorData>(outcome).message << '\n';
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    boost::asio::io_context loop;
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("app");
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);

    boost::asio::co_spawn(loop,
                          getAll(loop, zel::http::createClient(executor, logger),
                                 std::vector<std::string>(argv + 1, argv + argc)),
                          [](const std::exception_ptr& failure) {
                              if (failure) std::rethrow_exception(failure);  // out of `run`
                          });
    loop.run();  // until the coroutine ends
}
