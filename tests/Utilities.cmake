# Helpers of the utilities tests: a probe program (plain and linked behind a
# library that claims the platform-presence flag), and plugin libraries in
# their own directory, which the plugin tests find through their run path.
set(UT_DIR ${CMAKE_CURRENT_SOURCE_DIR}/utilities)
set(UT_PLUGIN_DIR ${CMAKE_CURRENT_BINARY_DIR}/utplugins)

add_executable(ut_probe ${UT_DIR}/ut_probe.cpp)
target_link_libraries(ut_probe PRIVATE Tolan::Tolan)
set_target_properties(ut_probe PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})

add_library(ut_incompat SHARED ${UT_DIR}/IncompatLib.cpp)
set_target_properties(ut_incompat PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})
add_executable(ut_incompat_probe ${UT_DIR}/ut_probe.cpp)
# Order matters: the incompatible library must come first in the lookup scope.
target_link_libraries(ut_incompat_probe PRIVATE ut_incompat Tolan::Tolan)
target_link_options(ut_incompat_probe PRIVATE -Wl,--no-as-needed)
set_target_properties(ut_incompat_probe PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR})

# name -> the plugin name it registers ("" registers nothing)
set(UT_PLUGINS "utgood=utgood" "utsilent=" "utdup=utdup" "utdup2=utdup" "utwaiter=")
set(UT_PLUGIN_TARGETS)
foreach(entry ${UT_PLUGINS})
  string(REPLACE "=" ";" parts "${entry}")
  list(GET parts 0 lib)
  list(LENGTH parts n)
  set(registers "")
  if(n GREATER 1)
    list(GET parts 1 registers)
  endif()
  add_library(${lib}_plugin MODULE ${UT_DIR}/UtPlugin.cpp)
  target_link_libraries(${lib}_plugin PRIVATE Tolan::Tolan)
  if(registers)
    target_compile_definitions(${lib}_plugin PRIVATE UT_PLUGIN_NAME="${registers}")
  endif()
  set_target_properties(${lib}_plugin PROPERTIES OUTPUT_NAME ${lib} PREFIX "lib" SUFFIX ".so"
                        LIBRARY_OUTPUT_DIRECTORY ${UT_PLUGIN_DIR})
  list(APPEND UT_PLUGIN_TARGETS ${lib}_plugin)
endforeach()

target_compile_definitions(utwaiter_plugin PRIVATE UT_WAITER)
if(TARGET ForkPluginTest)
  set_target_properties(ForkPluginTest PROPERTIES ENABLE_EXPORTS ON)  # for utwaiter
  add_dependencies(ForkPluginTest ${UT_PLUGIN_TARGETS} ut_probe ut_incompat_probe)
  # dlopen from libTolan searches the executable's DT_RPATH (not RUNPATH).
  target_link_options(ForkPluginTest PRIVATE -Wl,--disable-new-dtags -Wl,-rpath,${UT_PLUGIN_DIR})
endif()
if(TARGET HashRandomTest)
  add_dependencies(HashRandomTest ut_probe)
endif()
