#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

namespace zel::http {

/// Header lines as libcurl takes them, in two blocks of memory. (`curl_slist_append` allocates two
/// for each line, and walks the list to its end.)
class HeaderList {
public:
    /// Appends a line, put together from parts without NUL.
    void append(std::initializer_list<std::string_view> parts) {
        if (text.empty()) text.reserve(usual_size);
        for (const std::string_view part : parts) text.append(part);
        text.push_back('\0');
        ++lines;
    }

    /// The list, which belongs to this object; null without lines. Call it once, after the last
    /// line.
    curl_slist* list() {
        nodes.resize(lines);
        char* line = text.data();
        for (std::size_t i = 0; i < lines; ++i) {
            nodes[i] = {line, i + 1 < lines ? &nodes[i + 1] : nullptr};
            line += std::char_traits<char>::length(line) + 1;
        }
        return lines == 0 ? nullptr : nodes.data();
    }

private:
    static constexpr std::size_t usual_size = 200;

    std::string text;  // each line ends with NUL
    std::size_t lines = 0;
    std::vector<curl_slist> nodes;
};

}  // namespace zel::http
