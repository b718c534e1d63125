# The libevent peer is called directly, next to our own timers.
target_link_libraries(TimerWheelBench PRIVATE PkgConfig::LIBEVENT)
