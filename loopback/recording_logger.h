#pragma once

#include <algorithm>
#include <iterator>
#include <limits>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "logging/logger.h"

namespace loopback {

/// Keeps its lines as "critical: text", "error: text", "info: text" or "N: text" for debug level N.
class RecordingLogger final : public logging::Logger {
public:
    /// Debug lines above `level` are disabled. Only the first `most` lines are kept; later ones are
    /// formatted, as a logger would, and dropped.
    explicit RecordingLogger(int level = 8,
                             std::size_t most = std::numeric_limits<std::size_t>::max())
        : level_(level), most_(most) {}

    void critical(std::string_view format, logging::Arguments args) override {
        add("critical: " + args.format(format));
    }
    void error(std::string_view format, logging::Arguments args) override {
        add("error: " + args.format(format));
    }
    void debug(int level, std::string_view format, logging::Arguments args) override {
        if (isDebugEnabled(level)) add(std::to_string(level) + ": " + args.format(format));
    }
    bool isDebugEnabled(int level) const override { return level <= level_; }
    logging::detail::StreamProxy infoStream() override {
        return logging::detail::StreamProxy([this](const auto& line) { add("info: " + line); });
    }
    logging::detail::StreamProxy debugStream(int level) override {
        if (!isDebugEnabled(level)) return {};
        return logging::detail::StreamProxy(
            [this, level](const auto& line) { add(std::to_string(level) + ": " + line); });
    }

    void add(std::string line) {
        const std::lock_guard lock(mutex_);
        if (lines_.size() < most_) lines_.push_back(std::move(line));
    }
    /// The lines that contain `part`.
    std::vector<std::string> lines(const std::string& part = {}) const {
        const std::lock_guard lock(mutex_);
        std::vector<std::string> found;
        std::copy_if(lines_.begin(), lines_.end(), std::back_inserter(found),
                     [&](const auto& line) { return line.find(part) != std::string::npos; });
        return found;
    }

private:
    const int level_;
    const std::size_t most_;
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace loopback
