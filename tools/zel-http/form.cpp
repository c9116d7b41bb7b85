#include "form.h"

#include <stdexcept>

#include "body.h"

namespace tool {
namespace {

struct Part {
    std::string name;
    std::string value;
    char kind = '=';  ///< '@': of a file, as a file; '<': of a file, as text
    std::string type;
    std::string filename;
};

/// Cuts ";key=value" off the end of `text`, and returns the value.
std::string cutModifier(std::string& text, const std::string& key) {
    const auto at = text.find(';' + key + '=');
    if (at == std::string::npos) return {};
    const auto begin = at + key.size() + 2;
    const auto end = text.find(';', begin);
    std::string value = text.substr(begin, end - begin);
    text.erase(at, end == std::string::npos ? end : end - at);
    return value;
}

Part parse(const std::string& text) {
    Part part;
    const auto equals = text.find('=');
    part.name = text.substr(0, equals);
    if (equals == std::string::npos) return part;
    part.value = text.substr(equals + 1);
    part.type = cutModifier(part.value, "type");
    part.filename = cutModifier(part.value, "filename");
    if (!part.value.empty() && (part.value[0] == '@' || part.value[0] == '<')) {
        part.kind = part.value[0];
        part.value.erase(0, 1);
    }
    return part;
}

}  // namespace

void checkFormPart(const std::string& text) {
    if (text.find('=') == std::string::npos) {
        throw std::runtime_error("'" + text + "' is not 'name=value'");
    }
    const Part part = parse(text);
    if (part.kind != '=') checkReadable(part.value);
}

void addFormPart(curl_mime* form, const std::string& text) {
    const Part parsed = parse(text);
    curl_mimepart* part = curl_mime_addpart(form);
    curl_mime_name(part, parsed.name.c_str());
    if (parsed.kind == '=') {
        curl_mime_data(part, parsed.value.data(), parsed.value.size());
    } else {
        curl_mime_filedata(part, parsed.value.c_str());
        if (parsed.kind == '<') curl_mime_filename(part, nullptr);
    }
    if (!parsed.filename.empty()) curl_mime_filename(part, parsed.filename.c_str());
    if (!parsed.type.empty()) curl_mime_type(part, parsed.type.c_str());
}

}  // namespace tool
