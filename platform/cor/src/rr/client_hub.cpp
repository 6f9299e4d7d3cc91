#include "rr/client_hub.h"

#include "curve/curve_client.h"
#include "kvo/os/process_identity.h"

namespace gorm::cor::rr {

ClientHub::ClientHub(zmq::context_t& context) : context_(context) {}

std::unique_ptr<Connection> ClientHub::MakeConnection(const Address& address) {
    const kvo::os::ProcessIdentity& identity = kvo::os::OwnProcessIdentity();
    std::string routing_id(identity.begin(), identity.end());
    for (int shift = 24; shift >= 0; shift -= 8) {
        routing_id.push_back(static_cast<char>((made_ >> shift) & 0xFFU));
    }
    ++made_;
    return std::make_unique<Connection>(context_, loop_, address, routing_id);
}

namespace {

// Clients with other keys do not share a connection.
std::string KeyOf(const Address& address) {
    return address.curve == nullptr ? address.endpoint
                                    : address.endpoint + " " + address.curve->keys.public_key +
                                          address.curve->server_key;
}

}  // namespace

void ClientHub::Open(const std::shared_ptr<ClientEnd>& end) {
    loop_.Run([&] {
        auto found = connections_.find(KeyOf(end->address));
        if (found == connections_.end()) {
            auto made = MakeConnection(end->address);
            found = connections_.emplace(KeyOf(end->address), std::move(made)).first;
        }
        found->second->Attach(end);
    });
}

void ClientHub::Close(const std::shared_ptr<ClientEnd>& end) {
    loop_.Run([&] {
        Connection* const connection = end->connection;
        connection->Detach(end);
        if (!connection->has_clients()) {
            connections_.erase(KeyOf(end->address));
        }
    });
}

}  // namespace gorm::cor::rr
