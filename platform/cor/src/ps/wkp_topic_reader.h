#pragma once

#include "gorm/cor/ps/subscriber.h"
#include "transport/address.h"
#include "transport/poll_loop.h"

#include <zmq.hpp>

#include <memory>

namespace gorm::cor::ps {

/// A subscription over a socket and a delivery thread of its own. Any thread.
class WkpTopicReader final : public TopicReader {
public:
    /// Subscribes at once; throws Error.
    WkpTopicReader(zmq::context_t& context, const Address& address,
                   std::shared_ptr<const SampleCodec> codec);
    ~WkpTopicReader() override;

    rr::ListenerRegistration Listen(Listener listener) override;

private:
    class Feed;
    std::shared_ptr<Feed> feed_;  // shared with the delivery thread, which may outlive us
    PollLoop loop_{"cor-topic"};
};

}  // namespace gorm::cor::ps
