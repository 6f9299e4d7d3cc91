#pragma once

#include "gorm/cor/export.h"

namespace gorm::cor {

/// How many threads the transport moves bytes with, 1 unless this is called; a server of thousands
/// of connections wants some, since each thread's work for a connection grows with their number.
/// Has an effect before the first client, server or publisher of the process only. Any thread.
GORM_COR_EXPORT void set_transport_threads(int threads);

}  // namespace gorm::cor
