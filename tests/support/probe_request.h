#pragma once

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include "exchange.h"
#include "zel_http/request.h"

namespace test {

/// A host's own request: keeps what it is told, and its outcome as a text.
class ProbeRequest : public zel::http::Request {
public:
    explicit ProbeRequest(const std::string& line) { config = requestOf(line); }

    void notifyDataReceived(const char* data, unsigned length) override {
        body.append(data, length);
        received += length;
        if (on_data) on_data();
    }
    void notifyHeader(const char*, unsigned) override {
        if (on_header) on_header();
    }
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
    std::atomic<std::size_t> received{0};
    std::atomic<int> outcomes{0};

private:
    void finish(const std::string& text) {
        if (++outcomes == 1) promise_.set_value(std::to_string(getResponseCode()) + " " + text);
    }

    std::promise<std::string> promise_;
    std::shared_future<std::string> done_ = promise_.get_future().share();
};

inline std::shared_ptr<ProbeRequest> probe(const std::string& line) {
    return std::make_shared<ProbeRequest>(line);
}

}  // namespace test
