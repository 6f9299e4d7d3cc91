#pragma once

#include "gorm/cor/export.h"

#include <map>
#include <memory>
#include <string>

// Keys of CURVE, as text of 40 characters in Z85. What throws, throws Error. None of it logs a
// secret or puts one into a message.
namespace gorm::cor {

struct CurveKeys {
    std::string public_key;
    std::string secret_key;
};

/// A new pair from the kernel's random source.
[[nodiscard]] GORM_COR_EXPORT CurveKeys DrawCurveKeys();

/// Writes a pair to a new file that only its owner can read. Throws when the file is there.
GORM_COR_EXPORT void WriteCurveKeys(const std::string& path, const CurveKeys& keys);

/// Reads such a file. Throws naming it when it cannot be used, also because others than its owner
/// may read it.
[[nodiscard]] GORM_COR_EXPORT CurveKeys ReadCurveKeys(const std::string& path);

/// Names of public keys that may connect, by key.
using AllowedKeys = std::map<std::string, std::string>;

/// Reads a file with a name and a public key in each line; empty lines and those that begin with #
/// are passed over. Throws naming file and line.
[[nodiscard]] GORM_COR_EXPORT AllowedKeys ReadAllowedKeys(const std::string& path);

class CurveDomain;

/// The keys of a server and the peers that may connect to it over TCP. Several servers may share
/// it. Threads: any.
class GORM_COR_EXPORT CurveServer {
public:
    CurveServer(CurveKeys keys, AllowedKeys allowed);
    CurveServer(const CurveServer&) = delete;
    CurveServer& operator=(const CurveServer&) = delete;
    ~CurveServer();

    /// For peers that connect from now on.
    void SetAllowed(AllowedKeys allowed);
    /// What the key is called; empty: it is not allowed.
    [[nodiscard]] std::string NameOf(const std::string& public_key) const;

    /// For the sockets of the binding.
    CurveDomain& domain() const { return *domain_; }

private:
    std::unique_ptr<CurveDomain> domain_;
};

}  // namespace gorm::cor
