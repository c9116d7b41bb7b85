#pragma once

#include <curl/curl.h>

#include <string>

namespace tool {

/// A part of a form.
struct FormPart {
    std::string name;
    std::string value;          ///< a path, if it is a file
    bool is_file = false;       ///< that is sent as one
    bool has_filename = false;  ///< even if there is no file
    std::string filename;
    std::string type;
};

/// Reads "name=value", "name=@file" or "name=<file", with ";type=" and ";filename=" behind it, and
/// with "-" for standard input. Throws `UnreadableFile`, or `std::runtime_error` for
/// another fault.
FormPart formPart(const std::string& text);

void addFormPart(curl_mime* form, const FormPart& part);

}  // namespace tool
