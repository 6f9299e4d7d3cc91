// Puts every shared mapping between two pages that cannot be touched, so that a look past its
// end does not land in its neighbour. Linked with --wrap=mmap and --wrap=munmap.
#include <cerrno>
#include <cstddef>
#include <sys/mman.h>
#include <sys/types.h>

extern "C" {

void* __real_mmap(void* address, std::size_t bytes, int protection, int flags, int fd, off_t at);
int __real_munmap(void* address, std::size_t bytes);

static constexpr std::size_t kPage = 4096;

static std::size_t WholePages(std::size_t bytes) {
    return (bytes + kPage - 1) / kPage * kPage;
}

void* __wrap_mmap(void*, std::size_t bytes, int protection, int flags, int fd, off_t at) {
    auto* guard = static_cast<unsigned char*>(__real_mmap(
        nullptr, WholePages(bytes) + 2 * kPage, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    if (guard == MAP_FAILED) {
        return MAP_FAILED;
    }
    void* begin = __real_mmap(guard + kPage, bytes, protection, flags | MAP_FIXED, fd, at);
    if (begin == MAP_FAILED) {
        const int error = errno;
        __real_munmap(guard, WholePages(bytes) + 2 * kPage);
        errno = error;
    }
    return begin;
}

int __wrap_munmap(void* address, std::size_t bytes) {
    return __real_munmap(static_cast<unsigned char*>(address) - kPage,
                         WholePages(bytes) + 2 * kPage);
}

}  // extern "C"
