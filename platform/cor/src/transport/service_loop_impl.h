#pragma once

#include "gorm/cor/service_loop.h"
#include "transport/poll_loop.h"

namespace gorm::cor {

class ServiceLoop::Impl {
public:
    PollLoop loop{"cor-service"};
};

}  // namespace gorm::cor
