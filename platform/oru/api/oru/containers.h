#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <locale>
#include <numeric>
#include <optional>
#include <string>

namespace oru::containers {

namespace detail {

/// Maps each byte to its upper or lower case.
using Folding = std::array<char, 256>;

/// The table of the classic locale, which changes the letters from `first` to `last`.
constexpr Folding classicFolding(char first, char last) {
    Folding folding{};
    for (std::size_t byte = 0; byte < folding.size(); ++byte) {
        const char c = static_cast<char>(byte);
        folding[byte] = first <= c && c <= last ? static_cast<char>(c ^ ('a' ^ 'A')) : c;
    }
    return folding;
}

inline constexpr Folding classic_lower = classicFolding('A', 'Z');
inline constexpr Folding classic_upper = classicFolding('a', 'z');

/// Converts to upper or lower case, by the rules of the locale that is global when it is
/// constructed. It uses a table, since a comparison must be cheap: a server can choose header names
/// whose hashes are equal, and a map then compares each name with every other.
class Fold {
public:
    /// Converts to upper case if `upper`, else to lower case.
    explicit Fold(bool upper) {
        static const std::locale& classic = std::locale::classic();
        const std::locale locale;
        if (locale == classic) {  // the usual locale; its tables are known at compile time
            folding_ = upper ? &classic_upper : &classic_lower;
            return;
        }
        const auto& letters = std::use_facet<std::ctype<char>>(locale);
        Folding& own = own_.emplace();
        std::iota(own.begin(), own.end(), '\0');
        char* const end = own.data() + own.size();
        static_cast<void>(upper ? letters.toupper(own.data(), end)
                                : letters.tolower(own.data(), end));
        folding_ = &own;
    }
    Fold(const Fold&) = delete;
    Fold& operator=(const Fold&) = delete;
    ~Fold() = default;

    /// The byte in the case that the constructor chose.
    char operator()(char c) const { return (*folding_)[static_cast<unsigned char>(c)]; }

private:
    std::optional<Folding> own_;  // filled for other locales than the classic one
    const Folding* folding_ = nullptr;
};

}  // namespace detail

/// Hashes header names and other keys whose case does not matter.
struct lc_hash {
    /// Hashes a text, and takes upper and lower case as equal, by the rules of the locale that is
    /// global at the time of the call.
    std::size_t operator()(const std::string& key) const {
        const detail::Fold lower(false);
        std::string folded = key;
        for (char& c : folded) c = lower(c);
        return std::hash<std::string>{}(folded);
    }
};

/// Compares keys whose case does not matter.
struct lc_equals {
    /// Compares two texts byte by byte, and takes upper and lower case as equal, by the rules of
    /// the same locale. Keys that are equal here have the same `lc_hash`.
    bool operator()(const std::string& a, const std::string& b) const {
        if (a.size() != b.size()) return false;
        const detail::Fold upper(true);
        return std::equal(a.begin(), a.end(), b.begin(),
                          [&upper](char left, char right) { return upper(left) == upper(right); });
    }
};

}  // namespace oru::containers
