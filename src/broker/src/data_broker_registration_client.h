#pragma once

#include "gorm/cor/rr/channel.h"
#include "gorm/cor/rr/client.h"

#include <memory>

namespace kvo {

/// The client stub of DataBrokerRegistrationSync on a channel.
std::unique_ptr<gorm::cor::rr::Client> MakeDataBrokerRegistrationClient(
    std::unique_ptr<gorm::cor::rr::Channel> channel);

}  // namespace kvo
