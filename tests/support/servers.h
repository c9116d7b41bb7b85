#pragma once

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>

#include "support/exchange.h"

namespace test {

inline std::string contentOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/// The directory of the servers that `servers/start` started: certificates and logs.
inline std::string serverFile(const std::string& name) {
    return std::string(ZEL_HTTP_TEST_SERVERS) + "/" + name;
}

/// A server's log once `line` stands there; it comes after the answer, in squid's when a tunnel
/// ends.
inline std::string logWith(const std::string& line, const std::string& file) {
    const auto deadline = std::chrono::steady_clock::now() + patience;
    std::string log;
    while (log.find(line) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
        log = contentOf(serverFile(file));
    }
    return log;
}

/// Replaces "{name}" by the address of that server, or by the directory for "{dir}".
inline std::string at(std::string line) {
    std::istringstream addresses(contentOf(serverFile("addresses")));
    for (std::string name, value; addresses >> name >> value;) {
        name = "{" + name + "}";
        for (auto place = line.find(name); place != std::string::npos; place = line.find(name)) {
            line.replace(place, name.size(), value);
        }
    }
    return line;
}

}  // namespace test
