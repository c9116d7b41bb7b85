// TLS policies against real servers: who is delivered, who is refused, and that no connection made
// under one policy serves a transfer under another.

#include <gtest/gtest.h>
#include <openssl/ssl.h>

#include <boost/asio/ssl.hpp>
#include <set>

#include "Engine/redirect_rule.h"
#include "certificate/certificate.h"
#include "loopback/scripted_server.h"
#include "support/interposed_setopt.h"
#include "support/painted_stack.h"
#include "support/probe_request.h"
#include "support/servers.h"

namespace {

std::atomic<bool> without_isolation{false};

const std::set<int> isolating = {CURLOPT_SSL_OPTIONS,      CURLOPT_FRESH_CONNECT,
                                 CURLOPT_FORBID_REUSE,     CURLOPT_HTTP_VERSION,
                                 CURLOPT_CA_CACHE_TIMEOUT, CURLOPT_SSL_SESSIONID_CACHE};
std::atomic<int> tls_options{0};

std::atomic<int> verified{0};
std::string seen_data;

int accept(int, X509_STORE_CTX* context) {
    ++verified;
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

// The controls leave out the options that isolate policies.
bool test::passes(CURL*, const curl_easyoption& option, long, void*) {
    if (option.id == CURLOPT_SSL_OPTIONS) ++tls_options;
    return !without_isolation || isolating.count(option.id) == 0;
}

namespace test {
namespace {

using zel::http::RequestConfig;
using Verifier = int (*)(int, X509_STORE_CTX*);

const std::string refused = "<Protocol failure> SSL peer certificate or SSH remote key was not OK";
const std::string bad_hook = "<Protocol failure> A libcurl function was given a bad argument";

/// "200", or the whole text of anything else.
std::string brief(const std::string& outcome) {
    return outcome.rfind("200", 0) == 0 ? "200" : outcome;
}

RequestConfig policy(const std::string& line, Verifier verifier = nullptr) {
    RequestConfig config = requestOf(at(line));
    if (verifier != nullptr) config.verifier = verifier;
    return config;
}

TEST(Tls, PoliciesAgainstCertificates) {
    const std::string root = " --ca-file {dir}/root.pem";
    const std::string intermediate = " --ca-file {dir}/intermediate.pem";
    const std::string mine = " --cert {dir}/client.pem --key {dir}/client.key";
    struct Row {
        std::string line;
        Verifier verifier;
        std::string outcome;
    };
    const std::vector<Row> rows = {
        {"https://{good}/" + root, nullptr, "200 HTTP/2.0 TLSv1.3"},
        {"HTTPS://{good}/" + root, nullptr, "200 HTTP/2.0 TLSv1.3"},
        {"https://{good12}/" + root, nullptr, "200 TLSv1.2"},
        {"https://{good}/ --ca-dir {dir}/hashed", nullptr, "200 HTTP/2.0 TLSv1.3"},
        {"https://{good}/", nullptr, refused},
        {"https://{good}/ --ca-file {dir}/other_root.pem", nullptr, refused},
        {"https://{good}/" + intermediate, nullptr, refused},
        {"https://{good}/" + intermediate + " --partial-chain", nullptr, "200 HTTP/2.0 TLSv1.3"},
        {"https://{wrong_name}/" + root, nullptr, refused},
        {"https://{expired}/" + root, nullptr, refused},
        {"https://{self_signed}/" + root, nullptr, refused},
        {"https://{self_signed}/ --ca-file {dir}/self_signed.pem", nullptr, "200 self"},
        {"https://{self_signed}/ --insecure --partial-chain", nullptr, "200 self"},
        {"https://{wrong_name}/ --insecure", nullptr, "200 wrong_name"},
        {"http://{plain}/to-https", nullptr, refused},  // libcurl's own defaults
        {"https://{mutual}/" + root + mine, nullptr, "200 hello CN=client"},
        {"https://{mutual}/ --insecure" + mine, nullptr, "200 hello CN=client"},
        // A verifier has the last word, but not on the name.
        {"https://{good}/" + root, reject, refused},
        {"https://{good}/ --insecure", reject, refused},
        {"https://{good}/", accept, "200 HTTP/1.1 TLSv1.3"},
        {"https://{expired}/" + root, accept, "200 expired"},
        {"https://{expired}/" + root, keepVerdict, refused},
        {"https://{wrong_name}/" + root, accept, refused},
        {"https://{good}/" + intermediate, keepVerdict, refused},
        {"https://{good}/" + intermediate + " --partial-chain", keepVerdict,
         "200 HTTP/1.1 TLSv1.3"},
        {"https://{good}/" + intermediate + " --partial-chain", reject, refused},
    };
    Exchange exchange;
    for (const Row& row : rows) {
        verified = 0;
        EXPECT_EQ(exchange.perform(policy(row.line, row.verifier)), row.outcome) << row.line;
        if (row.verifier == keepVerdict) {
            EXPECT_GT(verified, 0) << row.line;
        }
    }
    RequestConfig config = policy("https://{good}/" + root, keepVerdict);
    config.verifier_data = "for the verifier";
    EXPECT_EQ(brief(exchange.perform(config)), "200");
    EXPECT_EQ(seen_data, "for the verifier");
    config.verifier = [&](int verdict, X509_STORE_CTX*) { return verdict; };
    EXPECT_EQ(exchange.perform(config), bad_hook);
    // An operator sees why; the caller's text stays libcurl's for the code.
    EXPECT_EQ(exchange.logger.lines("certificate has expired").size(), 2U);
    // A key that does not fit fails as such, and an encrypted one asks nobody for its pass phrase.
    for (const char* key : {"good.key", "client_encrypted.key"}) {
        EXPECT_EQ(exchange.perform(at("https://{mutual}/ --cert {dir}/client.pem --key {dir}/") +
                                   key + at(root)),
                  "<Protocol failure> Problem with the local SSL certificate")
            << key;
    }
    // No file at all is not the default bundle; a half or unreadable pair is no client certificate.
    config = policy("https://{good}/ --ca-file {dir}/root.pem");
    config.ca_file = "";
    EXPECT_NE(brief(exchange.perform(config)), "200");
    for (const char* key : {"", "/no/such/key"}) {
        config = policy("https://{mutual}/" + root + mine);
        config.own_pkey = key;
        EXPECT_EQ(exchange.perform(config).substr(0, 4), "400 ") << key;
    }
}

/// Each second request may not be served through what the first left behind: with the isolation it
/// is judged by its own policy, without it (the control) it is let through.
TEST(Tls, NoPolicyServesAnother) {
    const std::string root = " --ca-file {dir}/root.pem";
    const std::string other = " --ca-file {dir}/other_root.pem";
    const std::string intermediate = " --ca-file {dir}/intermediate.pem";
    const std::string both = " --ca-file {dir}/both.pem";
    struct Row {
        const char* what = "";
        RequestConfig first;
        RequestConfig second;
    };
    const Row rows[] = {
        {"kept alive, then a verifier", policy("https://{good}/" + root),
         policy("https://{good}/" + root, reject)},
        {"lenient verifier, then none", policy("https://{good}/" + other, accept),
         policy("https://{good}/" + other)},
        {"two verifiers", policy("https://{good}/" + other, accept),
         policy("https://{good}/" + other, reject)},
        {"partial chains, then none", policy("https://{good}/ --partial-chain" + intermediate),
         policy("https://{good}/" + intermediate)},
        {"a lenient verifier in use over HTTP/2",
         policy("https://{good}/slow/nginx.conf" + other, accept),
         policy("https://{good}/" + other)},
        {"a redirect to a connection of none", policy("https://{self_signed}/" + both),
         policy("https://{good}/to-self" + both, rejectSelfSigned)},
        {"a redirect to one of a lenient verifier", policy("https://{self_signed}/" + both, accept),
         policy("https://{good}/to-self" + both, rejectSelfSigned)},
        {"in use over HTTP/2", policy("https://{good}/slow/nginx.conf" + root),
         policy("https://{good}/" + root, reject)},
    };
    for (const bool control : {false, true}) {
        without_isolation = control;
        for (const Row& row : rows) {
            Exchange exchange;
            const auto first = std::make_shared<ProbeRequest>("");
            first->config = row.first;
            first->runRequest();
            const bool stays = row.first.url.find("slow") != std::string::npos;
            while (stays && first->received == 0) std::this_thread::yield();
            if (!stays) {
                EXPECT_EQ(first->outcome(), "200 end") << row.what;
            }
            EXPECT_EQ(brief(exchange.perform(row.second)), control ? "200" : refused) << row.what;
            if (control || stays) continue;
            EXPECT_EQ(brief(exchange.perform(row.first)), "200") << row.what << ", alternating";
            EXPECT_EQ(exchange.perform(row.second), refused) << row.what << ", alternating";
        }
    }
    without_isolation = false;
    // Nor does a TLS session, which libcurl resumes between transfers from 8.12 on.
    Exchange exchange;
    for (const auto& own :
         {policy("https://{good12}/reused" + root, keepVerdict),
          policy("https://{good12}/reused --partial-chain" + intermediate),
          policy("https://{good12}/reused --cert {dir}/client.pem --key {dir}/client.key" +
                 root)}) {
        for (int i = 0; i < 2; ++i) EXPECT_EQ(exchange.perform(own), "200 .");
    }
}

/// New connections go by what the file holds now, not by what libcurl keeps of it.
TEST(Tls, AuthoritiesThatChangeCountAtOnce) {
    const std::string file = serverFile("changing.pem");
    Exchange exchange;
    const auto trusting = [&](const std::string& authorities) {
        std::ofstream(file) << contentOf(serverFile(authorities));
        return brief(exchange.perform(at("https://{good12}/ --ca-file ") + file));
    };
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(trusting("root.pem"), "200");
        EXPECT_EQ(trusting("other_root.pem"), refused);
    }
}

/// A body without a length is whole only when TLS says that it ends there.
TEST(Tls, AnEndWithoutItsWordIsATruncation) {
    boost::asio::ssl::context context(boost::asio::ssl::context::tls_server);
    context.use_certificate_chain_file(serverFile("good.pem"));
    context.use_private_key_file(serverFile("good.key"), boost::asio::ssl::context::pem);
    std::string fields;
    bool orderly = false;
    const loopback::ScriptedServer server([&](loopback::Socket& socket) {
        boost::system::error_code ignored;
        boost::asio::ssl::stream<loopback::Socket&> tls(socket, context);
        std::string request;
        tls.handshake(boost::asio::ssl::stream_base::server, ignored);
        boost::asio::read_until(tls, boost::asio::dynamic_buffer(request), "\r\n\r\n", ignored);
        boost::asio::write(tls, boost::asio::buffer("HTTP/1.1 200 OK\r\n" + fields + "\r\nbody"),
                           ignored);
        if (orderly) tls.shutdown(ignored);
    });
    Exchange exchange;
    const auto outcome = [&] {
        return exchange.perform(at("--ca-file {dir}/root.pem https://") + server.authority());
    };
    EXPECT_NE(outcome().substr(0, 4), "200 ");
    orderly = true;
    EXPECT_EQ(outcome(), "200 body");
    orderly = false;
    fields = "Content-Length: 4\r\n";
    EXPECT_EQ(outcome(), "200 body");
}

/// What replaces the TLS step keeps what it set.
TEST(Tls, ADerivedEnginesOwnStepStands) {
    class OwnStep : public zel::http::Engine {
    public:
        using Engine::Engine;
        OwnStep(const OwnStep&) = delete;
        OwnStep& operator=(const OwnStep&) = delete;
        ~OwnStep() override { stop(); }
        void addTlsConfig(void* curl, std::shared_ptr<zel::http::Request>) override {
            curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
            curl_easy_setopt(curl, CURLOPT_SSL_OPTIONS, 0L);
        }
    };
    loopback::RecordingLogger logger;
    const OwnStep engine([](const auto& closure) { closure(); }, &logger);
    tls_options = 0;
    EXPECT_EQ(probe(at("https://{good}/"))->runToOutcome(), "200 end");
    EXPECT_EQ(tls_options, 1);
}

TEST(Tls, HandshakeLeavesThreeQuartersOfTheStack) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's frames are larger, and it objects to the painting";
#endif
    const std::string all = contentOf("/etc/ssl/certs/ca-certificates.crt");
    ASSERT_GT(all.size(), 100'000U);
    std::ofstream(serverFile("bundle.pem")) << all << contentOf(serverFile("root.pem"));
    Exchange exchange;
    PaintedStack stack;
    exchange.engine.queueRequest([&] { stack.paint(); });
    EXPECT_EQ(exchange.perform(at("https://{good}/ --ca-file {dir}/bundle.pem")),
              "200 HTTP/2.0 TLSv1.3");
    std::size_t used = 0;
    exchange.engine.queueRequest([&] { used = stack.used(); });
    exchange.settle();
    EXPECT_LT(used, 64U * 1024);
}

/// The server tells what came along: nothing that belongs to the first origin alone.
TEST(Tls, NothingFollowsToAnotherOrigin) {
    Exchange exchange;
    EXPECT_EQ(
        exchange.perform(at("https://{mutual}/away --ca-file {dir}/root.pem -u me:secret --basic "
                            "--cert {dir}/client.pem --key {dir}/client.key -H Cookie:a=b")),
        "200 client NONE");
    const std::string seen = "GET /seen client=NONE auth=- cookie=-\n";
    const std::string log = logWith(seen, "nginx.access");
    EXPECT_NE(log.find(seen), std::string::npos) << log;
    // What leads away, and what does not.
    const std::pair<const char*, bool> rows[] = {
        {"Location: /path\r\n", false},
        {"location: https://a.b/\r\n", false},
        {"Location:/a b\n", false},
        {"LOCATION: //A.B:443/x\n", false},
        {"Location: HTTPS://u@a.b/", false},
        {"Location: c", false},
        {"Location: http://a.b/\n", true},
        {"Location: https://a.b:444/", true},
        {"Location: //c/", true},
        {"Location: https://b.a.b/\r\n", true},
        {"Location: https:/c/\n", true},
        {"Location: https://[c/", true},
    };
    for (const auto& [line, leaves] : rows) {
        EXPECT_EQ(zel::http::leavesOrigin("https://a.b/start", zel::http::locationOf(line)), leaves)
            << line;
    }
}

}  // namespace
}  // namespace test
