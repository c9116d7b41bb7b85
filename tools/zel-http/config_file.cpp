#include "config_file.h"

#include <sstream>
#include <stdexcept>

namespace tool {
namespace {

constexpr const char* blanks = " \t\r";

char unescaped(char letter) {
    switch (letter) {
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        default:
            return letter;
    }
}

/// The text of a value that begins with a double quote.
std::string unquoted(const std::string& text) {
    std::string value;
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] == '"') return value;
        if (text[i] == '\\' && i + 1 < text.size()) {
            value += unescaped(text[++i]);
        } else {
            value += text[i];
        }
    }
    throw std::runtime_error("a quote does not end");
}

void addLine(const std::string& line, std::vector<std::string>& arguments) {
    const auto begin = line.find_first_not_of(blanks);
    if (begin == std::string::npos || line[begin] == '#') return;
    const bool dashed = line[begin] == '-';
    const auto end = line.find_first_of(dashed ? " \t\r" : " \t\r=:", begin);
    std::string name = line.substr(begin, end - begin);
    arguments.push_back(dashed ? name : "--" + name);
    if (end == std::string::npos) return;
    const auto value = line.find_first_not_of(dashed ? " \t\r" : " \t\r=:", end);
    if (value == std::string::npos) return;
    if (line[value] == '"') {
        arguments.push_back(unquoted(line.substr(value)));
    } else {
        arguments.push_back(line.substr(value, line.find_last_not_of(blanks) - value + 1));
    }
}

}  // namespace

std::vector<std::string> argumentsOf(const std::string& file_content) {
    std::vector<std::string> arguments;
    std::istringstream lines(file_content);
    for (std::string line; std::getline(lines, line);) addLine(line, arguments);
    return arguments;
}

}  // namespace tool
