#include "domain_configuration.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace kvo::brokerd::dds {
namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;

TEST(DomainConfiguration, HoldsWhatTheBrokerWasToldAndNothingElse) {
    FederationOptions options;
    options.domain = 42;
    EXPECT_THAT(DomainConfiguration(options, "/plugins"), HasSubstr("<Domain id=\"42\">"));
    EXPECT_THAT(DomainConfiguration(options, "/plugins"), Not(HasSubstr("Peer")));
    EXPECT_THAT(DomainConfiguration(options, "/plugins"), Not(HasSubstr("Security")));
    options.interfaces = {"eth0", "192.168.1.5"};
    options.peers = {"10.0.0.2", "a\"><b"};
    const std::string xml = DomainConfiguration(options, "/plugins");
    EXPECT_THAT(xml, HasSubstr("<NetworkInterface name=\"eth0\"/>"));
    EXPECT_THAT(xml, HasSubstr("<NetworkInterface address=\"192.168.1.5\"/>"));
    EXPECT_THAT(xml, HasSubstr("<Peer address=\"10.0.0.2\"/>"));
    EXPECT_THAT(xml, HasSubstr("<Peer address=\"a&quot;>&lt;b\"/>"));
    EXPECT_THAT(xml, HasSubstr("<AllowMulticast>false</AllowMulticast>"));
}

TEST(DomainConfiguration, SecurityNeedsAllOfItsFiles) {
    FederationOptions options;
    options.identity_ca = "/etc/kvo/dds/identity-ca.pem";
    options.identity_certificate = options.private_key = options.permissions_ca =
        options.governance = "/x";
    try {
        DomainConfiguration(options, "/plugins");
        FAIL() << "without permissions";
    } catch (const std::runtime_error& error) {
        EXPECT_THAT(error.what(), HasSubstr("dds-permissions is missing"));
    }
    options.permissions = "/y";
    EXPECT_THAT(DomainConfiguration(options, "/plugins"),
                AllOf(HasSubstr("path=\"/plugins/libdds_security_ac.so\""),
                      HasSubstr("<IdentityCA>file:/etc/kvo/dds/identity-ca.pem</IdentityCA>")));
}

}  // namespace
}  // namespace kvo::brokerd::dds
