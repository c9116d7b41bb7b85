#pragma once

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <cstddef>
#include <functional>
#include <string>

namespace oru::containers {

/// Hashes a text without regard to the case of letters, as the process's global locale sees it at
/// the time of the call.
struct lc_hash {
    std::size_t operator()(const std::string& key) const {
        return std::hash<std::string>{}(boost::algorithm::to_lower_copy(key));
    }
};

/// Compares two texts byte by byte without regard to the case of letters, in the same locale.
/// Keys that are equal here have the same `lc_hash`.
struct lc_equals {
    bool operator()(const std::string& a, const std::string& b) const {
        return boost::algorithm::iequals(a, b);
    }
};

}  // namespace oru::containers
