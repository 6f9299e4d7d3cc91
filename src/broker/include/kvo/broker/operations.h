#pragma once

#include "kvo/broker/data_broker_registration_sync.h"

#include <string_view>

// The one list of a broker's operations, with their names on the wire and their kind, in the order
// of docs/protocol.md. Client stub, service and limits are made from it.
#define KVO_CLIENT_OPERATIONS(OPERATION)       \
    OPERATION(SendHeartbeat, kHeartbeat)       \
    OPERATION(AddPublisher, kRequest)          \
    OPERATION(RemovePublisher, kRequest)       \
    OPERATION(NotifyNewData, kOneWay)          \
    OPERATION(AddSubscriber, kRequest)         \
    OPERATION(RemoveSubscriber, kRequest)      \
    OPERATION(GetPublisherKey, kRequest)       \
    OPERATION(GetNotificationPort, kRequest)   \
    OPERATION(GetStreamStatistics, kRequest)   \
    OPERATION(GetHeartbeatPeriod, kRequest)    \
    OPERATION(GetHeartbeatTimeout, kRequest)   \
    OPERATION(GetShmFilePath, kRequest)        \
    OPERATION(GetExistingShmPath, kRequest)    \
    OPERATION(IsStreamIdFree, kRequest)        \
    OPERATION(HasLocalPublisher, kRequest)     \
    OPERATION(HasRemotePublisher, kRequest)    \
    OPERATION(ReportDataWritten, kOneWay)      \
    OPERATION(GetMaxBufferSize, kRequest)      \
    OPERATION(ListRegisteredStreams, kRequest) \
    OPERATION(ListConnectedBrokers, kRequest)  \
    OPERATION(GetCapabilities, kRequest)       \
    OPERATION(GetRefusalReason, kRequest)      \
    OPERATION(DescribeStream, kRequest)        \
    OPERATION(ListRemoteStreams, kRequest)     \
    OPERATION(EndStream, kRequest)
// RelayNewData is sent by the client stub alone, for NotifyNewData.
#define KVO_BROKER_OPERATIONS(OPERATION) \
    KVO_CLIENT_OPERATIONS(OPERATION) OPERATION(RelayNewData, kOneWay)

namespace kvo {

enum class OperationKind {
    kRequest,
    kHeartbeat,  // a request that no limit counts: the library sends it by itself
    kOneWay,     // not answered, and counted by no limit
};

/// Name and kind of an operation of DataBrokerRegistrationSync.
template <auto Method>
struct Operation;

#define KVO_OPERATION(NAME, KIND)                                   \
    template <>                                                     \
    struct Operation<&DataBrokerRegistrationSync::NAME> {           \
        static constexpr const char* kName = #NAME;                 \
        static constexpr OperationKind kKind = OperationKind::KIND; \
    };
KVO_CLIENT_OPERATIONS(KVO_OPERATION)
#undef KVO_OPERATION

/// The kind of the operation with this name on the wire; an unknown one counts as a request.
constexpr OperationKind KindOf(std::string_view name) {
#define KVO_OPERATION(NAME, KIND)   \
    if (name == #NAME) {            \
        return OperationKind::KIND; \
    }
    KVO_BROKER_OPERATIONS(KVO_OPERATION)
#undef KVO_OPERATION
    return OperationKind::kRequest;
}

}  // namespace kvo
