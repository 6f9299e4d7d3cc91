#include "remote/export_group.h"

#include <exception>
#include <utility>

namespace kvo::brokerd {
namespace {

// The shared transfer does not keep up when the sample that is being sent is older than this, or
// samples are lost before they are sent. After kPatience without a break the group splits.
constexpr std::chrono::milliseconds kMostLag{300};
constexpr std::chrono::milliseconds kPatience{300};
constexpr std::chrono::seconds kSplitRetry{10};
// An import sends a request every second; after a short disconnection its export still runs.
constexpr std::chrono::seconds kRequestTimeout{10};
constexpr std::size_t kMostSplit = 32;  // each has a thread and a reader entry of the stream file

}  // namespace

bool ExportGroup::Request(const std::string& importer, TimePoint now) {
    thread_.here();
    if (importers_.size() >= kMostImporters && importers_.count(importer) == 0) {
        return false;
    }
    importers_[importer].requested = now;
    return true;
}

void ExportGroup::Send(std::uint64_t epoch) {
    thread_.here();
    if (epoch_ != epoch) {
        Pause();
    }
    Start();
    epoch_ = epoch;
}

void ExportGroup::Start() {
    if (shared_ == nullptr && (!split_ || always_)) {
        shared_ = calls_.start({});
        shared_lost_ = 0;
    }
    for (auto& [name, importer] : importers_) {
        if (split_ && importer.own == nullptr) {
            importer.own = calls_.start(name);
        }
    }
}

void ExportGroup::Pause() {
    thread_.here();
    epoch_ = 0;
    End(shared_, shared_before_);
    for (auto& [name, importer] : importers_) {
        End(importer.own, importer.before);
    }
}

void ExportGroup::Signal() {
    thread_.here();
    if (shared_ != nullptr) {
        shared_->Signal();
    }
    for (auto& [name, importer] : importers_) {
        if (importer.own != nullptr) {
            importer.own->Signal();
        }
    }
}

void ExportGroup::End(Transfer& transfer, TransferCounters& before) {
    if (transfer != nullptr) {
        before = TotalOf(before, transfer.get());
        calls_.end(std::move(transfer));
    }
}

void ExportGroup::EndImporters(TimePoint now) {
    for (auto entry = importers_.begin(); entry != importers_.end();) {
        Importer& importer = entry->second;
        if (now - importer.requested <= kRequestTimeout) {
            ++entry;
            continue;
        }
        End(importer.own, importer.before);
        ended_ = ended_ + importer.before;
        entry = importers_.erase(entry);
    }
    split_ = split_ && !importers_.empty();
}

bool ExportGroup::Tick(TimePoint now) {
    thread_.here();
    EndImporters(now);
    if (importers_.empty() && (!always_ || epoch_ == 0)) {
        Pause();
        return false;
    }
    if (epoch_ != 0 && !split_) {
        WatchShared(now);
    }
    for (auto& [name, importer] : importers_) {
        importer.rates.Update(SentTo(importer), now);
    }
    shared_rates_.Update(TotalOf(shared_before_, shared_.get()), now);
    return true;
}

// Since it was called last.
bool ExportGroup::KeepsUp() {
    const TransferCounters counters = shared_->Counters();
    const std::uint64_t lost = counters.overrun + counters.dropped_by_back_pressure;
    return std::exchange(shared_lost_, lost) == lost && shared_->Lag() <= kMostLag;
}

void ExportGroup::WatchShared(TimePoint now) {
    if (KeepsUp() || importers_.size() < 2 || importers_.size() > kMostSplit || now < retry_) {
        kept_up_ = now;
    } else if (now - kept_up_ >= kPatience) {
        Split(now);
    }
}

void ExportGroup::Split(TimePoint now) {
    split_ = true;
    try {
        Start();
    } catch (const std::exception& error) {
        split_ = false;
        retry_ = now + kSplitRetry;
        for (auto& [name, importer] : importers_) {
            if (importer.own != nullptr) {
                importer.own->Abandon();
                End(importer.own, importer.before);
            }
        }
        calls_.log(3, std::string("the export cannot be split: ") + error.what());
        return;
    }
    if (!always_) {
        shared_->Abandon();
        End(shared_, shared_before_);
    }
    calls_.log(3,
               "an importing broker does not keep up; each has a transfer of its own from now on");
}

TransferCounters ExportGroup::SentTo(const Importer& importer) const {
    return TotalOf(shared_before_, shared_.get()) + TotalOf(importer.before, importer.own.get());
}

TransferCounters ExportGroup::Total() const {
    TransferCounters total = TotalOf(shared_before_, shared_.get()) + ended_;
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
        add("any", Total(), shared_rates_);
    }
    return states;
}

}  // namespace kvo::brokerd
