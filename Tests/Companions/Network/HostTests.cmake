# The tests of quorvalen-host: the real program in the stage, real sockets, and clients of their own.
add_library(HostTestSupport STATIC HostClient.cpp HostProcess.cpp)
target_compile_definitions(HostTestSupport
  PUBLIC ECHO_BRIDGE="$<TARGET_FILE:FakeEchoReceiver>"
  PRIVATE HOST_PROGRAM="$<TARGET_FILE:quorvalen-host>")
target_link_libraries(HostTestSupport
  PUBLIC NetworkTestCertificates OpenSSL::SSL PRIVATE QuorvalenWarnings)
add_dependencies(HostTestSupport
  FakeEchoReceiver quorvalen-host PythonRuntimeNative PythonPackage Configs Utils)

# host_test(<name> [LABELS ...] [LIBRARIES ...])
function(host_test name)
  cmake_parse_arguments(ARG "" "" "LABELS;LIBRARIES" ${ARGN})
  add_executable(${name} ${name}.cpp)
  target_compile_definitions(${name} PRIVATE
    SAMPLE_CONFIGURATION="${PROJECT_SOURCE_DIR}/Companions/Host/quorvalen-host.toml")
  target_link_libraries(${name} PRIVATE
    HostTestSupport ${ARG_LIBRARIES} GTest::gtest_main QuorvalenWarnings)
  if("threads" IN_LIST ARG_LABELS)
    add_dependencies(ThreadTests ${name})
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES TIMEOUT 120 LABELS "${ARG_LABELS}")
endfunction()

host_test(HostClassesTest LABELS threads LIBRARIES HostParts)
host_test(HostCommandLineTest)
host_test(HostDrainTest LABELS threads)
host_test(HostLimitsTest LABELS threads)
host_test(HostPythonTest)
host_test(HostServingTest LABELS threads)
host_test(HostTlsTest LABELS threads)
