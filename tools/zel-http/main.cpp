#include <spdlog/sinks/stdout_sinks.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string_view>

#include "command_line.h"
#include "demonstration.h"
#include "fetch.h"
#include "logging/bundled.h"

namespace {

void chooseLog(int level) {
    const char* no_color = std::getenv("NO_COLOR");
    if (level == 0) {
        // Every outcome is printed anyway; the log is for who asks for it.
        logging::setSinks({});
    } else if (no_color != nullptr && !std::string_view(no_color).empty()) {
        auto plain = std::make_shared<spdlog::sinks::stderr_sink_mt>();
        plain->set_pattern("%H:%M:%S.%e %-8l %n: %v");
        logging::setSinks({std::move(plain)});
    }
    logging::setLevel(level);
}

}  // namespace

int main(int argc, char** argv) {
    try {
        tool::CommandLine command_line;
        if (const auto exit = tool::parse(argc, argv, command_line)) {
            (exit->status == 0 ? std::cout : std::cerr) << exit->text;
            return exit->status;
        }
        chooseLog(command_line.log_level);
        return command_line.requests.empty() ? tool::demonstrate() : tool::fetch(command_line);
    } catch (const std::exception& error) {
        std::cerr << "zel-http: " << error.what() << '\n';
        return 1;
    }
}
