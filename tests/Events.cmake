# The tests of the event platform run with libevent's debug mode on (see
# support/libevent/DebugMode.cpp) and call libevent directly, so they link it
# themselves (the library links it privately).
add_library(TolanTestLibevent OBJECT ${CMAKE_CURRENT_SOURCE_DIR}/support/libevent/DebugMode.cpp)
target_link_libraries(TolanTestLibevent PUBLIC GTest::gtest PkgConfig::LIBEVENT)
foreach(eventTest ControlContractTest EventPlatformTest FastForwardTest TimerWheelTest)
  if(TARGET ${eventTest})
    target_link_libraries(${eventTest} PRIVATE TolanTestLibevent)
  endif()
endforeach()
