#pragma once

#include "gorm/cor/export.h"
#include "gorm/cor/ps/data_event.h"

#include <memory>
#include <string>
#include <string_view>

namespace gorm::cor::ps {

/// Creates, writes and reads the samples of one topic type. Immutable; any thread.
class GORM_COR_EXPORT SampleCodec {
public:
    struct Decoded {
        std::shared_ptr<const void> sample;  // null: the bytes were no sample of this type
        InstanceEvent instance_event = InstanceEvent::kUpdated;
    };
    virtual ~SampleCodec();
    virtual std::shared_ptr<void> Create() const = 0;
    virtual Decoded Decode(std::string_view bytes) const = 0;
    virtual std::string Encode(const void* sample, InstanceEvent instance_event) const = 0;
    /// The name of the sample's instance, valid as long as the sample.
    virtual std::string_view Key(const void* sample) const = 0;
};

}  // namespace gorm::cor::ps
