// What a log may show of a request: a LogFilter masks the client's lines, and a logger around the
// program's own masks the engine's, which show URLs as they stand.

#include <string>
#include <string_view>

#include "logging/bundled.h"
#include "logging/logger.h"
#include "oru/asio_executor.h"
#include "zel_http/client.h"
#include "zel_http/engine.h"

namespace {

/// Puts stars in place of what stands between each `mark` and the next of `ends`.
std::string masked(std::string text, std::string_view mark, std::string_view ends) {
    for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark, at)) {
        at += mark.size();
        text.replace(at, text.find_first_of(ends, at) - at, "***");
    }
    return text;
}

std::string withoutToken(const std::string& text) { return masked(text, "token=", "&#) \n"); }

std::string withoutPin(const std::string& body) { return masked(body, R"("pin": ")", "\""); }

zel::http::HeaderMap withoutCredentials(zel::http::HeaderMap headers) {
    for (const char* name : {"Authorization", "Cookie", "Set-Cookie"}) {
        const auto header = headers.find(name);
        if (header != headers.end()) header->second = "***";
    }
    return headers;
}

/// Passes every line on to another logger without the token.
class TokenFreeLogger final : public logging::Logger {
public:
    explicit TokenFreeLogger(logging::Logger& target) : target_(target) {}

    void critical(std::string_view format, logging::Arguments args) override {
        target_.critical("%s", logging::arguments(withoutToken(args.format(format))));
    }
    void error(std::string_view format, logging::Arguments args) override {
        target_.error("%s", logging::arguments(withoutToken(args.format(format))));
    }
    void debug(int level, std::string_view format, logging::Arguments args) override {
        if (isDebugEnabled(level)) debugStream(level) << args.format(format);
    }
    bool isDebugEnabled(int level) const override { return target_.isDebugEnabled(level); }
    logging::detail::StreamProxy infoStream() override {
        return logging::detail::StreamProxy(
            [this](const std::string& line) { target_.infoStream() << withoutToken(line); });
    }
    logging::detail::StreamProxy debugStream(int level) override {
        if (!isDebugEnabled(level)) return {};
        return logging::detail::StreamProxy([this, level](const std::string& line) {
            target_.debugStream(level) << withoutToken(line);
        });
    }

private:
    logging::Logger& target_;
};

}  // namespace

int main(int argc, char** argv) {
    logging::setLevel(6);  // 1 shows the exchange, 6 all headers too, 9 also long bodies
    TokenFreeLogger engine_log(logging::getLogger("engine"));
    boost::asio::io_context loop;
    const auto work = boost::asio::make_work_guard(loop);
    oru::asio_executor executor(loop);
    zel::http::Engine engine([&](const auto& outcome) { executor.post(outcome, 0); }, &engine_log);
    const auto client = zel::http::createClient(executor, logging::getLogger("app"));

    zel::http::LogFilter filter;
    filter.url_filter = withoutToken;
    filter.headers_filter = withoutCredentials;
    filter.request_body_filter = withoutPin;
    filter.payload = zel::http::LogFilter::RequestBodies;  // those of answers only if they failed
    filter.response_body_filter = withoutPin;

    zel::http::RequestConfig config;
    config.method = zel::http::Method::POST;
    config.url = std::string(argc > 1 ? argv[1] : "http://localhost/") + "?token=secret";
    config.headers = {{"Authorization", "Bearer secret"}, {"Content-Type", "application/json"}};
    config.body = R"({"door": "garage", "pin": "secret"})";
    const auto handle = client->start_request(
        config, filter, [&](const zel::http::ResponseData&) { loop.stop(); },
        [&](const zel::http::ErrorData&) { loop.stop(); });
    loop.run();
}
