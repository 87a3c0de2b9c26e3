# Tests: one line adds a test program, whose every case CTest runs as a process of its own in a sandbox of its own.
include(GoogleTest)
find_package(GTest REQUIRED)
find_program(ZEBCS_IP ip PATHS /sbin /usr/sbin REQUIRED DOC "The ip program (Debian package iproute2)")
find_program(ZEBCS_STRACE strace REQUIRED DOC "The strace program (Debian package strace)")

# zebcs_add_test(<name> <source>... [PREFIX <text>] [LIBRARIES <library>...] [DEFINITIONS <definition>...])
# The prefix goes before the names of the cases, where two programs share a source.
function(zebcs_add_test name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "PREFIX" "LIBRARIES;DEFINITIONS")
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE
    zebcs::zebcs zebcs_test_sandbox zebcs_warnings zebcs_sanitizers GTest::gtest GTest::gtest_main ${arg_LIBRARIES})
  target_compile_definitions(${name} PRIVATE ${arg_DEFINITIONS})
  if(ZEBCS_SANITIZE)
    target_compile_definitions(${name} PRIVATE ZEBCS_SANITIZED)
  endif()
  set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR $<TARGET_FILE:zebcs-sandbox>)
  add_dependencies(${name} zebcs-sandbox)
  gtest_discover_tests(${name} TEST_PREFIX "${arg_PREFIX}" DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 300)
endfunction()
