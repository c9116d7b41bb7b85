#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "recording_logger.h"
#include "zel_http/engine.h"
#include "zel_http/request.h"

namespace test {

/// How long a test waits for an event that must come.
constexpr std::chrono::seconds patience{30};

/// A host's own request: keeps what it is told, and its outcome as a text.
class ProbeRequest : public zel::http::Request {
public:
    explicit ProbeRequest(const std::string& url, zel::http::Method method = zel::http::Method::GET,
                          const std::string& body = {}) {
        config.url = url;
        config.method = method;
        config.body = body;
        config.headers.clear();
    }

    void notifyDataReceived(const char* data, unsigned length) override {
        body.append(data, length);
        received += length;
        if (on_data) on_data();
    }
    void notifyHeader(const char* line, unsigned length) override {
        headers.emplace_back(line, length);
        if (on_header) on_header();
    }
    void notifySize(unsigned size) override { declared = size; }
    void notifyDataEnd() override { finish("end"); }
    void notifyFailure(zel::http::Failure failure, const char* text) override {
        std::ostringstream line;
        line << failure << ' ' << text;
        finish(line.str());
    }
    void start() override {}

    /// The outcome once it is there: "200 end" or "404 <Error code in HTTP Response> HTTP
    /// code=404".
    std::string outcome() {
        return done_.wait_for(patience) == std::future_status::ready ? done_.get() : "none came";
    }
    std::string runToOutcome() {
        runRequest();
        return outcome();
    }

    std::function<void()> on_data;
    std::function<void()> on_header;
    std::string body;
    std::vector<std::string> headers;
    unsigned declared = 0;
    std::atomic<std::size_t> received{0};
    std::atomic<int> outcomes{0};

private:
    void finish(const std::string& text) {
        if (++outcomes == 1) promise_.set_value(std::to_string(getResponseCode()) + " " + text);
    }

    std::promise<std::string> promise_;
    std::shared_future<std::string> done_ = promise_.get_future().share();
};

/// An engine whose outcomes are run at once, on the engine thread.
struct Host {
    RecordingLogger logger;
    zel::http::Engine engine{[](const auto& closure) { closure(); }, &logger};

    /// Returns when the engine thread has run all that was queued before, and a pass after it.
    void settle() {
        for (int pass = 0; pass < 2; ++pass) {
            auto reached = std::make_shared<std::promise<void>>();
            engine.queueRequest([reached] { reached->set_value(); });
            reached->get_future().wait();
        }
    }
};

template <typename... Arguments>
std::shared_ptr<ProbeRequest> probe(Arguments&&... arguments) {
    return std::make_shared<ProbeRequest>(std::forward<Arguments>(arguments)...);
}

}  // namespace test
