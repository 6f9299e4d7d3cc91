#include "remote/remote_brokers.h"

#include "gorm/cor/cor.h"
#include "kvo/broker/data_broker_registration_sync.h"
#include "kvo/broker/stream_description.h"
#include "network/uri.hpp"
#include "remote/broker_uri.h"
#include "remote/host_lookup.h"
#include "streams/stream_name.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <stdexcept>
#include <utility>

namespace kvo::brokerd {
namespace {

using SteadyClock = std::chrono::steady_clock;

// Together they are less than two seconds.
constexpr std::chrono::milliseconds kNamePatience{600};
constexpr std::chrono::milliseconds kReplyTime{1200};
constexpr std::chrono::seconds kIdle{10};
constexpr std::size_t kMostQuestions = 1000;  // that wait for one broker

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

    // The questions that wait would run into the same time-out.
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
        const BrokerPlace place = PlaceOf(uri_);
        const std::string uri = std::string(kBrokerScheme) + "://" +
                                LookUpHost(place.host, kNamePatience) + ":" + place.port +
                                std::string(kBrokerPath);
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
    : own_uri_(std::string(kBrokerScheme) + "://" + name), loop_(loop) {}

RemoteBrokers::~RemoteBrokers() {
    for (const auto& [uri, peer] : peers_) {
        peer->Stop();
    }
}

void RemoteBrokers::Ask(const std::string& broker, const std::string& stream, bool to_export,
                        Answered answered) {
    thread_.here();
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
    thread_.here();
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
