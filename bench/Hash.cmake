# HashBench compares our hashes with XXH3/XXH64 from libxxhash.
pkg_check_modules(XXHASH REQUIRED IMPORTED_TARGET libxxhash)
target_link_libraries(HashBench PRIVATE PkgConfig::XXHASH)
