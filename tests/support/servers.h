#pragma once

#include <fstream>
#include <iterator>
#include <string>

#include "support/engine_test.h"

namespace test {

/// A file of the servers that `servers/start` started: certificates and logs.
inline std::string serverFile(const std::string& name) {
    return std::string(ZEL_HTTP_TEST_SERVERS) + "/" + name;
}

inline std::string contentOf(const std::string& name) {
    std::ifstream file(serverFile(name));
    return {std::istreambuf_iterator<char>(file), {}};
}

/// A server's log once `line` stands there, which may be after the answer.
inline std::string logWith(const std::string& line, const std::string& file) {
    const auto there = [&] { return contentOf(file).find(line) != std::string::npos; };
    waitFor(line + " in " + file, there);
    return contentOf(file);
}

/// Replaces "{name}", if any, by the address of that server.
inline std::string at(std::string text) {
    const auto begin = text.find('{');
    if (begin == std::string::npos) return text;
    const std::string name = text.substr(begin + 1, text.find('}') - begin - 1);
    std::ifstream addresses(serverFile("addresses"));
    std::string found;
    std::string address;
    while (found != name && addresses >> found >> address) {
    }
    return text.replace(begin, name.size() + 2, address);
}

}  // namespace test
