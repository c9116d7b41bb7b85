#pragma once

#include <string>

#include "oru/export.h"

namespace uri {

/// A parsed URI.
class ORU_EXPORT uri {
public:
    /// If `text` cannot be parsed, the parts of the URI are empty.
    explicit uri(const std::string& text);

    /// The host, without user, password and port: "a.b" for "http://u:p@a.b:80/". An IPv6 address
    /// keeps its brackets.
    std::string authority_host() const { return host_; }

private:
    std::string host_;
};

}  // namespace uri
