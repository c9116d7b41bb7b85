#include <curl/curl.h>
#include <fcntl.h>
#include <unistd.h>

#include <exception>
#include <iostream>

#include "command_line.h"
#include "demonstration.h"
#include "fetch.h"
#include "logging/bundled.h"

namespace {

/// A descriptor that was closed at the start would be given to a socket, and get what is printed.
void holdStandardDescriptors() {
    while (true) {
        const int lowest = open("/dev/null", O_RDONLY);  // of those, only reading works
        if (lowest > STDERR_FILENO) close(lowest);
        if (lowest < 0 || lowest > STDERR_FILENO) return;
    }
}

}  // namespace

int main(int argc, char** argv) {
    holdStandardDescriptors();
    try {
        tool::CommandLine command_line;
        if (const auto exit = tool::parse(argc, argv, command_line)) {
            std::ostream& stream = exit->status == 0 ? std::cout : std::cerr;
            if (stream << exit->text << std::flush) return exit->status;
            std::cerr << "zel-http: cannot write to standard output\n";
            return CURLE_WRITE_ERROR;
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
