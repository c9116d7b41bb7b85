#include "conversation.h"

#include <algorithm>
#include <array>
#include <boost/algorithm/string/predicate.hpp>
#include <cstdio>

#include "text.h"

namespace tool {
namespace {

using boost::algorithm::icontains;

/// What the names of header fields have in them whose values are secrets.
constexpr std::array<std::string_view, 8> secret_words = {
    "authorization", "cookie", "token", "secret", "password", "session", "api-key", "apikey"};

bool beginsWithSecret(std::string_view line) {
    const std::string_view name = line.substr(0, line.find(':'));
    return name.size() != line.size() && name.find(' ') == std::string_view::npos &&
           std::any_of(secret_words.begin(), secret_words.end(),
                       [&](std::string_view word) { return icontains(name, word); });
}

/// What libcurl says about a transfer repeats header fields, with HTTP/2 as "[name: value]", names
/// users, and repeats the proxy of the environment, "user:password@host".
bool mayTellSecret(std::string_view text) {
    for (auto at = text.find('['); at != std::string_view::npos; at = text.find('[', at + 1)) {
        if (beginsWithSecret(text.substr(at + 1))) return true;
    }
    const bool has_scheme = text.find("://") != std::string_view::npos;
    if (!has_scheme && icontains(text, "proxy") && icontains(text, "@")) return true;
    constexpr std::array<std::string_view, 3> words = {"authorization", "cookie", "user '"};
    return std::any_of(words.begin(), words.end(),
                       [&](std::string_view word) { return icontains(text, word); });
}

void print(char mark, std::string_view lines, bool shows_secrets) {
    std::string text;
    while (!lines.empty()) {
        const auto end = lines.find('\n');
        std::string_view line = lines.substr(0, end);
        lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
        if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (!shows_secrets && mark == '*' && mayTellSecret(line)) continue;
        const bool continues = mark != '*' && !line.empty() && (line[0] == ' ' || line[0] == '\t');
        text.append({mark, ' '});
        if (shows_secrets) {
            text += line;
        } else {
            text += continues ? " ***" : withoutSecret(line);  // a field that is folded
        }
        text += '\n';
    }
    (void)std::fwrite(text.data(), 1, text.size(), stderr);
}

template <bool ShowsSecrets>
int tell(CURL* /*easy*/, curl_infotype type, char* data, std::size_t size,
         void* /*user*/) noexcept {
    const std::string_view text(data, size);
    if (type == CURLINFO_TEXT) print('*', text, ShowsSecrets);
    if (type == CURLINFO_HEADER_IN) print('<', text, ShowsSecrets);
    if (type == CURLINFO_HEADER_OUT) print('>', text, ShowsSecrets);
    return 0;
}

}  // namespace

std::string withoutSecret(std::string_view line) {
    if (!beginsWithSecret(line)) return withoutCredentials(std::string(line));
    return std::string(line.substr(0, line.find(':'))) + ": ***";
}

void tellConversation(CURL* easy, bool shows_secrets) {
    const curl_debug_callback callback = shows_secrets ? tell<true> : tell<false>;
    curl_easy_setopt(easy, CURLOPT_DEBUGFUNCTION, callback);
    curl_easy_setopt(easy, CURLOPT_VERBOSE, 1L);
}

}  // namespace tool
