// Records and rules: plain values in, plain values out.

#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "Engine/wait_rule.h"
#include "Records/header_line.h"
#include "zel_http/client.h"

namespace zel::http {
namespace {

template <typename Value>
std::string printed(const Value& value) {
    std::ostringstream stream;
    stream << value;
    return stream.good() ? stream.str() : "stream failed";
}

/// The printed names of the values -1 to 7.
template <typename Enumeration>
std::string names() {
    std::string all;
    for (int value = -1; value <= 7; ++value) all += printed(static_cast<Enumeration>(value)) + "|";
    return all;
}

TEST(Records, DefaultsAndTheSixArgumentConstructor) {
    const RequestConfig config;
    EXPECT_EQ(config.headers, (HeaderMap{{"Content-Type", "text/xml; charset=utf-8"}}));
    EXPECT_FALSE(config.read_cookies || config.write_cookies || config.reset_state ||
                 config.xauth_required || config.xauth_check_domain || config.ca_dir ||
                 config.own_cert || config.own_pkey || config.verifier_data || config.verifier);
    EXPECT_FALSE(config.ca_file);
    EXPECT_EQ(config.max_download_size, -1);
    EXPECT_EQ(config.timeout.count(), 0);
    EXPECT_EQ(LogFilter().payload, LogFilter::Full);
    EXPECT_EQ(Client::NoRequestId, 0U);
    const RequestConfig six(Method::PUT, "http://a/", {}, "b", std::chrono::milliseconds(5), "");
    EXPECT_TRUE(six.headers.empty());
    EXPECT_EQ(six.ca_file, "");
    EXPECT_EQ(six.timeout.count(), 5);
    EXPECT_EQ(printed(six),
              "HTTP: Outgoing => PUT http://a/\nAuthMethod : ANY\n"
              "Flags      : tls-verify, enable-cookies\nCA file    : (empty)\n"
              "BODY       : 1 bytes\n--\n");
}

TEST(Records, PrintedNames) {
    const std::string common =
        "|<Invalid URL>|<DNS Lookup failure>|<Protocol failure>|<Operation timed out>|"
        "<Authentication failure>|<Failed to establish connection>|";
    EXPECT_EQ(names<Method>(), "|POST|PUT|GET|DELETE|PATCH|GET_SYNC|||");
    EXPECT_EQ(names<AuthMethod>(), "|BASIC|ANY|||||||");
    EXPECT_EQ(names<Failure>(), common + "<Error code in HTTP Response>||");
    EXPECT_EQ(names<ClientFailure>(), common + "||");
}

TEST(Records, StatusHelpersAtTheirBorders) {
    std::string valid;
    std::string success;
    std::string auth;
    for (const unsigned status :
         {0U, 99U, 100U, 399U, 400U, 401U, 402U, 403U, 407U, 408U, 599U, 600U}) {
        valid += protocol::valid_status(static_cast<long>(status)) ? 'v' : '-';
        success += protocol::success_status(status) ? 's' : '-';
        auth += protocol::auth_failure(status) ? 'a' : '-';
    }
    EXPECT_EQ(valid, "--vvvvvvvvv-");
    EXPECT_EQ(success, "--ss--------");
    EXPECT_EQ(auth, "-----a-aa---");
    EXPECT_FALSE(protocol::valid_status(-1));
}

TEST(Records, RenderingIsExactAndHidesSecrets) {
    RequestConfig config;
    config.method = static_cast<Method>(9);
    config.url = "http://h/p";
    config.user = config.password = "secret";
    config.auth_method = AuthMethod::BASIC;
    config.reset_state = config.tls_partial_chain = config.read_cookies = config.write_cookies =
        true;
    config.ca_dir = "/ca";
    config.own_cert = "c.pem";
    config.own_pkey = "k.pem";
    config.verifier = [](int, X509_STORE_CTX*) { return 1; };
    config.verifier_data = "";
    config.body.assign(1048576, 'x');
    std::ostringstream stream;
    stream.width(200);  // neither applies nor is used up
    stream << std::hex << config;
    EXPECT_EQ(stream.width(), 200);
    EXPECT_EQ(stream.str(),
              "HTTP: Outgoing =>  http://h/p\nAuthMethod : BASIC\n"
              "Flags      : reset-state, tls-verify, tls-partial-chain, enable-cookies, "
              "read-cookies, write-cookies\n"
              "CA dir     : /ca\nOwn cert   : c.pem\nOwn pkey   : k.pem\n"
              "Verifier   : On\n    w/data : (empty)\nBODY       : 1048576 bytes\n--\n");
    RequestConfig bare;
    bare.tls_verify = bare.enable_cookies = false;
    bare.verifier_data = "d";
    EXPECT_EQ(printed(bare),
              "HTTP: Outgoing => GET \nAuthMethod : ANY\nFlags      : \n    w/data : d\n"
              "BODY       : 0 bytes\n--\n");
}

TEST(Records, HeaderMapIgnoresCaseAndKeepsTheFirst) {
    HeaderMap headers{{"Content-Type", "a"}};
    EXPECT_FALSE(headers.emplace("content-TYPE", "b").second);
    EXPECT_EQ(headers.find("CONTENT-TYPE")->first + headers.at("content-type"), "Content-Typea");
    for (const char* name : {"", "Content-Type ", "\xC4", "\xE4"}) {
        EXPECT_TRUE(headers.emplace(name, "").second) << name;
    }
}

TEST(Rules, HeaderLines) {
    const std::pair<const char*, const char*> rows[] = {
        {"Content-Type: text/html\r\n", "[Content-Type][text/html]"},
        {"X-Empty:\r\n", "[X-Empty][]"},
        {"  Name\t :\v\f a:b \t\r\n", "[Name][a:b]"},
        {": value\r\n", "none"},
        {"  : value\r\n", "none"},
        {"HTTP/1.1 200 OK\r\n", "none"},
        {"\r\n", "none"},
        {"", "none"},
        {"Name: value\n", "none"},
        {"Name: value\r", "none"},
    };
    for (const auto& [line, result] : rows) {
        const auto header = splitHeaderLine(line);
        EXPECT_EQ(header ? "[" + std::string(header->name) + "][" + std::string(header->value) + "]"
                         : "none",
                  result);
    }
}

TEST(Rules, StatusLinesAndWhatLooksLikeThem) {
    EXPECT_TRUE(isStatusLine("HTTP/1.1 200 A: B\r\n"));
    EXPECT_TRUE(isStatusLine("HTTP/2 200 \r\n"));
    for (const char* line :
         {"HTTP/1.1: 200 OK\r\n", "HTTP/1.1:x\r\n", "X-HTTP/1.1 200\r\n", "\r\n", ""}) {
        EXPECT_FALSE(isStatusLine(line)) << line;
    }
}

TEST(Rules, Wait) {
    const long rows[][3] = {{-1, 30, 0},         {0, 0, 0},      {1, 0, 1000},    {1500, 1, 500000},
                            {60999, 60, 999000}, {61000, 60, 0}, {1000000, 60, 0}};
    for (const auto& [milliseconds, seconds, microseconds] : rows) {
        const timeval wait = waitTimeout(milliseconds);
        EXPECT_EQ(wait.tv_sec, seconds) << milliseconds;
        EXPECT_EQ(wait.tv_usec, microseconds) << milliseconds;
    }
}

}  // namespace
}  // namespace zel::http
