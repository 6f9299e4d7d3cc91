# What the project stands on; scripts/install-deps installs it.
find_package(Threads REQUIRED)
find_package(Boost 1.74 REQUIRED COMPONENTS thread chrono system)
find_package(log4cplus REQUIRED)
find_package(cppzmq REQUIRED)
find_package(msgpack CONFIG REQUIRED)  # header-only; its target is msgpackc-cxx
find_package(CLI11 REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)
find_package(tomlplusplus REQUIRED)
find_package(prometheus-cpp REQUIRED COMPONENTS core)
find_package(PkgConfig REQUIRED)
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
pkg_check_modules(SYSTEMD IMPORTED_TARGET libsystemd)  # without it nobody is notified
find_package(CycloneDDS QUIET)  # without it there is no module for remote streams
if(CycloneDDS_FOUND)
  enable_language(C)  # its types are generated C
endif()
find_path(XXHASH_INCLUDE_DIR xxhash.h REQUIRED)

# The uri package itself where it is installed, else our adapter behind the same names.
find_package(network-uri CONFIG QUIET)
if(NOT TARGET network-uri)
  find_package(uriparser 0.9 CONFIG REQUIRED COMPONENTS char)
endif()

if(KVO_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
