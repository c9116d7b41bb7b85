// The library: its engine thread, and an executor on the main thread.

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <future>
#include <memory>
#include <unordered_map>

#include "load.h"
#include "logging/bundled.h"
#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

namespace {

using Handle = oru::AsyncActionHandle<zel::http::ZelHttpClientTag>;

zel::http::RequestConfig configure(const bench::Load& load) {
    zel::http::RequestConfig config;
    const bench::Work& work = load.work();
    if (work.method == "POST") config.method = zel::http::Method::POST;
    if (work.method == "PUT") config.method = zel::http::Method::PUT;
    if (!work.ca_file.empty()) config.ca_file = work.ca_file;
    config.body = load.body();
    return config;
}

/// Returns once the engine thread has done all that was asked of it so far.
void waitForEngine() {
    std::promise<void> done;
    zel::http::Engine::getEngine()->queueRequest([&] { done.set_value(); });
    done.get_future().wait();
}

}  // namespace

int main(int argc, char** argv) {
    bench::Load load("zel_http", argc, argv);
    logging::setReceiver({});  // a line for each cancel is made, and goes nowhere
    logging::Logger& logger = logging::getLogger("bench");
    zel::http::Engine engine([](const std::function<void()>& closure) { closure(); }, &logger);
    boost::asio::io_context context(1);
    const auto work = boost::asio::make_work_guard(context);
    oru::asio_executor executor(context);
    const auto client = zel::http::createClient(executor, logger);

    zel::http::RequestConfig config = configure(load);
    std::unordered_map<std::size_t, Handle> handles;
    const auto finished = [&](std::size_t id, long status, std::size_t size) {
        handles.erase(id);
        load.finished(id, status, size);
        if (load.over()) context.stop();
    };
    load.begin([&](std::size_t id, const std::string& url) {
        config.url = url;
        handles[id] = client->start_request(
            config, {},
            [&, id](const zel::http::ResponseData& response) {
                finished(id, static_cast<long>(response.status), response.body.size());
            },
            [&, id](const zel::http::ErrorData&) { finished(id, 0, 0); });
    });
    context.run();
    if (load.work().cancel) {
        load.cancelled([&] {
            handles.clear();
            waitForEngine();
        });
    }
    handles.clear();
    return load.report();
}
