#pragma once

#include "gorm/cor/export.h"

#include <array>

namespace gorm::cor {

using ProcessIdentity = std::array<unsigned char, 16>;

/// The identity of this process, drawn once from the kernel's random source; the first byte is
/// not zero. Every request of this process carries it. Any thread.
GORM_COR_EXPORT const ProcessIdentity& process_identity();

/// How many threads the transport moves bytes with, 1 unless this is called; a server of thousands
/// of connections wants some, since each thread's work for a connection grows with their number.
/// Has an effect before the first client, server or publisher of the process only. Any thread.
GORM_COR_EXPORT void set_transport_threads(int threads);

/// True in a child of fork() whose parent had used the middleware: no call can work there, since
/// the threads that serve it stayed in the parent. Any thread.
GORM_COR_EXPORT bool in_forked_child() noexcept;

}  // namespace gorm::cor
