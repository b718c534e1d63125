# The libevent peer is called directly, next to the timer tasks.
target_link_libraries(TimerTaskBench PRIVATE PkgConfig::LIBEVENT)
