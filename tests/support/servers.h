#pragma once

#include <fstream>
#include <sstream>
#include <string>

namespace test {

inline std::string contentOf(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/// The directory of the servers that `servers/start` started: certificates and logs.
inline std::string serverFile(const std::string& name) { return std::string(ZEL_HTTP_TEST_SERVERS) + "/" + name; }

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
