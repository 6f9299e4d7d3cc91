#include "kvo/KvoDataTransferFactory.h"
#include "probes.h"

#include <gtest/gtest.h>
#include <log4cplus/fileappender.h>
#include <log4cplus/initializer.h>

#include <fstream>
#include <memory>
#include <sstream>

namespace kvo::test {
namespace {

TEST(BrokerUri, PathIsAppendedKeptOrRejected) {
    const struct {
        const char* given;
        const char* expected;  // null: refused
    } cases[] = {
        {"wkp.rr://127.0.0.1:5000", "wkp.rr://127.0.0.1:5000/broker/Broker1"},
        {"wkp.rr://127.0.0.1:5000/broker/Broker1", "wkp.rr://127.0.0.1:5000/broker/Broker1"},
        {"wkp.rr://host:", "wkp.rr://host:/broker/Broker1"},
        {"/broker/Broker1", "/broker/Broker1"},
        {"5000", "5000/broker/Broker1"},
        {"", ""},
        {"wkp.rr://127.0.0.1:5000/broker/Broker2", nullptr},
        {"wkp.rr://127.0.0.1:5000/broker/Broker1/", nullptr},
        {"wkp.rr://127.0.0.1:5000/broker/broker1", nullptr},
        {"wkp.rr://127.0.0.1:5000 ", nullptr},
        {"wkp.rr://localhost", nullptr},
        {"wkp.rr://[::1]", nullptr},
    };
    CapturedLog log;
    TransferProbe object(log.kvo_logger());
    for (const auto& c : cases) {
        log.Clear();
        EXPECT_EQ(object.VerifyPathInBrokerUri(c.given), c.expected == nullptr ? "" : c.expected)
            << c.given;
        EXPECT_EQ(log.lines(), c.expected == nullptr ? Lines({{4, "Invalid URI!"}}) : Lines())
            << c.given;
    }
}

TEST(VirtualInterface, OperationsOfTheOtherKindReturnZeroAndDoNothing) {
    CapturedLog log;
    const std::unique_ptr<KvoDataTransferLib> objects[] = {
        KvoDataTransferFactory::CreateTransferLib(log.kvo_logger()),
        KvoDataTransferFactory::CreatePublisher(log.kvo_logger()),
        KvoDataTransferFactory::CreateSubscriber(log.kvo_logger())};
    const auto& [plain, publisher, subscriber] = objects;
    log.Clear();
    for (KvoDataTransferLib* object : {plain.get(), subscriber.get()}) {
        EXPECT_EQ(object->RegisterPublisher("wkp.rr://127.0.0.1:1", "stream", true), 0);
        EXPECT_EQ(object->UnregisterPublisher(), 0);
        object->PublishData();
    }
    for (KvoDataTransferLib* object : {plain.get(), publisher.get()}) {
        EXPECT_EQ(object->RegisterSubscriber("wkp.rr://127.0.0.1:1", "stream", "", 1), 0);
        EXPECT_EQ(object->UnregisterSubscriber(), 0);
        EXPECT_EQ(object->ReadData(), nullptr);
    }
    EXPECT_EQ(log.lines(), Lines());
}

TEST(Ownership, ObjectsLogToTheGivenLoggerOrToNone) {
    const log4cplus::Initializer initializer;
    const TempDirectory directory;
    const std::string file = directory.path() / "log";
    log4cplus::Logger wrapped = log4cplus::Logger::getInstance("wrapped");
    wrapped.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::FileAppender(file)));
    KvoDataTransferFactory::CreatePublisher(wrapped);
    wrapped.removeAllAppenders();
    std::stringstream written;
    written << std::ifstream(file).rdbuf();
    EXPECT_NE(written.str().find("reply time for COR clients [s]: 6"), std::string::npos);

    CapturedLog log;
    KvoDataTransferFactory::CreatePublisher(log.kvo_logger());
    EXPECT_EQ(log.Count("reply time for COR clients [s]: 6"), 1U);
    KvoLogger::WriteToLogger(log.kvo_logger(), 2, "still there");
    EXPECT_EQ(log.Count("still there"), 1U);
    EXPECT_NE(KvoDataTransferFactory::CreateSubscriber(static_cast<KvoLogger*>(nullptr)), nullptr);
}

}  // namespace
}  // namespace kvo::test
