# The descriptor-task benchmark runs raw libevent beside the tasks, on the same base.
if(TARGET FdTaskBench)
  target_link_libraries(FdTaskBench PRIVATE PkgConfig::LIBEVENT)
endif()
