#include "form.h"

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <stdexcept>
#include <string_view>

#include "body.h"

namespace tool {
namespace {

/// Takes what is before the next semicolon off the front of `text`. In double quotes, a semicolon
/// and blanks belong to it, and so does what has a backslash before it.
std::string takeWord(std::string_view& text) {
    std::string word;
    std::size_t at = std::min(text.find_first_not_of(" \t"), text.size());
    if (at < text.size() && text[at] == '"') {
        const auto escapes = [&] {
            const char next = at + 1 < text.size() ? text[at + 1] : ' ';
            return text[at] == '\\' && (next == '\\' || next == '"');
        };
        for (++at; at < text.size() && text[at] != '"'; ++at) {
            if (escapes()) ++at;
            word += text[at];
        }
        if (at == text.size()) throw std::runtime_error("a quote does not end");
        at = std::min(text.find(';', at), text.size());
    } else {
        const auto end = std::min(text.find(';', at), text.size());
        word = boost::algorithm::trim_right_copy(std::string(text.substr(at, end - at)));
        at = end;
    }
    text.remove_prefix(at);
    return word;
}

/// What follows the value, ";type=" and the like.
void readModifiers(std::string_view text, FormPart& part) {
    bool in_type = false;  // which has parameters of its own
    while (!text.empty()) {
        text.remove_prefix(1);
        const std::string whole(text.substr(0, text.find(';')));
        text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
        const auto reads = [&](std::string_view key, std::string& value) {
            if (text.substr(0, key.size()) != key) return false;
            text.remove_prefix(key.size());
            value = takeWord(text);
            return true;
        };
        if (reads("type=", part.type)) {
            if (part.type.find('/') == std::string::npos) {
                throw std::runtime_error("'" + part.type + "' is no type");
            }
            in_type = true;
        } else if (reads("filename=", part.filename)) {
            part.has_filename = true;
            in_type = false;
        } else if (in_type) {
            part.type += ';' + boost::algorithm::trim_right_copy(whole);
            text.remove_prefix(std::min(text.find(';'), text.size()));
        } else if (!text.empty()) {
            throw std::runtime_error("';" + whole + "' is unknown; quote a value with ';' in it");
        }
    }
}

}  // namespace

FormPart formPart(const std::string& text) {
    const auto equals = text.find('=');
    if (equals == std::string::npos) throw std::runtime_error("'" + text + "' is not 'name=value'");
    FormPart part;
    part.name = text.substr(0, equals);
    std::string_view rest = std::string_view(text).substr(equals + 1);
    const char kind = rest.empty() ? ' ' : rest[0];
    if (kind == '@' || kind == '<') rest.remove_prefix(1);
    part.value = takeWord(rest);
    readModifiers(rest, part);
    if (part.type.find_first_of("\r\n") != std::string::npos) {
        throw std::runtime_error("a header is one line");
    }
    part.is_file = kind == '@' && part.value != "-";
    if (part.is_file) {
        checkReadable(part.value);
    } else if (kind == '@' || kind == '<') {
        if (kind == '@' && !part.has_filename) part.filename = "-";
        part.has_filename = part.has_filename || kind == '@';
        part.value = contentOf(part.value);
    }
    return part;
}

void addFormPart(curl_mime* form, const FormPart& part) {
    curl_mimepart* added = curl_mime_addpart(form);
    if (!part.name.empty()) curl_mime_name(added, part.name.c_str());
    if (part.is_file) {
        curl_mime_filedata(added, part.value.c_str());
    } else {
        curl_mime_data(added, part.value.data(), part.value.size());
    }
    if (part.has_filename) curl_mime_filename(added, part.filename.c_str());
    if (!part.type.empty()) curl_mime_type(added, part.type.c_str());
}

}  // namespace tool
