#include "arguments.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "body.h"
#include "text.h"

namespace tool {
namespace {

constexpr const char* blanks = " \t\r";

/// The text of a value that begins with a double quote.
std::string unquoted(const std::string& text) {
    std::string value;
    for (std::size_t i = 1; i < text.size(); ++i) {
        if (text[i] == '"') return value;
        if (text[i] == '\\' && i + 1 < text.size()) {
            const char letter = text[++i];
            value += controlOf(letter).value_or(letter);
        } else {
            value += text[i];
        }
    }
    throw std::runtime_error("a quote does not end");
}

/// The first word: what follows is a comment, or a mistake.
std::string firstWord(const std::string& text) {
    const auto end = text.find_first_of(blanks);
    const auto more = text.find_first_not_of(blanks, end);
    if (more != std::string::npos && text[more] != '#') {
        throw std::runtime_error("a value with blanks stands in quotes");
    }
    return text.substr(0, end);
}

using Arguments = std::vector<std::string>;

/// An option with a value, which flags may stand before ("-sKfile").
struct ValuedOption {
    std::string flags;
    std::string name;
    std::optional<std::string> value;  ///< nothing: the next word
};

std::optional<ValuedOption> valuedOption(const std::string& argument, const TakesValue& takes) {
    if (argument.size() < 2 || argument[0] != '-') return std::nullopt;
    ValuedOption option;
    if (argument[1] == '-') {
        const auto end = argument.find('=');
        option.name = argument.substr(0, end);
        if (end != std::string::npos) option.value = argument.substr(end + 1);
        return takes(option.name).value_or(false) ? std::optional(option) : std::nullopt;
    }
    for (std::size_t i = 1; i < argument.size(); ++i) {
        option.name = {'-', argument[i]};
        const auto valued = takes(option.name);
        if (!valued) return std::nullopt;
        if (!*valued) continue;
        if (i > 1) option.flags = argument.substr(0, i);
        if (i + 1 < argument.size()) option.value = argument.substr(i + 1);
        return option;
    }
    return std::nullopt;
}

bool namesFile(const std::string& argument, const TakesValue& takes) {
    const auto option = valuedOption(argument, takes);
    return option && (option->name == "-K" || option->name == "--config");
}

void addLine(const std::string& line, const TakesValue& takes, Arguments& arguments) {
    const auto begin = line.find_first_not_of(blanks);
    if (begin == std::string::npos || line[begin] == '#') return;
    const bool dashed = line[begin] == '-';
    const char* between = dashed ? " \t\r" : " \t\r=:";
    const auto end = std::min(line.find_first_of(between, begin), line.size());
    const auto value = std::min(line.find_first_not_of(between, end), line.size());
    const std::string name = (dashed ? "" : "--") + line.substr(begin, end - begin);
    if (namesFile(name, takes)) throw std::runtime_error("not in a file of options");
    const bool marked = line.substr(end, value - end).find_first_of("=:") != std::string::npos;
    std::string text = line.substr(value);
    if (!marked && text[0] == '#') text.clear();
    if (!text.empty()) text = text[0] == '"' ? unquoted(text) : firstWord(text);
    const auto option = valuedOption(name, takes);
    if (option && option->value && !text.empty()) {  // "-uname more"
        throw std::runtime_error("a value with blanks stands in quotes");
    }
    if (option && !option->value) {
        arguments.push_back(name);
        arguments.push_back(text);
    } else {
        arguments.push_back(text.empty() ? name : name + '=' + text);
    }
}

void addFile(const std::string& path, const TakesValue& takes, Arguments& arguments) {
    std::istringstream lines(contentOf(path));
    for (std::string line; std::getline(lines, line);) addLine(line, takes, arguments);
}

}  // namespace

std::vector<std::string> argumentsOf(int argc, const char* const* argv, const TakesValue& takes) {
    Arguments arguments;
    bool marked = false;  // "--": what follows are URLs
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        marked = marked || argument == "--";
        const auto option = marked ? std::nullopt : valuedOption(argument, takes);
        if (!option || (!option->value && i + 1 == argc)) {
            const bool list = argument[0] == '[';  // to the parser, but [::1] is a host
            arguments.push_back(list ? "http://" + argument : argument);
            continue;
        }
        const std::string value = option->value ? *option->value : argv[++i];
        if (!option->flags.empty()) arguments.push_back(option->flags);
        if (namesFile(option->name, takes)) {
            addFile(value, takes, arguments);
        } else {
            arguments.push_back(option->name);
            arguments.push_back(value);
        }
    }
    return arguments;
}

}  // namespace tool
