#pragma once

#include <curl/curl.h>

#include <optional>
#include <string>
#include <vector>

namespace tool {

/// A part of a form, as a -F option describes it.
struct FormPart {
    struct Content {
        enum Kind { Text, TextOfFile, File };
        Kind kind = Text;
        std::string value;  ///< the text, or the path of the file
        std::string type;
        std::optional<std::string> filename;  ///< instead of the path's
        std::string encoder;
        std::vector<std::string> headers;
    };
    std::string name;
    std::vector<Content> contents;  ///< of several files the part has parts of its own
};

/// Reads "name=text", "name=<file" or "name=@file,file", each with ";type=", ";filename=",
/// ";encoder=" and ";headers=" behind it; a value with ";" or "," in it stands in double quotes.
/// The file "-" is standard input, which is read here. Throws `UnreadableFile`, or
/// `std::runtime_error` for another fault.
FormPart parseFormPart(const std::string& text);

void addFormPart(CURL* easy, curl_mime* form, const FormPart& part);

}  // namespace tool
