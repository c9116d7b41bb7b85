#pragma once

#include <string>

#include "oru/export.h"

/// The device's certificate store. Any thread.
namespace certificate {

/// Whether the bundle of trusted authorities called `name` exists and can be read. The library
/// asks for one name, "default".
ORU_EXPORT bool ca_pem_exists(const std::string& name);

/// The path of that bundle, a PEM file; empty when there is none.
ORU_EXPORT std::string ca_path(const std::string& name);

/// The index of the `SSL_CTX` ex-data slot that holds the data of a certificate verifier: the same
/// for the life of the process, -1 when OpenSSL grants none.
ORU_EXPORT int sslctx_data_index();

}  // namespace certificate
