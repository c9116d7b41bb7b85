#pragma once

#include <optional>
#include <string>

namespace tool {

struct Credentials {
    std::string user;
    std::string password;
};

/// Reads "user:password"; the password is empty without a colon. Throws `std::runtime_error` when
/// there is no user.
Credentials credentialsOf(const std::string& text);

/// Where user, password and host of a URL begin, behind the scheme if it has one. libcurl takes
/// more than two slashes, too.
std::size_t hostOf(const std::string& url);

/// Takes "user:password@" out of a URL: nothing that prints the URL is to tell them.
std::optional<Credentials> takeCredentials(std::string& url);

}  // namespace tool
