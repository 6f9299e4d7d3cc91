#pragma once

#include "gorm/cor/errors.h"
#include "gorm/cor/export.h"
#include "gorm/cor/peer.h"
#include "gorm/cor/rr/deferred.h"

#include <msgpack.hpp>

#include <string>
#include <string_view>

namespace gorm::cor::rr {

/// The sender of a request.
struct Caller {
    std::string identity;    // the 16 bytes of the calling process; empty: it gave none
    std::string connection;  // opaque, unlike for any two connections of one server
    Peer peer;               // what is known for certain
};

/// The server side of an interface: decodes the parameters of one call and runs it.
class GORM_COR_EXPORT Service {
public:
    virtual ~Service();

    /// Runs on the loop of the server. @return the packed result, which may come later, also after
    /// the server has gone. What is thrown (any std::exception) goes to the caller as the text of
    /// an error response.
    virtual Deferred<std::string> Dispatch(const Caller& caller, std::string_view method,
                                           const msgpack::object& params) = 0;
};

}  // namespace gorm::cor::rr
