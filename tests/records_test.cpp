// Records and rules: plain values in, plain values out.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <sstream>

#include "Engine/cookie_line.h"
#include "Engine/redirect_rule.h"
#include "Engine/wait_rule.h"
#include "Records/header_line.h"
#include "zel_http/client.h"
#include "zel_http/encoding.h"

namespace zel::http {

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
    std::string classes;
    for (const unsigned status :
         {99U, 100U, 399U, 400U, 401U, 402U, 403U, 407U, 408U, 599U, 600U}) {
        classes += protocol::valid_status(static_cast<long>(status)) ? 'v' : '-';
        classes += protocol::success_status(status) ? 's' : '-';
        classes += protocol::auth_failure(status) ? 'a' : '-';
    }
    EXPECT_EQ(classes, "---vs-vs-v--v-av--v-av-av--v-----");
    EXPECT_FALSE(protocol::valid_status(-1));
}

TEST(Records, RenderingIsExactAndHidesSecrets) {
    RequestConfig config;
    EXPECT_EQ(config.headers, (HeaderMap{{"Content-Type", "text/xml; charset=utf-8"}}));
    config.method = static_cast<Method>(9);
    config.url = "http://h/p";
    config.user = config.password = "secret";
    config.auth_method = AuthMethod::BASIC;
    config.reset_state = config.tls_partial_chain = true;
    config.read_cookies = config.write_cookies = true;
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
    config.read_cookies = false;
    EXPECT_NE(printed(config).find("enable-cookies, write-cookies\n"), std::string::npos);
}

TEST(Rules, HeaderLines) {
    const std::pair<const char*, const char*> rows[] = {
        {"Content-Type: text/html\r\n", "Content-Type|text/html"},
        {"X-Empty:\r\n", "X-Empty|"},
        {"  Name\t :\v\f a:b \t\r\n", "Name|a:b"},
        {"  : value\r\n", "none"},
        {"HTTP/1.1 200 OK\r\n", "none"},
        {"Name: value\n", "none"},
        {"Name: value\r", "none"},
    };
    for (const auto& [line, expected] : rows) {
        const auto header = splitHeaderLine(line);
        EXPECT_EQ(header ? std::string(header->name) + "|" + std::string(header->value) : "none",
                  expected);
    }
    EXPECT_TRUE(isStatusLine("HTTP/1.1 200 A: B\r\n") && isStatusLine("HTTP/2 200 \r\n"));
    EXPECT_FALSE(isStatusLine("HTTP/1.1: 200 OK\r\n") || isStatusLine("X-HTTP/1.1 200\r\n"));
}

TEST(Rules, WhatLeadsToAnotherOrigin) {
    const auto leaves = [](const std::string& line) {
        return leavesOrigin("https://a.b/start", locationOf(line));
    };
    for (const char* line : {"Location: /path\r\n", "location: https://a.b/\r\n", "Location:/a b\n",
                             "LOCATION: //A.B:443/x\n", "Location: HTTPS://u@a.b/"}) {
        EXPECT_FALSE(leaves(line)) << line;
    }
    for (const char* line :
         {"Location: http://a.b/\n", "Location: https://a.b:444/", "location: //c/",
          "Location: https://b.a.b/\r\n", "Location: https://a.b@c/", "Location: https://[c/"}) {
        EXPECT_TRUE(leaves(line)) << line;
    }
    EXPECT_EQ(locationOf("X-Location: /path\r\n"), "");
}

TEST(Rules, CookieLinesAndHosts) {
    for (const char* line : {"d\tF\t/\tF\t0\tn", "d\tF\t/\tF\t0\tn\tv\t", ""}) {
        EXPECT_FALSE(splitCookieLine(line)) << line;
    }
    EXPECT_TRUE(splitCookieLine("\t\t\t\t\t\t"));
    EXPECT_EQ(expiredCookieLine(*splitCookieLine("d\tF\t/\tF\t0\tn\tv"), 7), "d\tF\t/\tF\t7\tn\tv");
    EXPECT_TRUE(hostMatches("a.b.c", "b.c") && hostMatches("b.c", "B.C"));
    EXPECT_FALSE(hostMatches("b.c", ".b.c") || hostMatches("a.b.cc", "b.c"));
}

TEST(Rules, Wait) {
    for (const auto& [timer, expected] : {std::pair(-1L, 30000L),
                                          {0L, 0L},
                                          {1500L, 1500L},
                                          {60999L, 60999L},
                                          {61000L, 60000L},
                                          {1000000L, 60000L}}) {
        const timeval wait = waitTimeout(timer);
        EXPECT_EQ(wait.tv_sec * 1000 + wait.tv_usec / 1000, expected);
    }
}

TEST(Encoding, EveryByteAgainstTheRule) {
    const std::string kept =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ-_.!~*'()";
    for (int byte = 0; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        const std::string escaped = fmt::format("%{:02X}", byte);
        const bool stays = kept.find(text) != std::string::npos;
        const bool delimits = std::string(";,/?:@&=+$#").find(text) != std::string::npos;
        EXPECT_EQ(encodeURIComponent(text), stays ? text : escaped);
        EXPECT_EQ(encodeURI(text), stays || delimits ? text : escaped);
    }
    QueryEncoder query;
    query.addParameter("", "");
    query.addParameter("q&", "x y");
    query.addParameter("n", -5);
    EXPECT_EQ(query.getQueryString(), "=&q%26=x%20y&n=-5");
}

}  // namespace zel::http
