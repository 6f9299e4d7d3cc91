#pragma once

#include "kvo/broker/identifiers.h"

#include <string>
#include <string_view>

namespace kvo::brokerd {

inline constexpr std::size_t kMaxNameBytes = 255;

/// Whether the text can name a stream: 1 to 255 of the characters that the path of a URI carries
/// as they are (RFC 3986, pchar without percent-encoding, and '/'), without "." and ".." between
/// slashes.
bool IsWellFormedName(std::string_view name);

/// The name of the stream's file: a digest, and what of the name is readable. Different names
/// never share one, and none leaves the directory.
std::string FileNameOf(const StreamName& stream);
inline constexpr std::string_view kStreamFileSuffix = ".stream";

/// A foreign text for logs and answers: quoted, shortened, without control characters.
std::string Quoted(std::string_view text);
/// stream "cam/left": what log lines and answers about a stream begin with.
std::string Titled(const StreamName& stream);

}  // namespace kvo::brokerd
