#include <gtest/gtest.h>

#include <sstream>
#include <vector>

#include "Client/header_line.h"
#include "Engine/wait_rule.h"
#include "zel_http/client.h"
#include "zel_http/records.h"

namespace zel::http {
namespace {

template <typename Value>
std::string printed(Value value) {
    std::ostringstream stream;
    stream << value;
    return stream.good() ? stream.str() : "stream failed";
}

template <typename Enumeration>
std::vector<std::string> namesOf(std::int32_t first, std::int32_t last) {
    std::vector<std::string> names;
    for (auto value = first; value <= last; ++value) {
        names.push_back(printed(static_cast<Enumeration>(value)));
    }
    return names;
}

TEST(Records, ConfigDefaults) {
    const RequestConfig config;
    EXPECT_EQ(config.method, Method::GET);
    EXPECT_EQ(config.headers, (HeaderMap{{"Content-Type", "text/xml; charset=utf-8"}}));
    EXPECT_EQ(config.auth_method, AuthMethod::ANY);
    EXPECT_TRUE(config.tls_verify && config.enable_cookies);
    EXPECT_FALSE(config.tls_partial_chain || config.read_cookies || config.write_cookies ||
                 config.reset_state || config.xauth_required || config.xauth_check_domain);
    EXPECT_FALSE(config.ca_file || config.ca_dir || config.own_cert || config.own_pkey ||
                 config.verifier_data || config.verifier);
    EXPECT_EQ(config.max_download_size, -1);
    EXPECT_EQ(config.timeout.count(), 0);
    EXPECT_EQ(LogFilter().payload, LogFilter::Full);
    EXPECT_EQ(Client::NoRequestId, 0U);
}

TEST(Records, SixArgumentsReplaceHeadersAndMakeTheFilePresent) {
    const RequestConfig config(Method::PUT, "http://a/", {}, "b", std::chrono::milliseconds(5), "");
    EXPECT_EQ(config.method, Method::PUT);
    EXPECT_EQ(config.url, "http://a/");
    EXPECT_TRUE(config.headers.empty());
    EXPECT_EQ(config.body, "b");
    EXPECT_EQ(config.timeout.count(), 5);
    EXPECT_EQ(config.ca_file, "");
    EXPECT_TRUE(config.tls_verify);
}

TEST(Records, PrintedNames) {
    using Names = std::vector<std::string>;
    EXPECT_EQ(namesOf<Method>(-1, 6),
              (Names{"", "POST", "PUT", "GET", "DELETE", "PATCH", "GET_SYNC", ""}));
    EXPECT_EQ(namesOf<AuthMethod>(-1, 2), (Names{"", "BASIC", "ANY", ""}));
    Names failures = {"",
                      "<Invalid URL>",
                      "<DNS Lookup failure>",
                      "<Protocol failure>",
                      "<Operation timed out>",
                      "<Authentication failure>",
                      "<Failed to establish connection>",
                      "<Error code in HTTP Response>",
                      ""};
    EXPECT_EQ(namesOf<Failure>(-1, 7), failures);
    failures[7].clear();
    EXPECT_EQ(namesOf<ClientFailure>(-1, 7), failures);
}

TEST(Records, StatusHelpersAtTheirBorders) {
    std::vector<long> valid;
    std::vector<long> success;
    std::vector<long> auth;
    for (long status = -1; status <= 700; ++status) {
        if (protocol::valid_status(status)) valid.push_back(status);
        if (protocol::success_status(static_cast<unsigned>(status))) success.push_back(status);
        if (protocol::auth_failure(static_cast<unsigned>(status))) auth.push_back(status);
    }
    EXPECT_EQ(std::make_pair(valid.front(), valid.back()), std::make_pair(100L, 599L));
    EXPECT_EQ(valid.size(), 500U);
    EXPECT_EQ(std::make_pair(success.front(), success.back()), std::make_pair(100L, 399L));
    EXPECT_EQ(success.size(), 300U);
    EXPECT_EQ(auth, (std::vector<long>{401, 403, 407}));
}

TEST(Records, RenderingIsExactAndHidesSecrets) {
    RequestConfig config;
    config.url = "http://h/p";
    config.user = "user";
    config.password = "password";
    EXPECT_EQ(printed(config),
              "HTTP: Outgoing => GET http://h/p\nAuthMethod : ANY\n"
              "Flags      : tls-verify, enable-cookies\nBODY       : 0 bytes\n--\n");

    config.method = static_cast<Method>(9);
    config.auth_method = AuthMethod::BASIC;
    config.reset_state = config.tls_partial_chain = config.read_cookies = config.write_cookies =
        true;
    config.ca_file = "";
    config.ca_dir = "/ca";
    config.own_cert = "c.pem";
    config.own_pkey = "k.pem";
    config.verifier = [](int, X509_STORE_CTX*) { return 1; };
    config.verifier_data = "";
    config.body.assign(1048576, 'x');
    std::ostringstream stream;
    stream.width(200);
    stream.fill('*');
    stream << std::hex << config;
    EXPECT_EQ(stream.str(),
              "HTTP: Outgoing =>  http://h/p\nAuthMethod : BASIC\n"
              "Flags      : reset-state, tls-verify, tls-partial-chain, enable-cookies, "
              "read-cookies, write-cookies\n"
              "CA file    : (empty)\nCA dir     : /ca\nOwn cert   : c.pem\nOwn pkey   : k.pem\n"
              "Verifier   : On\n    w/data : (empty)\nBODY       : 1048576 bytes\n--\n");
    EXPECT_EQ(stream.width(), 200);

    RequestConfig bare;
    bare.tls_verify = bare.enable_cookies = false;
    bare.verifier_data = "d";
    EXPECT_EQ(printed(bare),
              "HTTP: Outgoing => GET \nAuthMethod : ANY\nFlags      : \n    w/data : d\n"
              "BODY       : 0 bytes\n--\n");
}

TEST(Records, HeaderMapIgnoresCaseAndKeepsTheFirst) {
    HeaderMap headers{{"Content-Type", "a"}};
    for (const char* name : {"content-type", "CONTENT-TYPE", "Content-type"}) {
        EXPECT_EQ(headers.count(name), 1U) << name;
        EXPECT_FALSE(headers.emplace(name, "b").second) << name;
    }
    EXPECT_EQ(headers.begin()->first, "Content-Type");
    EXPECT_EQ(headers.begin()->second, "a");
    for (const char* name : {"", "Content-Type ", "\xC4", "\xE4"}) {
        EXPECT_TRUE(headers.emplace(name, "").second) << name;
    }
    EXPECT_EQ(headers.size(), 5U);
}

TEST(Rules, HeaderLines) {
    struct Row {
        const char* line;
        const char* result;
    };
    for (const Row& row : std::initializer_list<Row>{
             {"Content-Type: text/html\r\n", "[Content-Type][text/html]"},
             {"X-Empty:\r\n", "[X-Empty][]"},
             {"  Name  :  a:b  \r\n", "[Name][a:b]"},
             {"\v\fName\t:\v\f1 2\t\r\n", "[Name][1 2]"},
             {": value\r\n", "none"},
             {"  : value\r\n", "none"},
             {"no colon\r\n", "none"},
             {"\r\n", "none"},
             {"", "none"},
             {"Name: value\n", "none"},
             {"Name: value\r", "none"},
             {"Name: value", "none"},
         }) {
        const auto header = splitHeaderLine(row.line);
        const std::string result =
            header ? "[" + std::string(header->name) + "][" + std::string(header->value) + "]"
                   : "none";
        EXPECT_EQ(result, row.result) << row.line;
    }
}

TEST(Rules, Wait) {
    struct Row {
        long milliseconds;
        long seconds;
        long microseconds;
    };
    for (const Row& row : std::initializer_list<Row>{{-1, 30, 0},
                                                     {0, 0, 0},
                                                     {1, 0, 1000},
                                                     {1500, 1, 500000},
                                                     {60999, 60, 999000},
                                                     {61000, 60, 0},
                                                     {1000000, 60, 0}}) {
        const timeval wait = waitFor(row.milliseconds);
        EXPECT_EQ(wait.tv_sec, row.seconds) << row.milliseconds;
        EXPECT_EQ(wait.tv_usec, row.microseconds) << row.milliseconds;
    }
}

}  // namespace
}  // namespace zel::http
