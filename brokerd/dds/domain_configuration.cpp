#include "domain_configuration.h"

#include <arpa/inet.h>
#include <array>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace kvo::brokerd::dds {
namespace {

std::string Escaped(std::string_view text) {
    std::string escaped;
    for (const char c : text) {
        switch (c) {
            case '&':
                escaped += "&amp;";
                break;
            case '<':
                escaped += "&lt;";
                break;
            case '"':
                escaped += "&quot;";
                break;
            default:
                escaped += c;
        }
    }
    return escaped;
}

std::string Element(std::string_view name, std::string_view content) {
    return "<" + std::string(name) + ">" + std::string(content) + "</" + std::string(name) + ">";
}

bool IsAddress(const std::string& text) {
    std::array<unsigned char, sizeof(in6_addr)> bytes{};
    return ::inet_pton(AF_INET, text.c_str(), bytes.data()) == 1 ||
           ::inet_pton(AF_INET6, text.c_str(), bytes.data()) == 1;
}

std::string General(const FederationOptions& options) {
    std::string interfaces;
    for (const std::string& interface : options.interfaces) {
        interfaces += std::string("<NetworkInterface ") +
                      (IsAddress(interface) ? "address" : "name") + "=\"" + Escaped(interface) +
                      "\"/>";
    }
    // Datagrams as large as UDP has them: with the usual ones a sample of 1 MiB is hundreds of
    // fragments, and each costs a system call and a place in the socket's buffer.
    return Element("General",
                   (interfaces.empty() ? "" : Element("Interfaces", interfaces)) +
                       Element("AllowMulticast", options.peers.empty() ? "default" : "false") +
                       Element("MaxMessageSize", "65500B") + Element("FragmentSize", "65000B"));
}

std::string Discovery(const FederationOptions& options) {
    // A host that is cut off or stopped holds the others up until its lease has ended.
    std::string discovery = Element("LeaseDuration", "1s");
    if (!options.peers.empty()) {
        std::string peers;
        for (const std::string& peer : options.peers) {
            peers += "<Peer address=\"" + Escaped(peer) + "\"/>";
        }
        discovery += Element("ParticipantIndex", "auto") +
                     Element("MaxAutoParticipantIndex", "20") + Element("Peers", peers);
    }
    return Element("Discovery", discovery);
}

std::string Internal() {
    // NackDelay, AckDelay: what a socket's buffer had no room for is asked for again soon; the
    // engine's own 100 ms for each time make seconds of a large sample. Watermarks: what may be
    // under way before a writer waits for its readers. With more a link that is too slow loses
    // parts of so many datagrams that the receiving kernel has no room left to put others together:
    // then nothing comes at all.
    return Element("Internal", Element("NackDelay", "10ms") + Element("AckDelay", "1ms") +
                                   Element("Watermarks", Element("WhcHigh", "1MB") +
                                                             Element("WhcHighInit", "100kB") +
                                                             Element("WhcLow", "64kB")) +
                                   "<SocketReceiveBufferSize max=\"16MB\"/>"
                                   "<SocketSendBufferSize max=\"4MB\"/>");
}

std::string FileUri(const std::string& path) {
    return Escaped(path.find(':') == std::string::npos ? "file:" + path : path);
}

std::string Security(const FederationOptions& options, const std::string& plugins) {
    const std::array<std::pair<const char*, const std::string&>, 6> files{{
        {"dds-identity-ca", options.identity_ca},
        {"dds-identity-certificate", options.identity_certificate},
        {"dds-private-key", options.private_key},
        {"dds-permissions-ca", options.permissions_ca},
        {"dds-governance", options.governance},
        {"dds-permissions", options.permissions},
    }};
    bool any = false;
    for (const auto& [name, file] : files) {
        any = any || !file.empty();
    }
    if (!any) {
        return "";
    }
    for (const auto& [name, file] : files) {
        if (file.empty()) {
            throw std::runtime_error(std::string("DDS security needs all of its files; ") + name +
                                     " is missing");
        }
    }
    const auto library = [&plugins](const std::string& name, const char* function) {
        return "<Library path=\"" +
               Escaped(plugins.empty() ? name : plugins + "/lib" + name + ".so") +
               "\" initFunction=\"init_" + function + "\" finalizeFunction=\"finalize_" + function +
               "\"/>";
    };
    return Element(
        "Security",
        Element("Authentication",
                library("dds_security_auth", "authentication") +
                    Element("IdentityCA", FileUri(options.identity_ca)) +
                    Element("IdentityCertificate", FileUri(options.identity_certificate)) +
                    Element("PrivateKey", FileUri(options.private_key))) +
            Element("AccessControl", library("dds_security_ac", "access_control") +
                                         Element("PermissionsCA", FileUri(options.permissions_ca)) +
                                         Element("Governance", FileUri(options.governance)) +
                                         Element("Permissions", FileUri(options.permissions))) +
            Element("Cryptographic", library("dds_security_crypto", "crypto")));
}

}  // namespace

std::string DomainConfiguration(const FederationOptions& options, const std::string& plugins) {
    return Element("CycloneDDS", "<Domain id=\"" + std::to_string(options.domain) + "\">" +
                                     General(options) + Discovery(options) + Internal() +
                                     Security(options, plugins) + "</Domain>");
}

}  // namespace kvo::brokerd::dds
