#pragma once

#include <string>

#include "oru/export.h"

/// The device's certificate store. Any thread.
namespace certificate {

/// Whether there is a readable file of trusted authorities (a bundle) for `name`. The library
/// only asks for "default".
ORU_EXPORT bool ca_pem_exists(const std::string& name);

/// The path of that file, which is a PEM file. Empty when there is none.
ORU_EXPORT std::string ca_path(const std::string& name);

/// The index under which an `SSL_CTX` holds the data of a verifier
/// (`RequestConfig::verifier_data`): a verifier gives it to `SSL_CTX_get_ex_data`. It is the same
/// until the process ends. It is -1 when OpenSSL has none left.
ORU_EXPORT int sslctx_data_index();

}  // namespace certificate
