#pragma once

#include <string>

namespace loopback {

/// Certificates for one run: PEM files in a temporary directory, which the destructor removes. The
/// authorities "root", "other_root" and, of the root, "intermediate"; of that the servers "local"
/// (for localhost and 127.0.0.1), "elsewhere" and "expired", each with its chain; "self_signed"; of
/// the root a "client". Each NAME.pem has its NAME.key beside it; client_encrypted.key is the
/// client's under a pass phrase. Throws when OpenSSL or the file system fails.
class Certificates {
public:
    Certificates();
    Certificates(const Certificates&) = delete;
    Certificates& operator=(const Certificates&) = delete;
    ~Certificates();

    std::string file(const std::string& name) const { return directory_ + "/" + name; }

private:
    std::string directory_;
};

}  // namespace loopback
