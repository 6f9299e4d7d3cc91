#include "remote/remote_brokers.h"

#include "gorm/cor/cor.h"
#include "kvo/broker/data_broker_registration_sync.h"
#include "kvo/broker/stream_description.h"
#include "network/uri.hpp"
#include "streams/stream_name.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <chrono>
#include <exception>
#include <netdb.h>
#include <optional>
#include <stdexcept>
#include <utility>

namespace kvo::brokerd {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::string_view kScheme = "wkp.rr";
constexpr std::string_view kPath = "/broker/Broker1";
// Together they are less than two seconds.
constexpr std::chrono::milliseconds kNamePatience{600};
constexpr std::chrono::milliseconds kReplyTime{1200};
constexpr std::chrono::seconds kIdle{10};
constexpr std::size_t kMostQuestions = 1000;  // that wait for one broker

struct Place {
    std::string host;
    std::string port;
};

Place PlaceOf(const std::string& text) {
    const auto refuse = [&text](const char* why) {
        return std::runtime_error(Quoted(text) + " names no broker: " + why +
                                  "; a broker's URI looks like wkp.rr://host:5000");
    };
    try {
        const network::uri uri(text);
        const std::string port(uri.port());
        int number = 0;
        const auto [end, error] = std::from_chars(port.data(), port.data() + port.size(), number);
        if (uri.scheme() != kScheme) {
            throw refuse("its scheme is another one");
        }
        if (error != std::errc() || end != port.data() + port.size() || number < 1 ||
            number > 65535) {
            throw refuse("it has no port from 1 to 65535");
        }
        if (!uri.path().empty() && uri.path() != "/" && uri.path() != kPath) {
            throw refuse("its path is another one");
        }
        return {std::string(uri.host()), port};
    } catch (const network::uri_syntax_error& error) {
        throw refuse(error.what());
    }
}

// The name server may be slow, and the transport would make everybody wait for it. Detached:
// nobody could end it.
std::string NumberOf(const std::string& host) {
    struct Found {
        std::mutex mutex;
        std::condition_variable changed;
        bool done = false;
        int fault = 0;
        std::string number;
    };
    std::string bare = host;
    if (bare.size() > 2 && bare.front() == '[') {
        bare = bare.substr(1, bare.size() - 2);
    }
    const auto found = std::make_shared<Found>();
    std::thread([found, bare] {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* list = nullptr;
        const int fault = ::getaddrinfo(bare.c_str(), nullptr, &hints, &list);
        std::array<char, NI_MAXHOST> number{};
        bool ipv6 = false;
        if (fault == 0) {
            // Brokers listen at IPv4 addresses, unless they have been told another one.
            const addrinfo* chosen = list;
            while (chosen != nullptr && chosen->ai_family != AF_INET) {
                chosen = chosen->ai_next;
            }
            chosen = chosen != nullptr ? chosen : list;
            ::getnameinfo(chosen->ai_addr, chosen->ai_addrlen, number.data(), number.size(),
                          nullptr, 0, NI_NUMERICHOST);
            ipv6 = chosen->ai_family == AF_INET6;
            ::freeaddrinfo(list);
        }
        const std::lock_guard lock(found->mutex);
        found->done = true;
        found->fault = fault;
        found->number = ipv6 ? "[" + std::string(number.data()) + "]" : number.data();
        found->changed.notify_all();
    }).detach();
    std::unique_lock lock(found->mutex);
    if (!found->changed.wait_for(lock, kNamePatience, [&found] { return found->done; })) {
        throw std::runtime_error("the host " + host + " was not found in time");
    }
    if (found->fault != 0) {
        throw std::runtime_error("the host " + host +
                                 " is unknown: " + ::gai_strerror(found->fault));
    }
    return found->number;
}

// Null: it can be used. The keys that other fields need are those of every answer.
const char* CheckDescription(const StreamDescription& description) {
    if (description.broker.empty()) {
        return "names no broker";
    }
    return description.published && description.epoch == 0 ? "names no epoch" : nullptr;
}

// Keys are named by the host as it was written.
gorm::cor::Properties PropertiesFor(const gorm::cor::Cor& cor, const std::string& host) {
    const gorm::cor::Properties defaults = cor.getDefaultProperties();
    const auto key = defaults.find("server-key@" + host);
    return key == defaults.end() ? gorm::cor::Properties()
                                 : gorm::cor::Properties{{"server-key", key->second}};
}

}  // namespace

std::string CompleteBrokerUri(const std::string& text) {
    const Place place = PlaceOf(text);
    return std::string(kScheme) + "://" + place.host + ":" + place.port;
}

/// One other broker. Shared by its thread, which may outlive the owner by a question.
class RemoteBrokers::Peer {
public:
    Peer(std::string uri, std::string importer, gorm::cor::ServiceLoop& loop)
        : uri_(std::move(uri)), importer_(std::move(importer)), loop_(loop) {}

    void Start(const std::shared_ptr<Peer>& self) {
        thread_ = std::thread([self] { self->Run(); });
    }

    bool Add(const std::string& stream, bool to_export, Answered answered) {
        const std::lock_guard lock(mutex_);
        if (questions_.size() >= kMostQuestions) {
            return false;
        }
        questions_.push_back({stream, to_export, std::move(answered)});
        changed_.notify_one();
        used_ = SteadyClock::now();
        return true;
    }

    bool idle() {
        const std::lock_guard lock(mutex_);
        return questions_.empty() && !busy_ && SteadyClock::now() - used_ > kIdle;
    }

    /// Waits for the question that is under way, for at most two seconds.
    void Stop() {
        {
            const std::lock_guard lock(mutex_);
            stopping_ = true;
            questions_.clear();
            changed_.notify_one();
        }
        thread_.join();
    }

private:
    struct Question {
        std::string stream;
        bool to_export;
        Answered answered;
    };

    void Run() {
        for (;;) {
            Question question;
            {
                std::unique_lock lock(mutex_);
                busy_ = false;
                changed_.wait(lock, [this] { return stopping_ || !questions_.empty(); });
                if (stopping_) {
                    break;
                }
                question = std::move(questions_.front());
                questions_.pop_front();
                busy_ = true;
            }
            const Answer answer = AnswerTo(question);
            loop_.Post([answered = std::move(question.answered), answer] { answered(answer); });
            if (answer.verdict.code == kUnknownRemoteBroker) {
                AnswerAll(answer);
            }
        }
        client_.reset();
    }

    // Nobody who has waited has to wait for the same once more.
    void AnswerAll(const Answer& answer) {
        std::deque<Question> questions;
        {
            const std::lock_guard lock(mutex_);
            questions.swap(questions_);
        }
        for (Question& question : questions) {
            loop_.Post([answered = std::move(question.answered), answer] { answered(answer); });
        }
    }

    Answer AnswerTo(const Question& question) {
        Answer answer;
        try {
            if (client_ == nullptr) {
                Connect();
            }
            answer.description =
                client_->DescribeStream(question.stream, question.to_export ? importer_ : "");
            if (const char* const fault = CheckDescription(answer.description); fault != nullptr) {
                throw gorm::cor::rr::RemoteError(std::string("DescribeStream: the answer ") +
                                                 fault);
            }
        } catch (const gorm::cor::rr::RemoteError& error) {
            answer.verdict = {kNoRemoteStream, "the broker " + uri_ + " does not give stream " +
                                                   Quoted(question.stream) + ": " + error.what()};
        } catch (const std::exception& error) {
            answer.verdict = {kUnknownRemoteBroker,
                              "no broker answers at " + uri_ + ": " + error.what()};
            client_.reset();  // its host may have another address by now
        }
        return answer;
    }

    void Connect() {
        const Place place = PlaceOf(uri_);
        const std::string uri = std::string(kScheme) + "://" + NumberOf(place.host) + ":" +
                                place.port + std::string(kPath);
        auto& factory = gorm::cor::loadCorForUri(uri, {});
        const network::uri parsed(uri);
        const gorm::cor::rr::qos::QoSList qos{
            std::make_shared<gorm::cor::rr::qos::ReplyTime>(kReplyTime)};
        client_ = factory.getClient<DataBrokerRegistrationSync>(
            parsed, qos, PropertiesFor(factory.getCor(parsed), place.host));
    }

    const std::string uri_;
    const std::string importer_;
    gorm::cor::ServiceLoop& loop_;
    std::thread thread_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Question> questions_;  // under the mutex, as all up to here
    bool busy_ = false;
    bool stopping_ = false;
    SteadyClock::time_point used_ = SteadyClock::now();

    std::unique_ptr<DataBrokerRegistrationSync> client_;  // the thread's
};

RemoteBrokers::RemoteBrokers(const std::string& name, gorm::cor::ServiceLoop& loop)
    : own_uri_(std::string(kScheme) + "://" + name), loop_(loop) {}

RemoteBrokers::~RemoteBrokers() {
    for (const auto& [uri, peer] : peers_) {
        peer->Stop();
    }
}

void RemoteBrokers::Ask(const std::string& broker, const std::string& stream, bool to_export,
                        Answered answered) {
    auto& peer = peers_[broker];
    if (peer == nullptr) {
        peer = std::make_shared<Peer>(broker, own_uri_, loop_);
        peer->Start(peer);
    }
    if (!peer->Add(stream, to_export, answered)) {
        loop_.Post([answered = std::move(answered), broker] {
            answered(
                {{}, {kUnknownRemoteBroker, "too many questions wait for the broker " + broker}});
        });
    }
}

void RemoteBrokers::ForgetIdle() {
    for (auto entry = peers_.begin(); entry != peers_.end();) {
        if (entry->second->idle()) {
            entry->second->Stop();  // at once, since it is idle
            entry = peers_.erase(entry);
        } else {
            ++entry;
        }
    }
}

}  // namespace kvo::brokerd
