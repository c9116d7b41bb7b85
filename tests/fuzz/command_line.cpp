// The command line of the tool, an argument a line.

#include "command_line.h"

#include <algorithm>
#include <sstream>

#include "fuzz.h"

using namespace test;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::istringstream lines{std::string(text(data, size))};
    std::vector<std::string> words = {"zel-http"};
    for (std::string line; std::getline(lines, line);) {
        if (line.find('@') == std::string::npos) words.push_back(line);  // would read a file
    }
    std::vector<const char*> arguments(words.size());
    std::transform(words.begin(), words.end(), arguments.begin(),
                   [](const auto& word) { return word.c_str(); });
    tool::CommandLine parsed;
    const auto exit = tool::parse(static_cast<int>(arguments.size()), arguments.data(), parsed);
    if (exit) {
        require(exit->status == 0 || exit->status == 2, "help or a bad command line");
        require(!exit->text.empty() && exit->text.back() == '\n', "a whole line says why");
        return 0;
    }
    for (const auto& request : parsed.requests) {
        require(request.timeout.count() >= 0, "no negative limit");
        require(request.max_download_size >= -1, "no negative size");
        for (const auto& [name, value] : request.headers) {
            require((name + value).find_first_of("\r\n") == std::string::npos,
                    "a header is a line");
        }
    }
    return 0;
}
