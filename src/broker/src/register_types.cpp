#include "data_broker_registration_client.h"
#include "gorm/cor/type_registry.h"
#include "kvo/broker/data_broker_registration_sync.h"
#include "kvo/broker/notification_sample.h"
#include "notification_codec.h"

/// Called by the middleware at the first use of one of the names.
extern "C" KVO_BROKER_INTERFACE_EXPORT void kvo_broker_interface_register_types(
    gorm::cor::TypeRegistry* types) {
    types->AddInterface(gorm::cor::CorTypeTraits<kvo::DataBrokerRegistrationSync>::name,
                        kvo::MakeDataBrokerRegistrationClient);
    types->AddSample(gorm::cor::CorTypeTraits<kvo::NotificationSample>::name,
                     kvo::MakeNotificationCodec());
}
