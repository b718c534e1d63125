# EventBench runs raw libevent beside the library's controls on the same base.
if(TARGET EventBench)
  target_link_libraries(EventBench PRIVATE PkgConfig::LIBEVENT)
endif()
