#include "logging/bundled.h"

#include <spdlog/logger.h>
#include <spdlog/sinks/dist_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

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

    void critical(fmt::string_view format, fmt::printf_args args) override {
        target_.critical(fmt::vsprintf(format, args));
    }
    void error(fmt::string_view format, fmt::printf_args args) override {
        target_.error(fmt::vsprintf(format, args));
    }
    void debug(int level, fmt::string_view format, fmt::printf_args args) override {
        if (isDebugEnabled(level)) target_.debug(fmt::vsprintf(format, args));
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

void setSinks(std::vector<spdlog::sink_ptr> replacement) {
    sharedSinks()->set_sinks(std::move(replacement));
}

}  // namespace logging
