#include "network/uri.hpp"

#include <gtest/gtest.h>

#include <string>

namespace network {
namespace {

TEST(Uri, PartsStandAsGiven) {
    const struct {
        const char* text;
        const char* scheme;
        const char* host;
        const char* port;
        const char* path;
    } cases[] = {
        {"wkp.rr://127.0.0.1:5000/broker/Broker1", "wkp.rr", "127.0.0.1", "5000",
         "/broker/Broker1"},
        {"wkp.rr://Host", "wkp.rr", "Host", "", ""},
        {"wkp.rr://host/", "wkp.rr", "host", "", "/"},
        {"wkp.ps://host:1/a//b/", "wkp.ps", "host", "1", "/a//b/"},
        {"x://host:/p", "x", "host", "", "/p"},
        {"x://user@[::1]:7/p/?q=/r#/f", "x", "::1", "7", "/p/"},
        {"x://host?q=/r", "x", "host", "", ""},
        {"x://h:1/a%20b/../c", "x", "h", "1", "/a%20b/../c"},
    };
    for (const auto& expected : cases) {
        const uri parsed{std::string(expected.text)};
        EXPECT_EQ(expected.text, parsed.string());
        EXPECT_EQ(expected.scheme, parsed.scheme()) << expected.text;
        EXPECT_EQ(expected.host, parsed.host()) << expected.text;
        EXPECT_EQ(expected.port, parsed.port()) << expected.text;
        EXPECT_EQ(expected.path, parsed.path()) << expected.text;
        const uri copy = parsed;
        EXPECT_EQ(parsed.path(), copy.path()) << expected.text;
    }
}

TEST(Uri, WhatIsNoneIsRefusedByName) {
    for (const std::string& text :
         {std::string(), std::string("host:5000/p"), std::string("/path"), std::string("x:///p"),
          std::string("x://a b/"), std::string("x://h\0st/", 9), std::string("x://h:port/")}) {
        try {
            const uri parsed(text);
            ADD_FAILURE() << text << " was taken";
        } catch (const uri_syntax_error& error) {
            EXPECT_NE(std::string::npos, std::string(error.what()).find(text.c_str())) << text;
        }
    }
}

}  // namespace
}  // namespace network
