// HEAD, and any other method: a Request of one's own that names it, and an Engine that passes it on
// to libcurl. any_method METHOD URL

#include <curl/curl.h>

#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/engine.h"
#include "zel_http/request.h"

namespace {

class MethodRequest final : public zel::http::Request {
public:
    MethodRequest(std::string method, const std::string& url, boost::asio::io_context& loop)
        : method_(std::move(method)), loop_(loop) {
        config.url = url;
        config.headers.clear();  // no Content-Type where there is no body
    }

    /// Engine thread, before the transfer starts.
    void setMethod(CURL* curl) const {
        // libcurl waits for no body after HEAD only if it is told so in this way.
        if (method_ == "HEAD") {
            curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
        } else {
            curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, method_.c_str());
        }
    }

    void start() override { runRequest(); }

    // Engine thread. Nobody else touches these until the outcome.
    void notifyHeader(const char* line, unsigned length) override { text_.append(line, length); }
    void notifyDataReceived(const char* data, unsigned length) override {
        text_.append(data, length);
    }

    // Where the engine's outcomes run: here, on the loop.
    void notifyDataEnd() override { end(); }
    void notifyFailure(zel::http::Failure failure, const char* reason) override {
        std::cerr << failure << ' ' << reason << '\n';
        end();
    }

private:
    void end() {
        std::cout << text_ << std::flush;
        loop_.stop();
    }

    const std::string method_;
    boost::asio::io_context& loop_;
    std::string text_;
};

/// `addTlsConfig` is the step of the set-up that an engine may replace; it gets the request and
/// libcurl's handle for it.
class MethodEngine final : public zel::http::Engine {
public:
    using Engine::Engine;
    MethodEngine(const MethodEngine&) = delete;
    MethodEngine& operator=(const MethodEngine&) = delete;
    ~MethodEngine() override { stop(); }

    void addTlsConfig(void* curl, std::shared_ptr<zel::http::Request> request) override {
        Engine::addTlsConfig(curl, request);
        if (auto* own = dynamic_cast<MethodRequest*>(request.get())) own->setMethod(curl);
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::cerr << "usage: any_method METHOD URL\n";
        return 2;
    }
    boost::asio::io_context loop;
    const auto work = boost::asio::make_work_guard(loop);  // run() waits for more
    oru::asio_executor executor(loop);
    auto& logger = logging::getLogger("app");
    MethodEngine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &logger);
    const auto request = std::make_shared<MethodRequest>(argv[1], argv[2], loop);
    request->start();
    loop.run();
}
