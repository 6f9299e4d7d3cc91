// The table of settings: what each is called, what it can be and where it goes.
#include "configuration.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <grp.h>
#include <iterator>
#include <limits>
#include <type_traits>
#include <utility>

namespace kvo::brokerd {
namespace {

[[noreturn]] void Refuse(const std::string& value, const std::string& possible) {
    throw ConfigurationError("\"" + value + "\" is not possible: " + possible);
}

template <class T>
T NumberOf(const std::string& text, T least, T most) {
    T number{};
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, number);
    if (text.empty() || error != std::errc() || rest != end || number < least || number > most) {
        Refuse(text,
               "a whole number from " + std::to_string(least) + " to " + std::to_string(most));
    }
    return number;
}

std::uint64_t BytesOf(const std::string& text) {
    std::string bytes = text;
    try {
        CLI::AsSizeValue(false)(bytes);
    } catch (const CLI::Error&) {
        Refuse(text, "bytes, such as 1048576 or 512MiB");
    }
    return NumberOf<std::uint64_t>(bytes, 0, std::numeric_limits<std::int64_t>::max());
}

// The settings below name their field by a function that takes the configuration, const or not.

template <class Member, class Set>
Setting Single(const char* key, const char* help, bool at_run_time, Member member, Set set) {
    using Field = std::remove_cvref_t<decltype(member(std::declval<Configuration&>()))>;
    return {key,
            help,
            at_run_time,
            false,
            [member](const Configuration& c) {
                const Field& field = member(c);
                if constexpr (std::is_same_v<Field, std::string>) {
                    return field;
                } else if constexpr (std::is_same_v<Field, bool>) {
                    return std::string(field ? "true" : "false");
                } else if constexpr (requires { field.count(); }) {
                    return std::to_string(field.count());
                } else {
                    return std::to_string(field);
                }
            },
            [member, set](Configuration& c, const std::vector<std::string>& values) {
                member(c) = static_cast<Field>(set(values.front()));
            }};
}

// A number, or a time in the unit of its field.
template <class Member>
Setting Number(const char* key, const char* help, bool at_run_time, Member member,
               std::int64_t least, std::int64_t most) {
    return Single(key, help, at_run_time, member, [least, most](const std::string& text) {
        return NumberOf<std::int64_t>(text, least, most);
    });
}

template <class Member>
Setting Bytes(const char* key, const char* help, bool at_run_time, Member member) {
    return Single(key, help, at_run_time, member, BytesOf);
}

template <class Member>
Setting Text(const char* key, const char* help, bool at_run_time, Member member) {
    return Single(key, help, at_run_time, member, [](const std::string& text) { return text; });
}

template <class Member>
Setting Flag(const char* key, const char* help, bool at_run_time, Member member) {
    return Single(key, help, at_run_time, member, [](const std::string& text) {
        if (text != "true" && text != "false") {
            Refuse(text, "true or false");
        }
        return text == "true";
    });
}

// One of some words.
template <class Member>
Setting Choice(const char* key, const char* help, bool at_run_time, Member member,
               std::vector<std::string> words) {
    return Single(key, help, at_run_time, member, [words](const std::string& text) {
        if (std::find(words.begin(), words.end(), text) == words.end()) {
            std::string possible = words.front();
            for (std::size_t i = 1; i < words.size(); ++i) {
                possible += (i + 1 < words.size() ? ", " : " or ") + words[i];
            }
            Refuse(text, possible);
        }
        return text;
    });
}

Setting FileMode(const char* key, const char* help) {
    static constexpr std::pair<const char*, std::uint32_t> kModes[] = {
        {"0600", 0600}, {"0640", 0640}, {"0660", 0660}};
    return {key,
            help,
            false,
            false,
            [](const Configuration& c) {
                return std::find_if(std::begin(kModes), std::end(kModes),
                                    [&c](const auto& mode) {
                                        return mode.second == c.broker.file_access.mode;
                                    })
                    ->first;
            },
            [](Configuration& c, const std::vector<std::string>& values) {
                for (const auto& [text, mode] : kModes) {
                    if (values.front() == text) {
                        c.broker.file_access.mode = mode;
                        return;
                    }
                }
                Refuse(values.front(), "the text 0600, 0640 or 0660");
            }};
}

Setting FileGroup(const char* key, const char* help) {
    return {key,
            help,
            false,
            false,
            [](const Configuration& c) {
                const auto group = c.broker.file_access.group;
                return group ? std::to_string(*group) : std::string();
            },
            [](Configuration& c, const std::vector<std::string>& values) {
                const std::string& text = values.front();
                if (text.empty()) {
                    c.broker.file_access.group.reset();
                } else if (const group* const found = ::getgrnam(text.c_str())) {
                    c.broker.file_access.group = found->gr_gid;
                } else if (text.find_first_not_of("0123456789") == std::string::npos) {
                    c.broker.file_access.group = NumberOf<std::uint32_t>(
                        text, 0, std::numeric_limits<std::uint32_t>::max() - 1);
                } else {
                    Refuse(text, "the name or number of a group of this host");
                }
            }};
}

// Any number of texts, each looked at by `check`, which throws std::invalid_argument.
template <class Member, class Check>
Setting List(const char* key, const char* help, bool at_run_time, Member member, Check check) {
    return {key,
            help,
            at_run_time,
            true,
            [member](const Configuration& c) {
                std::string all;
                for (const std::string& text : member(c)) {
                    all += (all.empty() ? "" : ";") + text;
                }
                return all;
            },
            [member, check](Configuration& c, const std::vector<std::string>& values) {
                for (const std::string& text : values) {
                    try {
                        check(text);
                    } catch (const std::invalid_argument& error) {
                        throw ConfigurationError(error.what());
                    }
                }
                member(c) = values;
            }};
}

// NOLINTNEXTLINE(readability-function-size): one entry after the other
std::vector<Setting> MakeSettings() {
    constexpr std::int64_t kMostPort = 65535;
    constexpr std::int64_t kMost = std::numeric_limits<std::int32_t>::max();
    return {
        Text(
            "address", "Address to listen at", false,
            [](auto& c) -> auto& { return c.broker.address; }),
        Number(
            "port", "Port of the requests; 0: any free one", false,
            [](auto& c) -> auto& { return c.broker.port; }, 0, kMostPort),
        Number(
            "notification-port", "Port of the notifications; 0: any free one", false,
            [](auto& c) -> auto& { return c.broker.notification_port; }, 0, kMostPort),
        Text(
            "directory",
            "Directory of the stream files; empty: /dev/shm/kvo-<user id>-<port>, with port 0 a "
            "new one",
            false, [](auto& c) -> auto& { return c.broker.directory; }),
        Text(
            "runtime-directory",
            "Directory of the Unix sockets; empty: /run/kvo where the broker may write it, else "
            "one of its user",
            false, [](auto& c) -> auto& { return c.broker.runtime_directory; }),
        List(
            "access-rules", "Rights of peers; the first rule that matches decides", true,
            [](auto& c) -> auto& { return c.broker.access_rules; }, CheckAccessRule),
        Text(
            "secret-key-file",
            "File with the broker's key, from kvo keys; with one, TCP asks for CURVE", false,
            [](auto& c) -> auto& { return c.broker.secret_key_file; }),
        Text(
            "allowed-keys-file",
            "File with a name and a public key in each line, of the peers that may connect over "
            "TCP",
            true, [](auto& c) -> auto& { return c.broker.allowed_keys_file; }),
        Flag(
            "allow-plaintext", "Serve other hosts without CURVE; true or false", false,
            [](auto& c) -> auto& { return c.broker.allow_plaintext; }),
        Flag(
            "local-topics",
            "Let publishers of this host wake their subscribers through memory; true or false",
            false, [](auto& c) -> auto& { return c.broker.local_topics; }),
        FileMode("file-mode",
                 "Mode of the stream files: 0600 for the broker's user alone, 0640 lets the group "
                 "read, 0660 read and write"),
        FileGroup("file-group",
                  "Group of the stream files, name or number; empty: the broker's own"),
        Number(
            "heartbeat-period", "Seconds between the heartbeats of a client; 0: none", false,
            [](auto& c) -> auto& { return c.broker.heartbeat_period; }, 0, kMost),
        Number(
            "heartbeat-timeout",
            "Seconds without a heartbeat until a client is unregistered; at least 3", true,
            [](auto& c) -> auto& { return c.broker.heartbeat_timeout; }, 3, kMost),
        Number(
            "removal-grace", "Milliseconds from the end of a publisher to the end of its file",
            true, [](auto& c) -> auto& { return c.broker.removal_grace; }, 0, kMost),
        Number(
            "max-streams", "Most streams at a time", true,
            [](auto& c) -> auto& { return c.broker.max_streams; }, 1, kMost),
        Bytes(
            "memory-budget",
            "Most shared memory of all streams, such as 512MiB; 0: half of the file system", true,
            [](auto& c) -> auto& { return c.broker.memory_budget_bytes; }),
        Bytes(
            "spare-memory", "Memory of the spare slots of each stream, such as 16MiB", false,
            [](auto& c) -> auto& { return c.broker.spare_slots.budget_bytes; }),
        Number(
            "pins-per-reader", "Samples that a reader holds without a copy, 1 to 6", false,
            [](auto& c) -> auto& { return c.broker.spare_slots.pins_per_entry; }, 1, 6),
        Number(
            "max-connections", "Most connections at a time", false,
            [](auto& c) -> auto& { return c.broker.max_connections; }, 1, 1'000'000),
        Number(
            "request-rate", "Requests a second of one connection; 0: no limit", true,
            [](auto& c) -> auto& { return c.broker.request_rate; }, 0, kMost),
        Number(
            "request-burst", "Requests of one connection at once, above the rate", true,
            [](auto& c) -> auto& { return c.broker.request_burst; }, 1, kMost),
        Number(
            "pending-answers", "Most answers that wait for one connection; more are dropped", false,
            [](auto& c) -> auto& { return c.broker.pending_answers; }, 1, 1'000'000),
        Number(
            "client-streams",
            "Most streams that one process publishes or subscribes to; 0: no limit", true,
            [](auto& c) -> auto& { return c.broker.client_streams; }, 0, kMost),
        Bytes(
            "client-memory",
            "Most shared memory of the streams that one process publishes; 0: no limit", true,
            [](auto& c) -> auto& { return c.broker.client_memory_bytes; }),
        Number(
            "user-streams",
            "Most streams that one user or key publishes or subscribes to; 0: no limit", true,
            [](auto& c) -> auto& { return c.broker.user_streams; }, 0, kMost),
        Bytes(
            "user-memory",
            "Most shared memory of the streams that one user or key publishes; 0: no limit", true,
            [](auto& c) -> auto& { return c.broker.user_memory_bytes; }),
        Text(
            "broker-name",
            "What other brokers call this one, and its exported topics; empty: the host's name and "
            "the port",
            false, [](auto& c) -> auto& { return c.broker.name; }),
        Text(
            "federation-module",
            "Module that moves samples between hosts; empty: the one installed with the broker",
            false, [](auto& c) -> auto& { return c.broker.federation.module; }),
        List(
            "export-streams",
            "Streams that are exported whenever they are published, such as /camera/*; others are "
            "when a broker asks",
            false, [](auto& c) -> auto& { return c.broker.exported_streams; },
            [](const std::string&) {}),
        Number(
            "dds-domain", "DDS domain of remote streams", false,
            [](auto& c) -> auto& { return c.broker.federation.domain; }, 0, 230),
        List(
            "dds-interfaces",
            "Network interfaces for samples, by name or address; none: the engine chooses", false,
            [](auto& c) -> auto& { return c.broker.federation.interfaces; },
            [](const std::string&) {}),
        List(
            "dds-peers",
            "Hosts of other brokers, for networks without multicast; none: multicast finds them",
            false, [](auto& c) -> auto& { return c.broker.federation.peers; },
            [](const std::string&) {}),
        Text(
            "dds-identity-ca", "DDS security: certificate of the authority for identities", false,
            [](auto& c) -> auto& { return c.broker.federation.identity_ca; }),
        Text(
            "dds-identity-certificate", "DDS security: this broker's certificate", false,
            [](auto& c) -> auto& { return c.broker.federation.identity_certificate; }),
        Text(
            "dds-private-key", "DDS security: this broker's private key", false,
            [](auto& c) -> auto& { return c.broker.federation.private_key; }),
        Text(
            "dds-permissions-ca", "DDS security: certificate of the authority for permissions",
            false, [](auto& c) -> auto& { return c.broker.federation.permissions_ca; }),
        Text(
            "dds-governance", "DDS security: signed governance document", false,
            [](auto& c) -> auto& { return c.broker.federation.governance; }),
        Text(
            "dds-permissions", "DDS security: signed permissions document", false,
            [](auto& c) -> auto& { return c.broker.federation.permissions; }),
        Choice("log-level", "debug, info, warning or error", true,
               [](auto& c) -> auto& { return c.log_level; }, {"debug", "info", "warning", "error"}),
        Text(
            "log-configuration", "log4cplus properties file for the log; empty: to standard error",
            false, [](auto& c) -> auto& { return c.log_configuration; }),
        Text(
            "http-address", "Address of health, metrics and the read-only interface", false,
            [](auto& c) -> auto& { return c.http_address; }),
        Number(
            "http-port", "Port of health, metrics and the read-only interface; 0: none", false,
            [](auto& c) -> auto& { return c.http_port; }, 0, kMostPort),
    };
}

}  // namespace

const std::vector<Setting>& Settings() {
    static const std::vector<Setting> settings = MakeSettings();
    return settings;
}

}  // namespace kvo::brokerd
