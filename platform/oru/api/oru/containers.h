#pragma once

#include <cstddef>
#include <functional>
#include <locale>
#include <string>

namespace oru::containers {

namespace detail {

/// Makes letters upper or lower case as the global locale does. In the classic locale, nearly
/// always the one, without asking its facet, which costs more than the rest of an insertion.
inline void fold(std::string& text, bool upper) {
    const std::locale locale;
    if (locale != std::locale::classic()) {
        const auto& letters = std::use_facet<std::ctype<char>>(locale);
        char* const end = text.data() + text.size();
        static_cast<void>(upper ? letters.toupper(text.data(), end)
                                : letters.tolower(text.data(), end));
        return;
    }
    const char first = upper ? 'a' : 'A';
    for (char& c : text) {
        if (c >= first && c <= first + ('z' - 'a')) c = static_cast<char>(c ^ ('a' ^ 'A'));
    }
}

}  // namespace detail

/// The hash that goes with `lc_equals`.
struct lc_hash {
    /// Hashes a text without regard to the case of letters, as the process's global locale sees it
    /// at the time of the call.
    std::size_t operator()(const std::string& key) const {
        std::string folded = key;
        detail::fold(folded, false);
        return std::hash<std::string>{}(folded);
    }
};

/// The equality of names whose case does not matter.
struct lc_equals {
    /// Compares two texts byte by byte without regard to the case of letters, in the same locale.
    /// Keys that are equal here have the same `lc_hash`.
    bool operator()(const std::string& a, const std::string& b) const {
        if (a.size() != b.size()) return false;
        std::string left = a;
        std::string right = b;
        detail::fold(left, true);
        detail::fold(right, true);
        return left == right;
    }
};

}  // namespace oru::containers
