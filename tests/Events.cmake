# The event-platform tests switch on libevent's debug mode and call libevent
# directly, so they link it themselves (the library links it privately).
foreach(eventTest EventPlatformTest FastForwardTest)
  if(TARGET ${eventTest})
    target_link_libraries(${eventTest} PRIVATE PkgConfig::LIBEVENT)
  endif()
endforeach()
