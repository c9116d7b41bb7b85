#include <exception>
#include <iostream>

#include "command_line.h"
#include "demonstration.h"
#include "fetch.h"
#include "logging/bundled.h"

int main(int argc, char** argv) {
    try {
        tool::CommandLine command_line;
        if (const auto exit = tool::parse(argc, argv, command_line)) {
            (exit->status == 0 ? std::cout : std::cerr) << exit->text;
            return exit->status;
        }
        // Outcomes are printed without the log, which only -v turns on.
        if (command_line.log_level == 0) logging::setReceiver({});
        logging::setLevel(command_line.log_level);
        return command_line.requests.empty() ? tool::demonstrate() : tool::fetch(command_line);
    } catch (const std::exception& error) {
        std::cerr << "zel-http: " << error.what() << '\n';
        return 1;
    }
}
