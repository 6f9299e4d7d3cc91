#pragma once

#include "gorm/cor/export.h"

#include <stdexcept>
#include <string>

namespace gorm::cor {

/// Everything that the middleware throws, but for network::uri_syntax_error.
class GORM_COR_EXPORT Error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// No binding is there for the scheme of a URI.
class GORM_COR_EXPORT UnknownScheme : public Error {
public:
    using Error::Error;
};

/// A local address cannot be served: port in use, no such interface.
class GORM_COR_EXPORT BindError : public Error {
public:
    using Error::Error;
};

namespace rr {

/// The peer did not answer within the reply time of the client.
class GORM_COR_EXPORT ReplyTimeout : public Error {
public:
    using Error::Error;
};

/// There is no connection to the peer, or it was lost before the answer came.
class GORM_COR_EXPORT ConnectionLost : public Error {
public:
    using Error::Error;
};

/// The peer answered with an error; the text is the peer's.
class GORM_COR_EXPORT RemoteError : public Error {
public:
    using Error::Error;
};

}  // namespace rr
}  // namespace gorm::cor
