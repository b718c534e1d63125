# Installs the library into a scratch prefix and builds tests/consumer against
# the installed tree, with find_package(Tolan) and with pkg-config.
set(TOLAN_PACKAGING_CXXFLAGS "")
if(TOLAN_SANITIZE OR TOLAN_BUILD_FUZZ)
  # An instrumented libTolan.so links only into an instrumented program.
  set(TOLAN_PACKAGING_CXXFLAGS "-fsanitize=address,undefined -fno-omit-frame-pointer")
endif()
add_test(NAME Packaging
  COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/consumer/run.sh ${PROJECT_BINARY_DIR} ${PROJECT_SOURCE_DIR}
          ${CMAKE_CXX_COMPILER} "${TOLAN_PACKAGING_CXXFLAGS}")
set_tests_properties(Packaging PROPERTIES LABELS packaging TIMEOUT 300)
