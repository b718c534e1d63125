# trace_probe: a helper program that tests of load-time trace behaviour run
# in a child process with the environment they need (see traceProbe in
# support/Support.h).
add_executable(trace_probe ${CMAKE_CURRENT_SOURCE_DIR}/helpers/trace_probe.cpp)
target_link_libraries(trace_probe PRIVATE Tolan::Tolan)
set_target_properties(trace_probe PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
# Every test may start it, so build it with the shared test support.
add_dependencies(TolanTestSupport trace_probe)
