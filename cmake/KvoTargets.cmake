# How this project's targets are made: warnings, hardening and sanitizers in one place.

add_library(kvo-build-settings INTERFACE)
target_compile_options(kvo-build-settings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wconversion
  $<$<BOOL:${KVO_WARNINGS_AS_ERRORS}>:-Werror>
  # Of sources that are compiled together, only the one that includes them counts as no header.
  $<$<AND:$<BOOL:${CMAKE_UNITY_BUILD}>,$<CXX_COMPILER_ID:GNU>>:-Wno-subobject-linkage>
  -fstack-protector-strong
  # Names are bound when a library is loaded: a table to jump through would be one more page of code
  # that a sample's way touches.
  -fno-plt)
target_link_options(kvo-build-settings INTERFACE
  -Wl,-z,relro,-z,now $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:-pie>)
if(KVO_SANITIZER)
  target_compile_options(kvo-build-settings INTERFACE
    -fsanitize=${KVO_SANITIZER} -fno-omit-frame-pointer -fno-sanitize-recover=all
    # Instrumented code makes g++ 12 see uninitialised values in library headers.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>
    $<$<BOOL:${KVO_BUILD_FUZZERS}>:-fsanitize=fuzzer-no-link>)
  target_link_options(kvo-build-settings INTERFACE -fsanitize=${KVO_SANITIZER})
else()
  # glibc fortifies optimised code only.
  target_compile_definitions(kvo-build-settings INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:_FORTIFY_SOURCE=2>)
endif()

# kvo_add_library(name ALIAS kvo::x EXPORT_MACRO KVO_X EXPORT_HEADER kvo/x_export.h
#                 HEADERS_DIR dir HEADERS ... SOURCES ...)
# A shared library whose public headers lie in HEADERS_DIR, are installed, and compile alone.
function(kvo_add_library name)
  cmake_parse_arguments(ARG "" "ALIAS;EXPORT_MACRO;EXPORT_HEADER;HEADERS_DIR" "HEADERS;SOURCES"
                        ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  add_library(${ARG_ALIAS} ALIAS ${name})
  string(REPLACE "kvo::" "" export_name ${ARG_ALIAS})
  set(generated ${CMAKE_CURRENT_BINARY_DIR}/generated)
  generate_export_header(${name} BASE_NAME ${ARG_EXPORT_MACRO}
                         EXPORT_FILE_NAME ${generated}/${ARG_EXPORT_HEADER})
  list(TRANSFORM ARG_HEADERS PREPEND ${ARG_HEADERS_DIR}/)
  target_sources(${name} PUBLIC
    FILE_SET HEADERS BASE_DIRS ${ARG_HEADERS_DIR} FILES ${ARG_HEADERS}
    FILE_SET generated TYPE HEADERS BASE_DIRS ${generated}
    FILES ${generated}/${ARG_EXPORT_HEADER})
  set_target_properties(${name} PROPERTIES
    EXPORT_NAME ${export_name}
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    VERIFY_INTERFACE_HEADER_SETS ${KVO_BUILD_TESTS}
    INTERFACE_HEADER_SETS_TO_VERIFY HEADERS)
  target_compile_features(${name} INTERFACE cxx_std_17)
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:kvo-build-settings>)
  install(TARGETS ${name} EXPORT kvo-transfer-targets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILE_SET generated DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
endfunction()

# Where one header takes longer to read than most sources take to compile, it is compiled once for
# a target: target_precompile_headers(). The debug preset does without, so that a source that does
# not include what it needs is found.

# Where it is not one header but what every source makes of it, the sources are compiled together,
# half of them at a time. Also not in the debug preset.
function(kvo_compile_together name)
  if(NOT CMAKE_DISABLE_PRECOMPILE_HEADERS)
    get_target_property(sources ${name} SOURCES)
    list(LENGTH sources count)
    math(EXPR half "(${count} + 1) / 2")
    set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE ${half})
  endif()
endfunction()

# Where it matters how long it takes to compile, and little how fast it runs. (glibc would warn that
# it can not fortify it.)
function(kvo_compile_quickly name)
  target_compile_options(${name} PRIVATE -O0 -U_FORTIFY_SOURCE)
endfunction()

# kvo_add_test(name LABEL unit|system|stress|package [TIMEOUT seconds] SOURCES ... LIBRARIES ...)
function(kvo_add_test name)
  cmake_parse_arguments(ARG "" "LABEL;TIMEOUT" "SOURCES;LIBRARIES" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE kvo-build-settings GTest::gmock GTest::gtest_main
                                        ${ARG_LIBRARIES})
  target_precompile_headers(${name} PRIVATE <gmock/gmock.h>)
  kvo_compile_quickly(${name})
  if(KVO_SANITIZER)
    # Looked for in the libraries: in the tests themselves it would double their time to compile.
    target_compile_options(${name} PRIVATE -fno-sanitize=undefined)
  endif()
  include(GoogleTest)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT})
endfunction()

# kvo_repeat_test(name PREFIX prefix LOCAL_TOPICS true|false LABEL label [TIMEOUT seconds]
#                 FILTER tests)
# Some tests of a program once more, with brokers that offer local topics, or none.
function(kvo_repeat_test name)
  cmake_parse_arguments(ARG "" "PREFIX;LOCAL_TOPICS;LABEL;TIMEOUT;FILTER" "" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST
    TEST_PREFIX ${ARG_PREFIX} TEST_FILTER ${ARG_FILTER} TEST_LIST ${name}-${ARG_PREFIX}
    PROPERTIES LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT}
               ENVIRONMENT KVO_TEST_LOCAL_TOPICS=${ARG_LOCAL_TOPICS})
endfunction()
