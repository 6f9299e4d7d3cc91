#include "gorm/cor/service_loop.h"

#include "transport/service_loop_impl.h"

#include <utility>

namespace gorm::cor {

ServiceLoop::ServiceLoop() : impl_(std::make_unique<Impl>()) {}

ServiceLoop::~ServiceLoop() = default;

void ServiceLoop::Post(std::function<void()> function) {
    impl_->loop.Post(std::move(function));
}

void ServiceLoop::Run(const std::function<void()>& function) {
    impl_->loop.Run(function);
}

void ServiceLoop::Every(std::chrono::milliseconds period, std::function<void()> function) {
    impl_->loop.Every(period, std::move(function));
}

void ServiceLoop::Stop() {
    impl_->loop.Stop();
}

bool ServiceLoop::here() const {
    return impl_->loop.here();
}

}  // namespace gorm::cor
