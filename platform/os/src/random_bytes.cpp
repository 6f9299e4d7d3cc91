#include "kvo/os/random_bytes.h"

#include "kvo/os/system_error.h"

#include <cerrno>
#include <sys/random.h>

namespace kvo::os {

void FillRandom(void* bytes, std::size_t count) {
    auto* at = static_cast<unsigned char*>(bytes);
    while (count > 0) {
        const ssize_t got = ::getrandom(at, count, 0);
        if (got < 0 && errno != EINTR) {
            ThrowErrno(errno, "drawing random bytes");
        }
        if (got > 0) {
            at += got;
            count -= static_cast<std::size_t>(got);
        }
    }
}

}  // namespace kvo::os
