// TLS policies against real servers: who is delivered, who is refused, and that no connection made
// under one policy serves a transfer under another.

#include <openssl/ssl.h>

#include <boost/asio/ssl.hpp>
#include <cstdlib>

#include "certificate/certificate.h"
#include "support/servers.h"

namespace {

std::atomic<int> verified{0};
std::string seen_data;

int accept(int, X509_STORE_CTX* context) {
    X509_STORE_CTX_set_error(context, X509_V_OK);
    return 1;
}
int reject(int, X509_STORE_CTX*) { return 0; }
/// Knows the one certificate that signs itself, and lets nobody in who shows it.
int rejectSelfSigned(int verdict, X509_STORE_CTX* context) {
    const X509* certificate = X509_STORE_CTX_get_current_cert(context);
    const bool self =
        X509_NAME_cmp(X509_get_subject_name(certificate), X509_get_issuer_name(certificate)) == 0;
    return self && X509_STORE_CTX_get_error_depth(context) == 0 ? 0 : verdict;
}
int keepVerdict(int verdict, X509_STORE_CTX* context) {
    ++verified;
    auto* ssl = static_cast<SSL*>(
        X509_STORE_CTX_get_ex_data(context, SSL_get_ex_data_X509_STORE_CTX_idx()));
    const void* data = SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), certificate::sslctx_data_index());
    seen_data = data == nullptr ? "none" : static_cast<const char*>(data);
    return verdict;
}

}  // namespace

namespace test {

using Tls = EngineTest;
using Verifier = int (*)(int, X509_STORE_CTX*);

const std::string refused = "<Protocol failure> SSL peer certificate or SSH remote key was not OK";
const std::string http2 = "200 HTTP/2.0 TLSv1.3";

/// A request under a policy of its own; names of files are those of the servers.
class Policy : public Get {
public:
    explicit Policy(const std::string& url) : Get(at(url)) {}
    Policy& root(const std::string& file) { return trusting(serverFile(file)), *this; }
    Policy& mine(const std::string& key = "client.key") {
        return identity(serverFile("client.pem"), serverFile(key)), *this;
    }
    Policy& insecure() { return set(&RequestConfig::tls_verify, false), *this; }
    Policy& partial() { return set(&RequestConfig::tls_partial_chain, true), *this; }
    Policy& by(Verifier verify) { return set(&RequestConfig::verifier, verify), *this; }
};

Policy good() { return Policy("https://{good}/"); }
Policy expired() { return Policy("https://{expired}/"); }
Policy wrongName() { return Policy("https://{wrong_name}/"); }
Policy selfSigned() { return Policy("https://{self_signed}/"); }
Policy mutual() { return Policy("https://{mutual}/"); }

struct Row {
    Policy policy;
    std::string outcome;
};

TEST_F(Tls, PoliciesAgainstCertificates) {
    const std::string root = "root.pem";
    const std::string between = "intermediate.pem";
    const std::string with_client = "200 hello CN=client";
    const Row rows[] = {
        {good().root(root), http2},
        {Policy("HTTPS://{good}/").root(root), http2},
        {Policy("https://{good12}/").root(root), "200 TLSv1.2"},
        {good().root("other_root.pem"), refused},
        {good().root(between), refused},
        {good().root(between).partial(), http2},
        {wrongName().root(root), refused},
        {expired().root(root), refused},
        {selfSigned().root(root), refused},
        {selfSigned().root("self_signed.pem"), "200 self"},
        {selfSigned().insecure().partial(), "200 self"},
        {wrongName().insecure(), "200 wrong_name"},
        {Policy("http://{plain}/to-https"), refused},  // libcurl's own defaults
        {mutual().root(root).mine(), with_client},
        {mutual().insecure().mine(), with_client},
        {Policy("https://{mutual}/back").root(root).mine(), with_client},
        // A key that does not fit fails as such; an encrypted one asks nobody for its pass phrase.
        {mutual().root(root).mine("good.key"),
         "<Protocol failure> Problem with the local SSL certificate"},
        {mutual().root(root).mine("client_encrypted.key"),
         "<Protocol failure> Problem with the local SSL certificate"},
        // A verifier has the last word, but not on the name.
        {good().root(root).by(reject), refused},
        {good().insecure().by(reject), refused},
        {good().by(accept), "200 HTTP/1.1 TLSv1.3"},
        {expired().root(root).by(accept), "200 expired"},
        {expired().root(root).by(keepVerdict), refused},
        {wrongName().root(root).by(accept), refused},
        {good().root(between).by(keepVerdict), refused},
        {good().root(between).partial().by(keepVerdict), "200 HTTP/1.1 TLSv1.3"},
        {good().root(between).partial().by(reject), refused},
    };
    for (const Row& row : rows) EXPECT_EQ(outcomeOf(row.policy), row.outcome) << row.policy;
    EXPECT_GT(verified, 0);
    // An operator sees why; the caller's text stays libcurl's for the code.
    EXPECT_EQ(logger.lines("certificate has expired").size(), 2U);
    // A half or unreadable pair is no client certificate.
    for (const char* key : {"", "/no/such/key"}) {
        auto half = mutual().root(root).mine();
        half.own_pkey = key;
        EXPECT_EQ(outcomeOf(half).substr(0, 4), "400 ") << key;
    }
}

/// A caller that names no authorities trusts the environment's, or else the system's.
TEST_F(Tls, AuthoritiesThatNobodyNames) {
#ifdef ZEL_HTTP_BUNDLED_PLATFORM
    for (const auto& [file, outcome] :
         {std::pair("root.pem", http2), {"other_root.pem", refused}, {"missing.pem", refused}}) {
        setenv("SSL_CERT_FILE", serverFile(file).c_str(), 1);
        startEngine();
        EXPECT_EQ(outcomeOf(good()), outcome) << file;
    }
    unsetenv("SSL_CERT_FILE");
#endif
    EXPECT_EQ(outcomeOf(good()), refused);
    EXPECT_EQ(outcomeOf(good().set(&RequestConfig::ca_dir, serverFile("hashed"))), http2);
    // No file at all is not the default bundle.
    EXPECT_NE(outcomeOf(good().trusting("")), http2);
}

TEST_F(Tls, AVerifierIsAPlainFunctionWithItsData) {
    auto policy = good().root("root.pem").by(keepVerdict);
    policy.verifier_data = "for the verifier";
    EXPECT_EQ(outcomeOf(policy), "200 HTTP/1.1 TLSv1.3");
    EXPECT_EQ(seen_data, "for the verifier");
    policy.verifier_data.reset();
    outcomeOf(policy);
    EXPECT_EQ(seen_data, "none");
    policy.verifier = [&](int verdict, X509_STORE_CTX*) { return verdict; };
    EXPECT_EQ(outcomeOf(policy), "<Protocol failure> A libcurl function was given a bad argument");
}

/// Each second request is judged by its own policy, whatever the first has left behind.
TEST_F(Tls, NoPolicyServesAnother) {
    const std::string other = "other_root.pem";
    const auto slow = [] { return Policy("https://{good}/slow/nginx.conf"); };
    const auto redirected = [] { return Policy("https://{good}/to-self").root("both.pem"); };
    struct Pair {
        const char* what;
        Policy first;
        Policy second;
    };
    const Pair pairs[] = {
        {"kept alive, then a verifier", good().root("root.pem"),
         good().root("root.pem").by(reject)},
        {"lenient verifier, then none", good().root(other).by(accept), good().root(other)},
        {"two verifiers", good().root(other).by(accept), good().root(other).by(reject)},
        {"partial chains, then none", good().root("intermediate.pem").partial(),
         good().root("intermediate.pem")},
        {"in use by a lenient verifier", slow().root(other).by(accept), good().root(other)},
        {"in use over HTTP/2", slow().root("root.pem"), good().root("root.pem").by(reject)},
        {"a redirect to a connection of none", selfSigned().root("both.pem"),
         redirected().by(rejectSelfSigned)},
        {"a redirect to one of a lenient verifier", selfSigned().root("both.pem").by(accept),
         redirected().by(rejectSelfSigned)},
        {"without verification, then with it", good().insecure(), good().root(other)},
        {"a key that fits, then another", mutual().root("root.pem").mine(),
         mutual().root("root.pem").mine("good.key")},
    };
    for (const Pair& pair : pairs) {
        startEngine();
        const auto first = hostRequest(pair.first);
        first->runRequest();
        const bool in_use = pair.first.url.find("slow") != std::string::npos;
        waitFor("the first", [&] { return in_use ? first->received > 0 : first->outcomes > 0; });
        EXPECT_EQ(outcomeOf(pair.second)[0], '<') << pair.what;
        if (in_use) continue;
        EXPECT_EQ(outcomeOf(pair.first).substr(0, 3), "200") << pair.what << ", alternating";
        EXPECT_EQ(outcomeOf(pair.second)[0], '<') << pair.what << ", alternating";
    }
    // Nor does a TLS session, which libcurl resumes between transfers from 8.12 on.
    startEngine();
    const auto reused = [] { return Policy("https://{good12}/reused"); };
    for (const auto& own :
         {reused().root("root.pem").by(keepVerdict), reused().root("intermediate.pem").partial(),
          reused().root("root.pem").mine()}) {
        for (int i = 0; i < 2; ++i) EXPECT_EQ(outcomeOf(own), "200 .");
    }
}

/// New connections go by what the file holds now, not by what libcurl keeps of it.
TEST_F(Tls, AuthoritiesThatChangeCountAtOnce) {
    const auto trusting = [&](const std::string& authorities) {
        std::ofstream(serverFile("changing.pem")) << contentOf(authorities);
        return outcomeOf(Policy("https://{good12}/").root("changing.pem"));
    };
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(trusting("root.pem"), "200 TLSv1.2");
        EXPECT_EQ(trusting("other_root.pem"), refused);
    }
}

/// A body without a length is whole only when TLS says that it ends there.
TEST_F(Tls, AnEndWithoutCloseNotifyIsATruncation) {
    boost::asio::ssl::context context(boost::asio::ssl::context::tls_server);
    context.use_certificate_chain_file(serverFile("good.pem"));
    context.use_private_key_file(serverFile("good.key"), boost::asio::ssl::context::pem);
    std::string answer;
    bool orderly = false;
    const ScriptedServer server([&](Socket& socket) {
        boost::system::error_code ignored;
        boost::asio::ssl::stream<Socket&> tls(socket, context);
        std::string request;
        tls.handshake(boost::asio::ssl::stream_base::server, ignored);
        boost::asio::read_until(tls, boost::asio::dynamic_buffer(request), "\r\n\r\n", ignored);
        boost::asio::write(tls, boost::asio::buffer("HTTP/1.1 " + answer), ignored);
        if (orderly) tls.shutdown(ignored);
    });
    struct End {
        const char* answer;
        bool orderly, whole;
    };
    for (const End& row :
         {End{"200 OK\r\n\r\nbody", false, false}, End{"200 OK\r\n\r\nbody", true, true},
          End{"200 OK\r\nContent-Length: 4\r\n\r\nbody", false, true},
          End{"200 OK\r\nTransfer-Encoding: chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n", false, true},
          End{"204 No\r\n\r\n", false, true}}) {
        answer = row.answer;
        orderly = row.orderly;
        const auto outcome = outcomeOf(Policy("https://" + server.authority()).root("root.pem"));
        EXPECT_EQ(outcome[0] == '2', row.whole) << row.answer << outcome;
    }
}

/// A host's engine that replaces the TLS step keeps what that sets.
TEST_F(Tls, ADerivedEnginesOwnStepStands) {
    class OwnStep : public zel::http::Engine {
    public:
        using Engine::Engine;
        OwnStep(const OwnStep&) = delete;
        OwnStep& operator=(const OwnStep&) = delete;
        ~OwnStep() override { stop(); }
        void addTlsConfig(void* curl, std::shared_ptr<zel::http::Request>) override {
            curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
            curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
        }
    };
    startDerived<OwnStep>();
    EXPECT_EQ(outcomeOf(good().by(reject)), "200 HTTP/1.1 TLSv1.3");
}

/// The server tells what came along: nothing that belongs to the first origin alone.
TEST_F(Tls, NothingFollowsToAnotherOrigin) {
    auto away = Policy("https://{mutual}/away").root("root.pem").mine();
    away.login("me", "secret").header("Cookie", "a=b");
    away.auth_method = zel::http::AuthMethod::BASIC;
    EXPECT_EQ(outcomeOf(away), "200 client NONE");
    logWith("GET /seen client=NONE auth=- cookie=-\n", "nginx.access");
}

}  // namespace test
