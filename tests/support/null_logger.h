#pragma once

#include "logging/logger.h"

namespace test {

/// Nothing is logged, but every line is made.
class NullLogger final : public logging::Logger {
public:
    void critical(fmt::string_view format, fmt::printf_args args) override {
        fmt::vsprintf(format, args);
    }
    void error(fmt::string_view format, fmt::printf_args args) override {
        fmt::vsprintf(format, args);
    }
    void debug(int /*level*/, fmt::string_view format, fmt::printf_args args) override {
        fmt::vsprintf(format, args);
    }
    bool isDebugEnabled(int /*level*/) const override { return true; }
    logging::detail::StreamProxy infoStream() override { return debugStream(0); }
    logging::detail::StreamProxy debugStream(int /*level*/) override {
        return logging::detail::StreamProxy([](const auto&) {});
    }
};

}  // namespace test
