#pragma once

#include <spdlog/sinks/dist_sink.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "logging/bundled.h"

namespace logging {

/// Sends the lines of all bundled loggers to `sinks` instead of stderr. Header only, so that the
/// sinks may be of another spdlog than the library's. Call it on any thread.
inline void setSinks(std::vector<spdlog::sink_ptr> sinks) {
    const auto all = std::make_shared<spdlog::sinks::dist_sink_mt>(std::move(sinks));
    setReceiver([all](Importance importance, const std::string& logger, const std::string& line) {
        constexpr spdlog::level::level_enum levels[] = {
            spdlog::level::debug, spdlog::level::info, spdlog::level::err, spdlog::level::critical};
        all->log({logger, levels[static_cast<int>(importance)], line});
        all->flush();
    });
}

}  // namespace logging
