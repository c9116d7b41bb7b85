#pragma once

#include <curl/curl.h>

#include <string>
#include <string_view>

namespace tool {

/// Lets a transfer tell on standard error what it sends ("> "), receives ("< ") and does ("* "),
/// bodies aside. Without `shows_secrets` credentials and cookies are left out.
void tellConversation(CURL* easy, bool shows_secrets);

/// A header line without its secret: "Authorization: ***".
std::string withoutSecret(std::string_view line);

}  // namespace tool
