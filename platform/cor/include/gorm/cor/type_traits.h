#pragma once

namespace gorm::cor {

/// Names a type that the middleware can create by name. Specialised beside each such type with
///   static constexpr const char* name;         the registered name of the type
///   static constexpr const char* libraryName;  the library that registers it
/// The library exports one C function, `<libraryName with '-' as '_'>_register_types`, of the form
/// `void(gorm::cor::TypeRegistry*)`. The runtime calls it once, at the first use of a name.
template <class T>
struct CorTypeTraits;

}  // namespace gorm::cor
