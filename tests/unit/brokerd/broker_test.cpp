#include "kvo/brokerd/broker.h"

#include "broker_directory.h"
#include "stream_name.h"
#include "temp_directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>
#include <unistd.h>

namespace kvo::brokerd {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

template <class Function>
std::string FaultOf(Function&& function) {
    try {
        function();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return {};
}

TEST(StreamName, OnlyWhatAUriCarriesAndNeverAPlaceElsewhere) {
    for (const std::string good :
         {"a", "camera/left", "x;v=1,(2)*!$&'+@:~._-=", "...", "a..", "/", "a//b/"}) {
        EXPECT_TRUE(IsWellFormedName(good)) << good;
        EXPECT_EQ(std::string::npos, FileNameOf(good).find('/')) << good;
    }
    for (const std::string& bad :
         {std::string(), std::string(256, 'a'), std::string("a b"), std::string("a\0b", 3),
          std::string("50%"), std::string("a?b"), std::string("a#b"), std::string("\xc3\xa4"),
          std::string("tab\t"), std::string("\""), std::string(".."), std::string("../../etc"),
          std::string("a/./b"), std::string("a/.")}) {
        EXPECT_FALSE(IsWellFormedName(bad)) << bad;
    }
    EXPECT_TRUE(IsWellFormedName(std::string(255, 'a')));
    const std::set<std::string> names{FileNameOf("a/b"), FileNameOf("a_b"), FileNameOf("a.b"),
                                      FileNameOf(std::string(60, 'a')),
                                      FileNameOf(std::string(61, 'a'))};
    EXPECT_EQ(5U, names.size());
    EXPECT_EQ("\"a?b\"", Quoted("a\nb"));
}

TEST(Broker, WhatStandsInTheWayIsNamedAndNothingIsLeft) {
    const test::TempDirectory place;
    BrokerOptions options;
    options.port = 0;
    options.directory = (place.path() / "first").string();
    {
        const Broker broker(options, nullptr);
        EXPECT_EQ("wkp.rr://127.0.0.1:" + std::to_string(broker.port()), broker.uri());
        EXPECT_THAT(FaultOf([&] { Broker(options, nullptr); }),
                    HasSubstr("process " + std::to_string(::getpid())));
        BrokerOptions same_port;
        same_port.port = broker.port();
        same_port.directory = (place.path() / "second").string();
        EXPECT_THAT(FaultOf([&] { Broker(same_port, nullptr); }),
                    AllOf(HasSubstr(std::to_string(broker.port())),
                          HasSubstr("process " + std::to_string(::getpid())),
                          HasSubstr(options.directory)));
    }
    BrokerOptions hasty;
    hasty.heartbeat_timeout = std::chrono::seconds(2);
    EXPECT_THAT(FaultOf([&] { Broker(hasty, nullptr); }), HasSubstr("2 s"));
    options.directory = (place.path() / "no" / "such" / "place").string();
    EXPECT_THAT(FaultOf([&] { Broker(options, nullptr); }), HasSubstr(options.directory));
    EXPECT_TRUE(place.Content().empty());

    options.directory = (place.path() / "public").string();
    std::filesystem::create_directory(options.directory);
    std::filesystem::permissions(options.directory, std::filesystem::perms::all);
    EXPECT_THAT(FaultOf([&] { Broker(options, nullptr); }), HasSubstr("everybody"));
    EXPECT_EQ(1U, place.Content().size());
}

}  // namespace
}  // namespace kvo::brokerd
