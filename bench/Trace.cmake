# The trace benchmark runs spdlog side by side with our trace calls.
find_package(spdlog REQUIRED)
target_link_libraries(TraceBench PRIVATE spdlog::spdlog)
