#include "logging/bundled.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "logging/logger.h"

namespace logging {
namespace {

std::atomic<int>& enabledLevel() {
    static std::atomic<int> level{0};
    return level;
}

using Sinks = std::shared_ptr<spdlog::sinks::dist_sink_mt>;

Sinks terminalSinks() {
    auto sinks = std::make_shared<spdlog::sinks::dist_sink_mt>();
    const char* plain = std::getenv("NO_COLOR");  // see no-color.org
    const bool coloured = plain == nullptr || *plain == '\0';
    sinks->add_sink(std::make_shared<spdlog::sinks::stderr_color_sink_mt>(
        coloured ? spdlog::color_mode::automatic : spdlog::color_mode::never));
    sinks->set_pattern("%H:%M:%S.%e %^%-8l%$ %n: %v");
    return sinks;
}

Importance importanceOf(spdlog::level::level_enum level) {
    switch (level) {
        case spdlog::level::critical:
            return Importance::Critical;
        case spdlog::level::err:
            return Importance::Error;
        case spdlog::level::info:
            return Importance::Info;
        default:
            return Importance::Debug;
    }
}

std::string textOf(spdlog::string_view_t text) { return {text.data(), text.size()}; }

class ReceiverSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    explicit ReceiverSink(LineReceiver receiver) : receiver_(std::move(receiver)) {}

protected:
    /// spdlog reports a `std::exception` on stderr, but lets anything else out to whoever logs.
    void sink_it_(const spdlog::details::log_msg& message) override try {
        receiver_(importanceOf(message.level), textOf(message.logger_name),
                  textOf(message.payload));
    } catch (const std::exception&) {
        throw;
    } catch (...) {
        throw std::runtime_error("the receiver threw something that is no std::exception");
    }
    void flush_() override {}

private:
    const LineReceiver receiver_;
};

/// Never destroyed, like the loggers: threads may still log while the process exits.
const Sinks& sharedSinks() {
    static const auto& sinks = *new Sinks(terminalSinks());
    return sinks;
}

class BundledLogger final : public Logger {
public:
    explicit BundledLogger(const std::string& name) : target_(name, sharedSinks()) {
        target_.set_level(spdlog::level::trace);
        target_.flush_on(spdlog::level::trace);
    }

    void critical(std::string_view format, Arguments args) override {
        target_.critical(args.format(format));
    }
    void error(std::string_view format, Arguments args) override {
        target_.error(args.format(format));
    }
    void debug(int level, std::string_view format, Arguments args) override {
        if (isDebugEnabled(level)) target_.debug(args.format(format));
    }
    bool isDebugEnabled(int level) const override { return level <= enabledLevel(); }
    detail::StreamProxy infoStream() override {
        return detail::StreamProxy([this](const std::string& line) { target_.info(line); });
    }
    detail::StreamProxy debugStream(int level) override {
        if (!isDebugEnabled(level)) return {};
        return detail::StreamProxy([this](const std::string& line) { target_.debug(line); });
    }

private:
    spdlog::logger target_;
};

}  // namespace

Logger& getLogger(const std::string& name) {
    static auto& mutex = *new std::mutex;
    static auto& loggers = *new std::map<std::string, std::unique_ptr<BundledLogger>>;
    const std::lock_guard lock(mutex);
    auto& logger = loggers[name];
    if (!logger) logger = std::make_unique<BundledLogger>(name);
    return *logger;
}

void setLevel(int level) { enabledLevel() = std::clamp(level, 0, 9); }

void setReceiver(LineReceiver receiver) {
    std::vector<spdlog::sink_ptr> sinks;
    if (receiver) sinks.push_back(std::make_shared<ReceiverSink>(std::move(receiver)));
    sharedSinks()->set_sinks(std::move(sinks));
}

}  // namespace logging
