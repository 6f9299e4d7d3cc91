#include "remote/export_group.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>

namespace kvo::brokerd {
namespace {

// A transfer does not keep up when what it sends has been written so long ago, or samples are lost
// before they are sent. One that is shared is given up when that is so without a break for a while.
constexpr std::chrono::milliseconds kBehind{300};
constexpr std::chrono::milliseconds kPatience{300};
// From one look at transfers of brokers that are apart to the next.
constexpr std::chrono::seconds kTrial{5};
constexpr std::chrono::seconds kUpToDate{60};
// How long they stay together after being apart was of no use, each time twice as long.
constexpr std::chrono::seconds kFirstPause{10};
constexpr std::chrono::seconds kLongestPause{600};
// An import asks every second; one that is cut off for a moment finds its export still there.
constexpr std::chrono::seconds kAskPatience{10};
constexpr std::size_t kMostApart = 32;  // each has a thread and a reader of the stream file

}  // namespace

ExportGroup::ExportGroup(Calls calls) : calls_(std::move(calls)), pause_(kFirstPause) {}

bool ExportGroup::Asked(const std::string& importer, TimePoint now) {
    if (importers_.size() >= kMostImporters && importers_.count(importer) == 0) {
        return false;
    }
    importers_[importer].asked = now;
    return true;
}

void ExportGroup::Send(std::uint64_t epoch) {
    if (epoch_ != epoch) {
        Pause();
    }
    Start();
    epoch_ = epoch;
}

void ExportGroup::Start() {
    if (common_ == nullptr && (!apart_ || to_anybody_)) {
        common_ = calls_.start({});
        common_lost_ = 0;
    }
    for (auto& [name, importer] : importers_) {
        if (apart_ && importer.own == nullptr) {
            importer.own = calls_.start(name);
            importer.samples_seen = importer.lost = 0;
        }
    }
}

void ExportGroup::Pause() {
    epoch_ = 0;
    Retire(common_, common_before_);
    for (auto& [name, importer] : importers_) {
        Retire(importer.own, importer.before);
    }
}

void ExportGroup::Signal() {
    if (common_ != nullptr) {
        common_->Signal();
    }
    for (auto& [name, importer] : importers_) {
        if (importer.own != nullptr) {
            importer.own->Signal();
        }
    }
}

void ExportGroup::Retire(Transfer& transfer, TransferCounters& before) {
    if (transfer != nullptr) {
        before = TotalOf(before, transfer.get());
        calls_.end(std::move(transfer));
    }
}

bool ExportGroup::Tick(TimePoint now) {
    for (auto entry = importers_.begin(); entry != importers_.end();) {
        Importer& importer = entry->second;
        if (now - importer.asked <= kAskPatience) {
            ++entry;
            continue;
        }
        Retire(importer.own, importer.before);
        gone_ = gone_ + importer.before;
        entry = importers_.erase(entry);
    }
    if (importers_.empty() && (!to_anybody_ || epoch_ == 0)) {
        Pause();
        return false;
    }
    if (epoch_ != 0) {
        apart_ ? WatchApart(now) : WatchTogether(now);
    }
    for (auto& [name, importer] : importers_) {
        importer.rates.Update(SentTo(importer), now);
    }
    common_rates_.Update(TotalOf(common_before_, common_.get()), now);
    return true;
}

// Since it was asked last.
bool ExportGroup::KeepsUp(const RemoteTransfer& transfer, std::uint64_t& lost) {
    const TransferCounters counters = transfer.Counters();
    const std::uint64_t lost_now = counters.overrun + counters.dropped_by_back_pressure;
    return std::exchange(lost, lost_now) == lost_now && transfer.Lag() <= kBehind;
}

void ExportGroup::WatchTogether(TimePoint now) {
    const bool slow = !KeepsUp(*common_, common_lost_);
    if (!slow || importers_.size() < 2 || importers_.size() > kMostApart || now < together_until_) {
        up_to_date_ = now;
    } else if (now - up_to_date_ >= kPatience) {
        Part(now);
    }
}

void ExportGroup::Part(TimePoint now) {
    apart_ = true;
    looked_ = up_to_date_ = now;
    try {
        Start();
    } catch (const std::exception& error) {
        apart_ = false;
        EndOwn();
        StayTogether(now);
        calls_.log(3, std::string("brokers can not be sent to one by one: ") + error.what());
        return;
    }
    if (!to_anybody_) {
        common_->Abandon();
        Retire(common_, common_before_);
    }
    calls_.log(3, "not all brokers that import it keep up; each is sent to by itself from now on");
}

void ExportGroup::Join(const std::string& why) {
    apart_ = false;
    try {
        Start();
    } catch (const std::exception& error) {
        apart_ = true;
        calls_.log(4, std::string("brokers can not be sent to together again: ") + error.what());
        return;
    }
    EndOwn();
    calls_.log(2, why);
}

void ExportGroup::EndOwn() {
    for (auto& [name, importer] : importers_) {
        if (importer.own != nullptr) {
            importer.own->Abandon();
            Retire(importer.own, importer.before);
        }
    }
}

void ExportGroup::StayTogether(TimePoint now) {
    together_until_ = now + pause_;
    pause_ = std::min(2 * pause_, kLongestPause);
}

void ExportGroup::WatchApart(TimePoint now) {
    if (now - looked_ < kTrial) {
        return;
    }
    looked_ = now;
    if (importers_.size() < 2) {
        Join("a single broker imports it");
        return;
    }
    std::size_t behind = 0;
    std::uint64_t least = std::numeric_limits<std::uint64_t>::max();
    std::uint64_t most = 0;
    for (auto& [name, importer] : importers_) {
        if (importer.own == nullptr) {
            continue;  // it was refused
        }
        const std::uint64_t samples = importer.own->Counters().samples;
        const std::uint64_t sent = samples - std::exchange(importer.samples_seen, samples);
        behind += KeepsUp(*importer.own, importer.lost) ? 0 : 1;
        least = std::min(least, sent);
        most = std::max(most, sent);
    }
    if (behind == 0) {
        if (now - up_to_date_ >= kUpToDate) {
            Join("all brokers that import it keep up, so they are sent to together again");
        }
        return;
    }
    up_to_date_ = now;
    if (behind == importers_.size() && most < 2 * least) {
        Join("no broker that imports it keeps up, so they are sent to together again");
        StayTogether(now);
    } else {
        pause_ = kFirstPause;
    }
}

TransferCounters ExportGroup::SentTo(const Importer& importer) const {
    return TotalOf(common_before_, common_.get()) + TotalOf(importer.before, importer.own.get());
}

TransferCounters ExportGroup::Total() const {
    TransferCounters total = TotalOf(common_before_, common_.get()) + gone_;
    for (const auto& [name, importer] : importers_) {
        total = total + TotalOf(importer.before, importer.own.get());
    }
    return total;
}

std::vector<std::string> ExportGroup::Importers() const {
    std::vector<std::string> names;
    for (const auto& [name, importer] : importers_) {
        names.push_back(name);
    }
    return names;
}

std::vector<RemoteStreamState> ExportGroup::States() const {
    std::vector<RemoteStreamState> states;
    const auto add = [&](const std::string& broker, const TransferCounters& total,
                         const TransferRates& rates) {
        states.push_back(StateOf(total, rates));
        states.back().broker = broker;
        states.back().live = epoch_ != 0;
    };
    for (const auto& [name, importer] : importers_) {
        add(name, SentTo(importer), importer.rates);
    }
    if (importers_.empty()) {
        add("anybody", Total(), common_rates_);
    }
    return states;
}

}  // namespace kvo::brokerd
