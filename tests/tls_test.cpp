// TLS policies against real servers: who is delivered, who is refused, and that no connection made
// under one policy serves a transfer under another.

#include <openssl/ssl.h>

#include <boost/asio/ssl.hpp>
#include <cstdlib>

#include "certificate/certificate.h"
#include "support/real_servers.h"

/// OpenSSL says that it has given up.
std::atomic<bool> broken{false};

extern "C" const char* SSL_state_string(const SSL* s) {
    static const auto next = test::replaced(&SSL_state_string, "SSL_state_string");
    return broken ? "SSLERR" : next(s);
}

/// The file of authorities that was read last.
std::string loaded;

extern "C" int X509_STORE_load_file(X509_STORE* ctx, const char* file) {
    static const auto next = test::replaced(&X509_STORE_load_file, "X509_STORE_load_file");
    loaded = file;
    return next(ctx, file);
}

namespace test {

std::string seen_data;

int accept(int, X509_STORE_CTX* context) {
    X509_STORE_CTX_set_error(context, X509_V_OK);
    return 1;
}
int reject(int, X509_STORE_CTX*) { return 0; }
/// Lets nobody in who shows a certificate that signs itself.
int rejectSelfSigned(int verdict, X509_STORE_CTX* context) {
    X509* certificate = X509_STORE_CTX_get_current_cert(context);
    const bool self = X509_self_signed(certificate, 0) == 1;
    return self && X509_STORE_CTX_get_error_depth(context) == 0 ? 0 : verdict;
}
int keepVerdict(int verdict, X509_STORE_CTX* context) {
    auto* ssl = static_cast<SSL*>(
        X509_STORE_CTX_get_ex_data(context, SSL_get_ex_data_X509_STORE_CTX_idx()));
    const void* data = SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), certificate::sslctx_data_index());
    seen_data = data == nullptr ? "none" : static_cast<const char*>(data);
    return verdict;
}

const std::string refused = "<Protocol failure> SSL peer certificate or SSH remote key was not OK";
const std::string http2 = "200 HTTP/2.0 TLSv1.3";
const std::string http1 = "200 HTTP/1.1 TLSv1.3";

class Tls : public RealServersTest {
protected:
    Get to(const std::string& server, const std::string& target = "/") const {
        return Get(url(server, target));
    }
    Get withOwn(Get request, const std::string& key = "client.key") const {
        return request.identity(file("client.pem"), file(key));
    }
    const std::string root = file("root.pem");
    const std::string other_root = file("other_root.pem");
    const std::string intermediate = file("intermediate.pem");
    const std::string self_signed = file("self_signed.pem");
    const std::string both = file("both.pem");
};

TEST_F(Tls, PoliciesAgainstCertificates) {
    const std::string client = "200 hello CN=client";
    const std::string bad_key = "<Protocol failure> Problem with the local SSL certificate";
    auto upper_case = to("local").trusting(root);
    upper_case.url.replace(0, 5, "HTTPS");
    auto early = to("local", "/small").trusting(root);  // which over HTTP/2 libcurl (7.88) loses
    early.sends(Method::PUT, bodyOf(3000000));
    const Get plain("http://" + nginx.address("plain") + "/to-https");
    const std::pair<RequestConfig, std::string> rows[] = {
        {to("local").trusting(root), http2},
        {upper_case, http2},
        {to("local", "/unmeasured").trusting(root), "200 unmeasured"},
        {to("local12").trusting(root), "200 TLSv1.2"},
        {to("local").trusting(other_root), refused},
        {to("local").trusting(intermediate), refused},
        // Cut at its NUL, the path would name the very authority that the server needs.
        {to("local").trusting(file("root.pem") + std::string("\0x", 2)), refused},
        {to("local").trusting(intermediate).partial(), http2},
        {to("elsewhere").trusting(root), refused},
        {to("expired").trusting(root), refused},
        {to("self_signed").trusting(root), refused},
        {to("self_signed").trusting(self_signed), "200 self"},
        {to("self_signed").insecure().partial(), "200 self"},
        {to("elsewhere").insecure(), "200 elsewhere"},
        {plain, refused},  // libcurl's own defaults
        {withOwn(to("mutual").trusting(root)), client},
        {withOwn(to("mutual").insecure()), client},
        {withOwn(to("mutual", "/back").trusting(root)), client},
        // A key that does not fit fails as such; an encrypted one asks nobody for its pass phrase.
        {withOwn(to("mutual").trusting(root), "local.key"), bad_key},
        {withOwn(to("mutual").trusting(root), "client_encrypted.key"), bad_key},
        // A half or unreadable pair is no client certificate.
        {withOwn(to("optional").trusting(root), "none"), "200 client NONE"},
        {withOwn(to("optional").trusting(root)).set(&RequestConfig::own_pkey, ""),
         "200 client NONE"},
        // A verifier has the last word, but not on the name.
        {to("local").trusting(root).by(reject), refused},
        {to("local").insecure().by(reject), refused},
        {to("local").by(accept), http1},
        {to("expired").trusting(root).by(accept), "200 expired"},
        {to("expired").trusting(root).by(keepVerdict), refused},
        {to("elsewhere").trusting(root).by(accept), refused},
        {to("local").trusting(intermediate).by(keepVerdict), refused},
        {to("local").trusting(intermediate).partial().by(keepVerdict), http1},
        {to("local").trusting(intermediate).partial().by(reject), refused},
    };
    EXPECT_EQ(outcomeOf(early).substr(0, 4), "413 ");  // nginx 1.26 has another page for it
    for (const auto& [policy, outcome] : rows) EXPECT_EQ(outcomeOf(policy), outcome) << policy;
    // An operator sees why; the caller's text stays libcurl's for the code.
    EXPECT_EQ(logger.lines("certificate has expired").size(), 2U);
}

/// A caller that names no authorities trusts the environment's, or else the system's.
TEST_F(Tls, AuthoritiesThatNobodyNames) {
#ifdef ZEL_HTTP_BUNDLED_PLATFORM
    for (const auto& [name, outcome] :
         {std::pair("root.pem", http2), {"other_root.pem", refused}, {"none", refused}}) {
        setenv("SSL_CERT_FILE", file(name).c_str(), 1);
        startEngine();
        EXPECT_EQ(outcomeOf(to("local")), outcome) << name;
    }
    unsetenv("SSL_CERT_FILE");
#endif
    EXPECT_EQ(outcomeOf(to("local")), refused);
    EXPECT_EQ(loaded, certificate::ca_path("default"));
    startEngine();  // without what libcurl keeps of the file
    loaded.clear();
    EXPECT_NE(outcomeOf(to("local").trusting("")), http2);
    EXPECT_EQ(loaded, "") << "no file is not the default bundle";
}

TEST_F(Tls, AVerifierIsAPlainFunctionWithItsData) {
    auto policy = to("local").trusting(root).by(keepVerdict);
    policy.verifier_data = "for the verifier";
    outcomeOf(policy);
    EXPECT_EQ(seen_data, "for the verifier");
    policy.verifier = [&](int verdict, X509_STORE_CTX*) { return verdict; };
    for (const bool partial : {false, true}) {
        EXPECT_EQ(outcomeOf(policy.set(&RequestConfig::tls_partial_chain, partial)),
                  "<Protocol failure> A libcurl function was given a bad argument");
    }
}

/// Each second request is judged by its own policy, whatever the first has left behind.
TEST_F(Tls, NoPolicyServesAnother) {
    std::ofstream(both) << contentOf(file("root.pem")) << contentOf(file("self_signed.pem"));
    struct Pair {
        std::string what;
        Get first;
        Get second;
    };
    const auto redirected = to("local", "/to-self").trusting(both).by(rejectSelfSigned);
    const Pair pairs[] = {
        {"kept alive, then a verifier", to("local").trusting(root),
         to("local").trusting(root).by(reject)},
        {"lenient verifier, then none", to("local").trusting(other_root).by(accept),
         to("local").trusting(other_root)},
        {"two verifiers", to("local").trusting(root).by(accept),
         to("local").trusting(root).by(reject)},
        {"partial chains, then none", to("local").trusting(intermediate).partial(),
         to("local").trusting(intermediate)},
        {"in use by a lenient verifier", to("local", "/slow/root.pem").by(accept), to("local")},
        {"in use over HTTP/2", to("local", "/slow/root.pem").trusting(root),
         to("local").trusting(root).by(reject)},
        {"a redirect to a connection of none", to("self_signed").trusting(both), redirected},
        {"a redirect to one of a lenient verifier", to("self_signed").trusting(both).by(accept),
         redirected},
        {"a key that fits, then another", withOwn(to("mutual").trusting(root)),
         withOwn(to("mutual").trusting(root), "local.key")},
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
}

/// Nor does a TLS session, which libcurl resumes between transfers from 8.12 on: only one of the
/// same authorities alone, or of no verification, and not for a clean start. Each pair, both ways.
TEST_F(Tls, NoPolicyResumesTheSessionOfAnother) {
    ASSERT_EQ(std::system(("openssl rehash " + file("") + " 2>&1").c_str()), 0);
    const bool resumes = curl_version_info(CURLVERSION_NOW)->version_num >= 0x080c00;
    for (const char* server : {"local12", "resuming"}) {  // TLS 1.2 and 1.3
        const auto at = [&] { return to(server, "/reused"); };
        struct {
            RequestConfig request;
            std::string outcome = "200 .";
            bool shares = false;
        } const policies[] = {
            {at().trusting(root), "200 .", true},
            {at().insecure(), "200 .", true},
            {at().trusting(other_root), refused},
            {at().trusting(root).set(&RequestConfig::reset_state, true)},
            {at().trusting(root).by(keepVerdict)},
            {at().trusting(root).partial()},
            {withOwn(at().trusting(root))},
            {at().set(&RequestConfig::ca_dir, file(""))},
        };
        for (const auto& first : policies) {
            for (const auto& second : policies) {
                startEngine();
                EXPECT_EQ(outcomeOf(first.request), first.outcome) << first.request;
                const bool resumed = resumes && second.shares && &first == &second;
                EXPECT_EQ(outcomeOf(second.request), resumed ? "200 r" : second.outcome)
                    << first.request << second.request;
                EXPECT_EQ(engine->statistics().tls_sessions_resumed, resumed ? 1U : 0U);
            }
        }
    }
}

/// A burst waits for its first connection and shares it; where it may not, each makes its own.
TEST_F(Tls, ABurstSharesOneConnectionWhereItMay) {
    constexpr std::size_t burst = 40;
    for (const auto& [policy, connections] :
         {std::pair(to("local").trusting(root), std::size_t{1}),
          {to("local", "/here").trusting(root), 1},
          {to("local").trusting(intermediate).partial(), 1},
          {to("local").trusting(root).set(&RequestConfig::reset_state, true), burst},
          {to("local").trusting(root).by(keepVerdict), burst}}) {
        startEngine();
        std::vector<std::shared_ptr<HostRequest>> all(burst);
        whileEngineIsHeld([&, &policy = policy] {
            for (auto& request : all) (request = hostRequest(policy))->runRequest();
        });
        for (const auto& request : all) EXPECT_EQ(request->outcome(), "200 end") << policy;
        EXPECT_EQ(engine->statistics().connections_opened, connections) << policy;
    }
}

TEST_F(Tls, ARequestTellsTheFactsOfItsTransfers) {
    const auto factsOf = [](HostRequest& request) {
        request.runToOutcome();
        const zel::http::TransferFacts& facts = request.facts();
        EXPECT_LE(facts.connected, facts.total);
        EXPECT_LE(facts.tls_done, facts.total);
        EXPECT_LE(facts.ready, facts.total);
        EXPECT_LE(facts.first_byte, facts.total);
        EXPECT_EQ(facts.bytes_received, request.body.size());
        EXPECT_EQ(facts.redirecting.count() > 0, facts.redirects > 0);
        return facts.method + " " + std::to_string(facts.curl_code) + " " + facts.protocol + " " +
               facts.tls_version + (facts.connection_reused ? " reused" : "") +
               (facts.tls_resumed ? " resumed" : "") +
               (facts.tls_done.count() > 0 ? " handshake" : "") + " " + facts.curl_text;
    };
    const auto request = hostRequest(to("local").trusting(root));
    EXPECT_EQ(factsOf(*request), "GET 0 HTTP/2 TLSv1.3 handshake ");
    EXPECT_EQ("https://" + request->facts().remote_address + ":" +
                  std::to_string(request->facts().remote_port) + "/",
              request->config.url);
    EXPECT_EQ(factsOf(*hostRequest(to("local").trusting(root))), "GET 0 HTTP/2 TLSv1.3 reused ");
    const auto redirected = Get(origin("/redirect/1?status=303")).sends(Method::POST, "body");
    EXPECT_EQ(factsOf(*hostRequest(redirected)), "GET 0 HTTP/1.1  ");
    const auto expired = hostRequest(to("expired").trusting(root));
    EXPECT_EQ(factsOf(*expired).substr(0, 9), "GET 60   ");
    EXPECT_EQ(expired->facts().tls_verify_result, X509_V_ERR_CERT_HAS_EXPIRED);
    EXPECT_EQ(factsOf(*hostRequest("http://127.0.0.1:1/")).substr(0, 22), "GET 7   Failed to conn");
}

/// Who waits for a handshake in which the server is silent keeps its time limit, and makes a
/// connection of its own after a while.
TEST_F(Tls, NobodyWaitsForASilentHandshakeForGood) {
    const ScriptedServer silent(stall);
    const auto opened = [&] { return engine->statistics().connections_opened; };
    const Get target("https://" + silent.authority());
    const auto first = hostRequest(target);
    const auto third = hostRequest(target);
    first->runRequest();
    EXPECT_EQ(outcomeOf(Get(target).within(300)), "<Operation timed out> Timeout was reached");
    EXPECT_EQ(opened(), 1U);
    third->runRequest();
    waitFor("the third's own", [&] { return opened() == 2; });
    first->tryToCancelRequest();
    third->tryToCancelRequest();
}

/// New connections go by what the file holds now, not by what libcurl keeps of it.
TEST_F(Tls, FilesThatChangeCountAtOnce) {
    for (const char* name : {"client.key", "local.key", "client.key"}) {
        std::ofstream(file("changing.key")) << contentOf(file(name));
        EXPECT_EQ(outcomeOf(withOwn(to("mutual").trusting(root), "changing.key"))[0],
                  name[0] == 'c' ? '2' : '<');
    }
    for (const char* name : {"root.pem", "other_root.pem", "root.pem", "other_root.pem"}) {
        std::ofstream(file("changing.pem")) << contentOf(file(name));
        EXPECT_EQ(outcomeOf(to("local12").trusting(file("changing.pem"))),
                  name[0] == 'r' ? "200 TLSv1.2" : refused);
    }
}

/// A body without a length is whole only when TLS says that it ends there.
TEST_F(Tls, AnEndWithoutCloseNotifyIsATruncation) {
    boost::asio::ssl::context context(boost::asio::ssl::context::tls_server);
    context.use_certificate_chain_file(file("local.pem"));
    context.use_private_key_file(file("local.key"), boost::asio::ssl::context::pem);
    const std::string chunked = "Transfer-Encoding: chunked\r\n\r\n4\r\nbody\r\n0\r\n\r\n";
    struct Row {
        std::string answer;
        bool orderly, whole;
    };
    for (const Row& row : {Row{"200 OK\r\n\r\nbody", false, false},
                           {"200 OK\r\n\r\nbody", true, true},
                           {"200 OK\r\nContent-Length: 4\r\n\r\nbody", false, true},
                           {"200 OK\r\nContent-Length: 0\r\n\r\n", false, true},
                           {"200 OK\r\n" + chunked, false, true},
                           {"204 No\r\n\r\n", false, true}}) {
        const ScriptedServer server([&](Socket& socket) {
            boost::system::error_code ignored;
            boost::asio::ssl::stream<Socket&> tls(socket, context);
            std::string request;
            tls.handshake(boost::asio::ssl::stream_base::server, ignored);
            boost::asio::read_until(tls, boost::asio::dynamic_buffer(request), "\r\n\r\n", ignored);
            boost::asio::write(tls, boost::asio::buffer("HTTP/1.1 " + row.answer), ignored);
            if (row.orderly) tls.shutdown(ignored);
        });
        const auto outcome =
            outcomeOf(Get("https://" + server.authority()).trusting(file("root.pem")));
        EXPECT_EQ(outcome[0] == '2', row.whole) << row.answer << outcome;
    }
}

/// libcurl (7.88) reads on for ever when OpenSSL has given up for want of memory.
TEST_F(Tls, ABrokenConnectionEndsItsTransfer) {
    std::ofstream(file("large")) << bodyOf(100000);
    const auto slow = hostRequest(to("local", "/slow/large").trusting(root));
    slow->runRequest();
    waitFor("the first block", [&] { return slow->received > 0; });
    broken = true;
    waitFor("the end", [&] {
        engine->queueRequest([] {});  // for a pass
        return slow->outcomes > 0;
    });
    broken = false;
    EXPECT_EQ(slow->outcome(), "200 <Protocol failure> Out of memory");
}

/// What a host's engine sets in its own TLS step stands: another server, too.
TEST_F(Tls, ADerivedEnginesOwnStepStands) {
    const auto lenient = [&](auto&, void* curl) {
        curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
        curl_easy_setopt(curl, CURLOPT_URL, url("local", "/").c_str());
    };
    EXPECT_EQ(outcomeOn(lenient, *hostRequest(to("elsewhere").by(reject))), "200 end");
}

/// The server tells what came along: nothing that belongs to the first origin alone.
TEST_F(Tls, NothingFollowsToAnotherOrigin) {
    auto away = withOwn(to("mutual", "/away").trusting(root));
    away.login("me", "secret").header("Cookie", "a=b");
    away.auth_method = zel::http::AuthMethod::BASIC;
    EXPECT_EQ(outcomeOf(away), "200 client NONE auth= cookie=");
}

}  // namespace test
