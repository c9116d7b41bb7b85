#pragma once

#include <openssl/evp.h>

#include <array>
#include <memory>
#include <new>
#include <string>

namespace zel::http {

/// A SHA-256 that is computed as bytes come.
class Digest {
public:
    Digest() : context_(EVP_MD_CTX_new()) {
        if (!context_) throw std::bad_alloc();
        restart();
    }

    void restart() { check(EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr)); }
    void update(const char* data, std::size_t size) {
        check(EVP_DigestUpdate(context_.get(), data, size));
    }
    /// In lower-case hexadecimal digits; ends the computation.
    std::string hex() {
        std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
        unsigned length = 0;
        check(EVP_DigestFinal_ex(context_.get(), bytes.data(), &length));
        std::string text;
        for (unsigned i = 0; i < length; ++i) {
            constexpr const char* digits = "0123456789abcdef";
            text += digits[bytes.at(i) >> 4U];
            text += digits[bytes.at(i) & 15U];
        }
        return text;
    }

private:
    /// Fails only for want of memory.
    static void check(int done) {
        if (done != 1) throw std::bad_alloc();
    }
    struct Free {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, Free> context_;
};

}  // namespace zel::http
