#include "form.h"

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "body.h"
#include "text.h"

namespace tool {
namespace {

using boost::algorithm::iequals;
using boost::algorithm::istarts_with;

/// Those of a file. A comment begins with '#', and with a blank what goes on with a line.
std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        boost::algorithm::trim_right(line);
        if (line.empty() || line[0] == '#') continue;
        if (!lines.empty() && (line[0] == ' ' || line[0] == '\t')) {
            lines.back() += line;
        } else {
            lines.push_back(line);
        }
    }
    return lines;
}

/// Reads one content after the other.
class ContentReader {
public:
    /// `ends` are the letters that end a word: ';' and, between files, ','.
    ContentReader(std::string_view text, std::string_view ends) : rest_(text), ends_(ends) {}

    FormPart::Content next() {
        FormPart::Content content;
        content.value = word();
        bool in_type = false;
        while (!rest_.empty() && rest_[0] == ';') {
            const std::string_view separator = cutSeparator();
            if (!in_type && cut("type=")) {
                content.type = cutType();
                in_type = true;
            } else if (cut("filename=")) {
                content.filename = word();
                in_type = false;
            } else if (cut("encoder=")) {
                content.encoder = checkedEncoder(word());
                in_type = false;
            } else if (cut("headers=")) {
                addHeaders(content.headers);
                in_type = false;
            } else if (in_type) {  // "text/plain; charset=utf-8"
                content.type.append(separator).append(plainWord());
            } else if (!word().empty()) {
                throw std::runtime_error("a value with ';' stands in quotes");
            }
        }
        checkOneLine(content.type);
        for (const auto& line : content.headers) checkOneLine(line);
        return content;
    }

    /// Whether another file follows.
    bool nextFollows() { return cut(','); }

private:
    void skipBlanks() {
        rest_.remove_prefix(std::min(rest_.find_first_not_of(" \t"), rest_.size()));
    }

    /// With the blanks behind it.
    std::string_view cutSeparator() {
        const std::string_view text = rest_;
        rest_.remove_prefix(1);
        skipBlanks();
        return text.substr(0, text.size() - rest_.size());
    }

    bool cut(char letter) {
        if (rest_.empty() || rest_[0] != letter) return false;
        rest_.remove_prefix(1);
        return true;
    }

    bool cut(std::string_view key) {
        if (!istarts_with(rest_, key)) return false;
        rest_.remove_prefix(key.size());
        return true;
    }

    std::string word() {
        skipBlanks();
        return cut('"') ? quotedWord() : plainWord();
    }

    std::string plainWord() {
        const auto end = std::min(rest_.find_first_of(ends_), rest_.size());
        std::string word(rest_.substr(0, end));
        rest_.remove_prefix(end);
        boost::algorithm::trim_right(word);
        return word;
    }

    std::string quotedWord() {
        std::string word;
        while (!rest_.empty() && rest_[0] != '"') {
            const bool escapes = rest_[0] == '\\' && rest_.size() > 1;
            if (escapes && (rest_[1] == '"' || rest_[1] == '\\')) rest_.remove_prefix(1);
            word += rest_[0];
            rest_.remove_prefix(1);
        }
        if (!cut('"')) throw std::runtime_error("a quote does not end");
        plainWord();  // what stands between the quote and the next separator means nothing
        return word;
    }

    std::string cutType() {
        skipBlanks();
        std::string type = plainWord();
        const auto slash = type.find('/');
        if (slash == 0 || slash == std::string::npos || slash + 1 == type.size()) {
            throw std::runtime_error("'" + type + "' is not a type");
        }
        return type;
    }

    static std::string checkedEncoder(std::string name) {
        for (const char* known : {"binary", "8bit", "7bit", "base64", "quoted-printable"}) {
            if (iequals(name, known)) return name;
        }
        throw std::runtime_error("'" + name + "' is not an encoder");
    }

    void addHeaders(std::vector<std::string>& headers) {
        skipBlanks();
        if (cut('@') || cut('<')) {
            for (auto& line : linesOf(contentOf(word()))) headers.push_back(std::move(line));
        } else {
            headers.push_back(word());
        }
    }

    std::string_view rest_;
    std::string_view ends_;
};

/// Standard input is read once, however often the form is sent.
void readInput(FormPart::Content& content) {
    content.value = contentOf("-");
    if (content.kind == FormPart::Content::File && !content.filename) content.filename = "-";
    content.kind = FormPart::Content::Text;
}

void setContent(curl_mimepart* part, const FormPart::Content& content) {
    if (content.kind == FormPart::Content::Text) {
        curl_mime_data(part, content.value.data(), content.value.size());
    } else {
        curl_mime_filedata(part, content.value.c_str());
        if (content.kind == FormPart::Content::TextOfFile) curl_mime_filename(part, nullptr);
    }
    if (content.filename) curl_mime_filename(part, content.filename->c_str());
    if (!content.type.empty()) curl_mime_type(part, content.type.c_str());
    if (!content.encoder.empty()) curl_mime_encoder(part, content.encoder.c_str());
    curl_slist* headers = nullptr;
    for (const auto& line : content.headers) headers = curl_slist_append(headers, line.c_str());
    if (headers != nullptr) curl_mime_headers(part, headers, 1);
}

FormPart::Content::Kind kindOf(const std::string& value) {
    switch (value.empty() ? '\0' : value[0]) {
        case '@':
            return FormPart::Content::File;
        case '<':
            return FormPart::Content::TextOfFile;
        case '(':
            throw std::runtime_error("a form within a form is not here");
        default:
            return FormPart::Content::Text;
    }
}

}  // namespace

FormPart parseFormPart(const std::string& text) {
    const auto equals = text.find('=');
    if (equals == std::string::npos) {
        throw std::runtime_error("a part is 'name=value'");
    }
    FormPart part;
    part.name = text.substr(0, equals);
    const std::string value = text.substr(equals + 1);
    const auto kind = kindOf(value);
    const bool named = kind != FormPart::Content::Text;  // by a path
    ContentReader reader(std::string_view(value).substr(named ? 1 : 0),
                         kind == FormPart::Content::File ? ";," : ";");
    do {
        part.contents.push_back(reader.next());
        auto& content = part.contents.back();
        content.kind = kind;
        if (named && content.value == "-") {
            readInput(content);
        } else if (named) {
            checkReadable(content.value);
        }
    } while (reader.nextFollows());
    return part;
}

void addFormPart(CURL* easy, curl_mime* form, const FormPart& part) {
    curl_mimepart* added = curl_mime_addpart(form);
    if (!part.name.empty()) curl_mime_name(added, part.name.c_str());
    if (part.contents.size() == 1) {
        setContent(added, part.contents.front());
        return;
    }
    curl_mime* files = curl_mime_init(easy);
    for (const auto& content : part.contents) setContent(curl_mime_addpart(files), content);
    curl_mime_subparts(added, files);
}

}  // namespace tool
