# The server's tests link the server class that tolan-httpd runs.
if(TARGET HttpServerTest)
  target_link_libraries(HttpServerTest PRIVATE TolanHttpd)
endif()
