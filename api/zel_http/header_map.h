#pragma once

#include <string>
#include <unordered_map>

#include "oru/containers.h"

namespace zel::http {

/// Header names and values. Names hash and compare without regard to case and keep the spelling in
/// which they were first inserted. Inserting a name that is present changes nothing. The iteration
/// order is unspecified. Case follows the global locale, which must not change while a map lives;
/// in a Turkish one "Warning" and "WARNING" are different names.
using HeaderMap = std::unordered_map<std::string, std::string, oru::containers::lc_hash,
                                     oru::containers::lc_equals>;

}  // namespace zel::http
