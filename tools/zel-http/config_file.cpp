#include "config_file.h"

#include <sstream>
#include <stdexcept>

#include "body.h"

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
    const std::string text = line[value] == '"'
                                 ? unquoted(line.substr(value))
                                 : line.substr(value, line.find_last_not_of(blanks) - value + 1);
    // For an option that takes none, it is a fault then, and no URL.
    if (arguments.back()[1] == '-' && !text.empty()) {
        arguments.back() += '=' + text;
    } else {
        arguments.push_back(text);
    }
}

/// Where the value of -K begins in an argument, behind other flags perhaps ("-sKfile"): its size if
/// the next argument is the value; `npos` for other arguments.
std::size_t configIn(const std::string& argument) {
    constexpr const char* flags = "fgGIikLOsSvZ";
    if (argument == "--config") return argument.size();
    if (argument.rfind("--config=", 0) == 0) return argument.find('=') + 1;
    if (argument.size() < 2 || argument[0] != '-' || argument[1] == '-') {
        return std::string::npos;
    }
    const auto option = argument.find_first_not_of(flags, 1);
    if (option == std::string::npos || argument[option] != 'K') {
        return std::string::npos;
    }
    return option + 1;
}

}  // namespace

std::vector<std::string> argumentsOf(const std::string& file_content) {
    std::vector<std::string> arguments;
    std::istringstream lines(file_content);
    for (std::string line; std::getline(lines, line);) addLine(line, arguments);
    return arguments;
}

std::vector<std::string> argumentsOf(int argc, const char* const* argv) {
    std::vector<std::string> arguments;
    bool marked = false;  // "--": what follows are URLs
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        marked = marked || argument == "--";
        const auto value = marked ? std::string::npos : configIn(argument);
        const bool follows = value == argument.size();
        if (value == std::string::npos || (follows && i + 1 == argc)) {
            arguments.push_back(argument);
            continue;
        }
        const auto flags = argument.substr(0, argument.find('K'));
        if (argument[1] != '-' && flags != "-") arguments.push_back(flags);
        const std::string file = follows ? argv[++i] : argument.substr(value);
        for (auto& read : argumentsOf(contentOf(file))) {
            if (configIn(read) != std::string::npos) {
                throw std::runtime_error("not in a file of options");
            }
            arguments.push_back(std::move(read));
        }
    }
    return arguments;
}

}  // namespace tool
