// The least that a hand-over through shared memory can cost: a ring of slots and a futex. A slot
// has a sequence number, a time stamp and the payload; there is no registration, no reader can be
// too slow for it, and nobody survives the death of another.
#include "flow.h"
#include "peers.h"

#include <climits>

#include <atomic>
#include <cstring>
#include <ctime>
#include <immintrin.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kvo::bench {
namespace {

struct SlotHeader {
    // [raw-slot] Release by the writer: the payload is complete. Acquire by the reader.
    std::atomic<std::uint64_t> sequence;  // of the sample here, from 1
    std::uint64_t time_ns;
};

struct RingHeader {
    // [raw-sleep] The writer raises `newest` and then looks for waiting readers, a reader says that
    // it waits and then looks at `newest`: in one total order one of them sees the other.
    alignas(64) std::atomic<std::uint32_t> newest;  // low half of the newest sequence number
    alignas(64) std::atomic<std::uint32_t> waiting;
};

class Ring {
public:
    explicit Ring(const Load& load)
        : load_(load),
          stride_((sizeof(SlotHeader) + load.bytes + 63) / 64 * 64),
          header_(1),
          slots_(stride_ * load.buffers) {}

    const Load& load() const { return load_; }
    RingHeader& header() const { return header_[0]; }
    SlotHeader& slot(std::uint64_t sample) const {
        return reinterpret_cast<SlotHeader&>(slots_[sample % load_.buffers * stride_]);
    }
    static unsigned char* PayloadOf(SlotHeader& slot) {
        return reinterpret_cast<unsigned char*>(&slot + 1);
    }

private:
    const Load load_;
    const std::size_t stride_;
    const SharedPages<RingHeader> header_;
    const SharedPages<unsigned char> slots_;
};

class RingPublisher : public Publisher {
public:
    explicit RingPublisher(const Ring& ring) : ring_(ring) {}
    void Write(const unsigned char* payload) override {
        SlotHeader& slot = ring_.slot(written_);
        slot.time_ns = Now();
        std::memcpy(Ring::PayloadOf(slot), payload, ring_.load().bytes);
        slot.sequence.store(++written_, std::memory_order_release);  // [raw-slot]
    }
    void Tell() override {
        RingHeader& header = ring_.header();
        header.newest.store(static_cast<std::uint32_t>(written_),
                            std::memory_order_seq_cst);             // [raw-sleep]
        if (header.waiting.load(std::memory_order_seq_cst) != 0) {  // [raw-sleep]
            ::syscall(SYS_futex, &header.newest, FUTEX_WAKE, INT_MAX, nullptr, nullptr, 0);
        }
    }

private:
    const Ring& ring_;
    std::uint64_t written_ = 0;
};

class RingSubscriber : public Subscriber {
public:
    explicit RingSubscriber(const Ring& ring) : ring_(ring) {}
    void Receive(Account& account) override {
        while (!account.over()) {
            SlotHeader& slot = ring_.slot(taken_);
            if (slot.sequence.load(std::memory_order_acquire) > taken_) {  // [raw-slot]
                ++taken_;
                account.Take(Ring::PayloadOf(slot));
            } else if (ring_.load().polled) {
                ::_mm_pause();
            } else {
                Wait();
            }
        }
    }

private:
    void Wait() {
        RingHeader& header = ring_.header();
        const timespec longest{0, 100'000'000};
        header.waiting.fetch_add(1, std::memory_order_seq_cst);  // [raw-sleep]
        if (header.newest.load(std::memory_order_seq_cst) ==     // [raw-sleep]
            static_cast<std::uint32_t>(taken_)) {
            ::syscall(SYS_futex, &header.newest, FUTEX_WAIT, static_cast<std::uint32_t>(taken_),
                      &longest, nullptr, 0);
        }
        header.waiting.fetch_sub(1, std::memory_order_seq_cst);  // [raw-sleep]
    }

    const Ring& ring_;
    std::uint64_t taken_ = 0;
};

class RawRing : public Peer {
public:
    explicit RawRing(const Load& load) : ring_(load) {}
    std::unique_ptr<Publisher> MakePublisher() const override {
        return std::make_unique<RingPublisher>(ring_);
    }
    std::unique_ptr<Subscriber> MakeSubscriber(std::size_t) const override {
        return std::make_unique<RingSubscriber>(ring_);
    }

private:
    const Ring ring_;
};

}  // namespace

std::unique_ptr<Peer> MakeRawRing(const Load& load) {
    return std::make_unique<RawRing>(load);
}

}  // namespace kvo::bench
