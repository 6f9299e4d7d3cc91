#include "kvo/memory/data_available.h"

#include "kvo/KvoLogger.h"

#include <string>

namespace kvo {

void IsolatingCombiner::Report(const char* what) const {
    KvoLogger::WriteToLogger(
        logger, 4, std::string("KvoMemoryAccessor: a slot of the new-data signal threw: ") + what);
}

}  // namespace kvo
