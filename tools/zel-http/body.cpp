#include "body.h"

#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/replace.hpp>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>

namespace tool {
namespace {

std::string readAll(std::istream& stream, const std::string& name) {
    std::string text{std::istreambuf_iterator<char>(stream), {}};
    if (stream.bad()) throw UnreadableFile("cannot read " + name);
    return text;
}

std::string textOf(const DataPiece& piece) {
    const std::string& value = piece.value;
    if (piece.kind == DataPiece::UrlEncoded) return urlEncoded(value);
    if (piece.kind == DataPiece::Raw || value.empty() || value[0] != '@') return value;
    std::string text = contentOf(value.substr(1));
    if (piece.kind == DataPiece::Text) {
        const auto dropped = boost::algorithm::is_any_of(std::string("\r\n\0", 3));
        text.erase(std::remove_if(text.begin(), text.end(), dropped), text.end());
    }
    return text;
}

}  // namespace

std::string escaped(const std::string& text) {
    const std::unique_ptr<char, decltype(&curl_free)> copy(
        curl_easy_escape(nullptr, text.data(), static_cast<int>(text.size())), curl_free);
    return copy ? copy.get() : "";
}

void checkReadable(const std::string& path) {
    if (access(path.c_str(), R_OK) != 0) throw UnreadableFile("cannot open " + path);
    if (std::filesystem::is_directory(path)) throw UnreadableFile(path + " is a directory");
}

std::string contentOf(const std::string& path) {
    if (path == "-") return readAll(std::cin, "standard input");
    checkReadable(path);
    std::ifstream file(path, std::ios::binary);
    return readAll(file, path);
}

std::string joined(const std::vector<DataPiece>& pieces) {
    std::string body;
    for (const DataPiece& piece : pieces) {
        if (&piece != &pieces.front()) body += '&';
        body += textOf(piece);
    }
    return body;
}

std::string urlEncoded(const std::string& text) {
    const auto equals = text.find('=');
    const auto mark = equals != std::string::npos ? equals : text.find('@');
    const auto encoded = [](const std::string& plain) {
        return boost::algorithm::replace_all_copy(escaped(plain), "%20", "+");
    };
    if (mark == std::string::npos) return encoded(text);
    const std::string key = text.substr(0, mark);
    const std::string rest = text.substr(mark + 1);
    const std::string value = text[mark] == '@' ? contentOf(rest) : rest;
    return key + (key.empty() ? "" : "=") + encoded(value);
}

}  // namespace tool
