// The command line of the tool, an argument a line.

#include "command_line.h"

#include <boost/algorithm/string.hpp>
#include <cassert>

using namespace boost::algorithm;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string lines = "zel-http\n" + std::string(reinterpret_cast<const char*>(data), size);
    erase_all(lines, "@");  // would read a file
    std::vector<std::string> words;
    split(words, lines, is_any_of("\n"));
    std::vector<const char*> arguments;
    for (const std::string& word : words) arguments.push_back(word.c_str());
    tool::CommandLine parsed;
    const auto exit = tool::parse(static_cast<int>(arguments.size()), arguments.data(), parsed);
    assert(!exit || ((exit->status == 0 || exit->status == 2) && ends_with(exit->text, "\n")));
    for (const auto& request : parsed.requests) {
        assert(request.timeout.count() >= 0 && request.max_download_size >= -1);
        for (const auto& [name, value] : request.headers) assert(!contains(name + value, "\r"));
    }
    return 0;
}
