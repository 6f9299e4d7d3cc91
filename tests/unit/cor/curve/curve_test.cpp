#include "gorm/cor/curve.h"

#include "echo.h"
#include "gorm/cor/ps/publisher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>

namespace gorm::cor::test {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr std::chrono::milliseconds kImpatient{600};

/// A server with keys, and the files of clients that have some.
class CurveTest : public ::testing::Test {
protected:
    CurveTest() {
        WriteCurveKeys(PathOf("allowed"), allowed_);
        WriteCurveKeys(PathOf("unknown"), DrawCurveKeys());
    }
    std::string PathOf(const std::string& name) const { return place_.path() / name; }
    Serving Secured() const {
        Serving serving;
        serving.curve = curve_;
        return serving;
    }
    Properties With(const std::string& file, const std::string& server_key) const {
        return {{"secret-key-file", PathOf(file)}, {"server-key", server_key}};
    }
    /// Why a request did not get through.
    static std::string WhyNot(const std::string& uri, const Properties& properties) {
        return TextOf<rr::ReplyTimeout>(
            [&] { MakeClient(uri, kImpatient, properties)->Say("who"); });
    }

    const kvo::test::TempDirectory place_;
    const CurveKeys server_ = DrawCurveKeys();
    const CurveKeys allowed_ = DrawCurveKeys();
    const std::shared_ptr<CurveServer> curve_ =
        std::make_shared<CurveServer>(server_, AllowedKeys{{allowed_.public_key, "viewer"}});
};

TEST_F(CurveTest, OnlyAnAllowedKeyGetsInAndEverybodyElseLearnsWhyNot) {
    EchoServer server(Secured());
    EXPECT_EQ("key " + allowed_.public_key,
              MakeClient(server.uri(), kDeadline, With("allowed", server_.public_key))->Say("who"));
    const std::string wrong = DrawCurveKeys().public_key;
    EXPECT_THAT(WhyNot(server.uri(), With("unknown", server_.public_key)),
                AllOf(HasSubstr("does not allow the public key"),
                      HasSubstr(ReadCurveKeys(PathOf("unknown")).public_key)));
    EXPECT_THAT(WhyNot(server.uri(), With("allowed", wrong)),
                HasSubstr("is " + wrong + " its public key?"));
    EXPECT_THAT(WhyNot(server.uri(), {}), AllOf(HasSubstr("the server asks for CURVE"),
                                                HasSubstr("KVO_MIDDLEWARE_PROPERTIES")));
    EchoServer open;
    EXPECT_THAT(WhyNot(open.uri(), With("allowed", server_.public_key)),
                HasSubstr("does not use CURVE"));
    const std::string host = "server-key@127.0.0.1";
    EXPECT_EQ("key " + allowed_.public_key, MakeClient(server.uri(), kDeadline,
                                                       {{"secret-key-file", PathOf("allowed")},
                                                        {"server-key", wrong},
                                                        {host, server_.public_key}})
                                                ->Say("who"));
}

TEST_F(CurveTest, AKeyThatIsAllowedLaterGetsInByItselfAndOneThatIsNotAnyMoreStaysOut) {
    EchoServer server(Secured());
    const CurveKeys later = DrawCurveKeys();
    WriteCurveKeys(PathOf("later"), later);
    const auto client = MakeClient(server.uri(), kDeadline, With("later", server_.public_key));
    auto connected = client->Connect();
    EXPECT_THAT(WhyNot(server.uri(), With("later", server_.public_key)), HasSubstr("not allow"));
    curve_->SetAllowed({{later.public_key, "later"}});
    EXPECT_EQ("later", curve_->NameOf(later.public_key));
    connected.get();
    EXPECT_EQ("key " + later.public_key, client->Say("who"));
    EXPECT_THAT(WhyNot(server.uri(), With("allowed", server_.public_key)), HasSubstr("not allow"));
}

TEST_F(CurveTest, NotificationsAskForTheSameKeys) {
    Heard subscriptions;
    ServiceLoop loop;
    ps::Publisher publisher(loop, network::uri("wkp.ps://127.0.0.1:0/"), Secured());
    publisher.OnSubscription([&](std::string_view path, bool begins) {
        subscriptions.Add((begins ? "+" : "-") + std::string(path));
    });
    const auto unknown =
        Subscribe(publisher.port(), "/unknown", With("unknown", server_.public_key));
    const auto none = Subscribe(publisher.port(), "/none");
    const auto allowed =
        Subscribe(publisher.port(), "/allowed", With("allowed", server_.public_key));
    EXPECT_THAT(subscriptions.Await(1), ElementsAre("+/allowed"));
    Heard heard;
    const auto listening = Listen(*allowed, heard);
    loop.Run([&] { publisher.Publish("/allowed", "news"); });
    EXPECT_THAT(heard.Await(1), ElementsAre("news"));
    EXPECT_THAT(subscriptions.Await(1), ElementsAre("+/allowed"));
}

TEST_F(CurveTest, PropertiesComeFromAFileThatTheEnvironmentNames) {
    EchoServer server(Secured());
    const std::string file = PathOf("properties");
    std::ofstream(file) << "# of the test\n\nsecret-key-file = " << PathOf("allowed")
                        << "\nserver-key=" << server_.public_key << "\n";
    ASSERT_EQ(0, ::setenv("KVO_MIDDLEWARE_PROPERTIES", file.c_str(), 1));
    EXPECT_THAT(MakeClient(server.uri(), kDeadline, {})->Say("who"), HasSubstr("key"));
    std::ofstream(file) << "colour\n";
    EXPECT_THAT(TextOf<Error>([&] { MakeClient(server.uri(), kDeadline, {}); }),
                HasSubstr(file + ", line 1"));
    ::unsetenv("KVO_MIDDLEWARE_PROPERTIES");
    for (const auto& [properties, fault] :
         {std::pair<Properties, std::string>{{{"colour", "red"}}, "colour"},
          {{{"server-key", "short"}}, "40 characters"},
          {{{"server-key", server_.public_key}}, "secret-key-file"},
          {With("missing", server_.public_key), "missing"}}) {
        EXPECT_THAT(
            TextOf<Error>([&, &wrong = properties] { MakeClient(server.uri(), kDeadline, wrong); }),
            HasSubstr(fault));
    }
}

TEST_F(CurveTest, KeyFilesAreForTheirOwnerAloneAndMistakesInThemAreNamedWithoutTheSecret) {
    const std::string path = PathOf("allowed");
    struct stat status {};
    ASSERT_EQ(0, ::stat(path.c_str(), &status));
    EXPECT_EQ(0600U, status.st_mode & 07777U);
    EXPECT_EQ(allowed_.public_key, ReadCurveKeys(path).public_key);
    EXPECT_EQ(allowed_.secret_key, ReadCurveKeys(path).secret_key);
    EXPECT_THAT(TextOf<Error>([&] { WriteCurveKeys(path, allowed_); }), HasSubstr(path));
    ASSERT_EQ(0, ::chmod(path.c_str(), 0640));
    EXPECT_THAT(TextOf<Error>([&] { static_cast<void>(ReadCurveKeys(path)); }),
                HasSubstr("chmod 600"));
    ASSERT_EQ(0, ::chmod(path.c_str(), 0600));
    std::ofstream(path) << "secret-key = " << allowed_.secret_key << "x\n";
    EXPECT_THAT(TextOf<Error>([&] { static_cast<void>(ReadCurveKeys(path)); }),
                AllOf(HasSubstr(path), Not(HasSubstr(allowed_.secret_key))));

    const std::string list = PathOf("list");
    std::ofstream(list) << "# who may come\n\nviewer " << allowed_.public_key << "\n";
    EXPECT_EQ((AllowedKeys{{allowed_.public_key, "viewer"}}), ReadAllowedKeys(list));
    for (const std::string& line :
         {std::string("viewer"), std::string("viewer short"),
          "viewer " + server_.public_key + " more", "other " + allowed_.public_key}) {
        std::ofstream(list) << "viewer " << allowed_.public_key << "\n" << line << "\n";
        EXPECT_THAT(TextOf<Error>([&] { static_cast<void>(ReadAllowedKeys(list)); }),
                    HasSubstr("line 2"))
            << line;
    }
}

}  // namespace
}  // namespace gorm::cor::test
