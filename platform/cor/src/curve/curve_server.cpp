#include "curve/authenticator.h"
#include "curve/curve_domain.h"
#include "gorm/cor/curve.h"
#include "kvo/os/fork_guard.h"

#include <utility>

namespace gorm::cor {

CurveServer::CurveServer(CurveKeys keys, AllowedKeys allowed)
    : domain_(std::make_unique<CurveDomain>(std::move(keys), std::move(allowed))) {
    Authenticator::Get().Add(*domain_);
}

CurveServer::~CurveServer() {
    if (!kvo::os::InForkedChild()) {
        Authenticator::Get().Remove(*domain_);
    }
}

void CurveServer::SetAllowed(AllowedKeys allowed) {
    domain_->SetAllowed(std::move(allowed));
}

std::string CurveServer::NameOf(const std::string& public_key) const {
    return domain_->NameOf(public_key);
}

}  // namespace gorm::cor
