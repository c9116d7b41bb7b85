#pragma once

#include <curl/curl.h>

#include <string>

namespace tool {

/// Checks a part of a form, "name=value", "name=@file" or "name=<file" with ";type=" and
/// ";filename=" behind it. Throws `UnreadableFile`, or `std::runtime_error` for another fault.
void checkFormPart(const std::string& text);

/// Adds a part that was checked.
void addFormPart(curl_mime* form, const std::string& text);

}  // namespace tool
