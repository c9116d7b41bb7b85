#pragma once

#include <curl/curl.h>

#include <string>

namespace tool {

/// Says what is wrong with a part of a form, "name=value", "name=@file" or "name=<file" with
/// ";type=" and ";filename=" behind it; empty when nothing is.
std::string faultOfFormPart(const std::string& text);

/// Adds a part without fault.
void addFormPart(curl_mime* form, const std::string& text);

}  // namespace tool
