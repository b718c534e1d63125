# The scheduler benchmark runs raw libevent beside the scheduler, on bases of its own.
if(TARGET TaskSchedulerBench)
  target_link_libraries(TaskSchedulerBench PRIVATE PkgConfig::LIBEVENT)
endif()
