#include "streams/stream_name.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace kvo::brokerd {
namespace {

TEST(StreamName, OnlyWhatAUriCarriesAndNeverAPlaceElsewhere) {
    for (const std::string good :
         {"a", "camera/left", "x;v=1,(2)*!$&'+@:~._-=", "...", "a..", "/", "a//b/"}) {
        EXPECT_TRUE(IsWellFormedName(good)) << good;
        EXPECT_EQ(std::string::npos, FileNameOf(StreamName(good)).find('/')) << good;
    }
    for (const std::string& bad :
         {std::string(), std::string(256, 'a'), std::string("a b"), std::string("a\0b", 3),
          std::string("50%"), std::string("a?b"), std::string("a#b"), std::string("\xc3\xa4"),
          std::string("tab\t"), std::string("\""), std::string(".."), std::string("../../etc"),
          std::string("a/./b"), std::string("a/.")}) {
        EXPECT_FALSE(IsWellFormedName(bad)) << bad;
    }
    EXPECT_TRUE(IsWellFormedName(std::string(255, 'a')));
    const std::set<std::string> names{
        FileNameOf(StreamName("a/b")), FileNameOf(StreamName("a_b")), FileNameOf(StreamName("a.b")),
        FileNameOf(StreamName(std::string(60, 'a'))), FileNameOf(StreamName(std::string(61, 'a')))};
    EXPECT_EQ(5U, names.size());
    EXPECT_EQ("\"a?b\"", Quoted("a\nb"));
}

}  // namespace
}  // namespace kvo::brokerd
