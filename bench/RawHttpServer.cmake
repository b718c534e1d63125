# tolan-raw-httpd: the bare-libevent peer that scripts/httpd-load.sh measures
# tolan-httpd against. No libTolan in it; not installed.
find_library(TOLAN_HTTP_PARSER http_parser REQUIRED)
find_path(TOLAN_HTTP_PARSER_INCLUDE http_parser.h REQUIRED)
add_executable(tolan-raw-httpd ${CMAKE_CURRENT_LIST_DIR}/RawHttpServer.cpp)
target_include_directories(tolan-raw-httpd PRIVATE ${TOLAN_HTTP_PARSER_INCLUDE})
target_link_libraries(tolan-raw-httpd PRIVATE PkgConfig::LIBEVENT ${TOLAN_HTTP_PARSER})
target_include_directories(tolan-raw-httpd PRIVATE ${PROJECT_SOURCE_DIR})
