#include "kvo/os/system_error.h"

#include <system_error>

namespace kvo::os {

void ThrowErrno(int error, const std::string& what) {
    throw std::system_error(error, std::generic_category(), what);
}

}  // namespace kvo::os
