#!/usr/bin/env bash
# Installs a built libTolan into a scratch prefix, checks the installed tree
# (exactly the public headers, each compiling on its own; the versioned
# library; its dynamic symbol table; tolan-httpd), then builds and runs the consumer in
# this directory against that tree twice: once through find_package(Tolan),
# once through pkg-config.
#
#   run.sh BUILD_DIR SOURCE_DIR [CXX [CXXFLAGS]]
#
# CXXFLAGS must repeat any sanitizer flags the library was built with, since
# an instrumented libTolan.so only links into an instrumented program.
# Everything happens under BUILD_DIR/packaging, which each run starts afresh.
set -euo pipefail

build=$(cd "$1" && pwd)
src=$(cd "$2" && pwd)
cxx=${3:-c++}
cxxflags=${4:-}
work=$build/packaging
prefix=$work/prefix

# The consumer decides its own trace settings.
unset TRACE TRACEFILE TRACEFORMAT

fail() {
  echo "packaging: FAILED: $*" >&2
  exit 1
}
step() { echo "packaging: $*"; }

rm -rf "$work"
mkdir -p "$work"

step "installing $build into $prefix"
cmake --install "$build" --prefix "$prefix" >"$work/install.log" 2>&1 || {
  cat "$work/install.log" >&2
  fail "cmake --install"
}

# ---- the installed tree ----
# Exactly the public headers (Tolan/*.h); nothing from Tolan/Impl/.
expected_headers=$(cd "$src/Tolan" && ls -- *.h | sort)
installed_headers=$(cd "$prefix/include/Tolan" && find . -type f | sed 's|^\./||' | sort)
[ "$installed_headers" = "$expected_headers" ] ||
  fail "installed headers differ from Tolan/*.h: $(diff <(echo "$expected_headers") <(echo "$installed_headers") | grep '^[<>]' | tr '\n' ' ')"
[ ! -e "$prefix/include/Tolan/Impl" ] || fail "internal headers (Tolan/Impl) were installed"

# Each one compiles on its own against the installed tree, warning-free: no
# public header leans on another being included first, or on an internal one.
step "compiling each of the $(echo "$expected_headers" | wc -l) installed headers on its own"
for header in $expected_headers; do
  # shellcheck disable=SC2086 # flags are words
  echo "#include \"Tolan/$header\"" | "$cxx" -std=c++17 $cxxflags -Wall -Wextra -Werror -fsyntax-only \
    -I"$prefix/include" -x c++ - 2>"$work/header.log" || {
    cat "$work/header.log" >&2
    fail "installed header Tolan/$header does not compile on its own"
  }
done

link=$(find "$prefix" -name libTolan.so | head -n 1)
[ -n "$link" ] || fail "libTolan.so not installed"
libdir=$(dirname "$link")
[ -L "$link" ] || fail "libTolan.so is not a symlink to the versioned library"
real=$(readlink -f "$link")
version=$(basename "$real" | sed -n 's/^libTolan\.so\.\([0-9]*\.[0-9]*\.[0-9]*\)$/\1/p')
[ -n "$version" ] || fail "libTolan.so resolves to $(basename "$real"), not libTolan.so.X.Y.Z"
soname=$(objdump -p "$real" | awk '$1 == "SONAME" { print $2 }')
[ "$soname" = "libTolan.so.${version%%.*}" ] || fail "soname is '$soname', expected libTolan.so.${version%%.*}"
[ -L "$libdir/$soname" ] && [ "$(readlink -f "$libdir/$soname")" = "$real" ] ||
  fail "$soname is not a symlink to $(basename "$real")"
for file in TolanConfig.cmake TolanConfigVersion.cmake TolanTargets.cmake; do
  [ -f "$libdir/cmake/Tolan/$file" ] || fail "cmake/Tolan/$file not installed"
done
[ -f "$libdir/pkgconfig/Tolan.pc" ] || fail "pkgconfig/Tolan.pc not installed"
step "installed tree holds the headers, libTolan.so -> $soname -> $(basename "$real"), the CMake package and Tolan.pc"

# ---- the dynamic symbol table ----
# Built with hidden visibility, the library exports what its headers mark
# TOLAN_EXPORT. Symbols in an Impl namespace are exported only on purpose:
#  - out-of-line targets of public macros and templates, which the user's own
#    code calls: processAssertFail (TOLAN_PROCESS_ASSERT), assertFailV
#    (TOLAN_ASSERT), vfmtrace (TOLAN_TRACE), bookmarkAlreadyLinked (BookmarkList);
#  - public classes that live in an Impl namespace: HashMix, and OwnedMutex,
#    the base of Lock and RecursiveLock;
#  - internals exported only for the in-tree tests and fuzzers, whose headers
#    are not installed: the /proc parsers (Tolan/Impl/ProcParsers.h). The C
#    timing wheel of Tolan/Impl/Timeouts.h is exported for them too (timeouts_*).
symbols=$(nm -D --defined-only -C "$real" | cut -d' ' -f3-)
allowed_impl='^(Tolan::Impl::(processAssertFail|assertFailV|bookmarkAlreadyLinked|parseProcStartTime|parseMapsLine|parseMaps)\(|Tolan::Fmt::Impl::vfmtrace\(|Tolan::Impl::HashMix<unsigned (int|long)>::|Tolan::Locking::Impl::OwnedMutex::)'
unexpected=$(echo "$symbols" | sed -E 's/^(typeinfo name for |typeinfo for |vtable for |VTT for )//' |
  grep -E '^Tolan::([A-Za-z_]+::)*Impl::' | grep -Ev "$allowed_impl" || true)
[ -z "$unexpected" ] || fail "unexpected internal symbols exported: $unexpected"
# A few of the public ones, and internals outside Impl namespaces that must stay hidden.
for symbol in 'Tolan::Platform::getDebugHandler(' 'typeinfo for Tolan::AssertException' \
  'vtable for Tolan::Platform::TimerControl' 'Tolan::FdToStream::FdToStream(int, bool)' \
  'Tolan::TimerWheel::timerStart(' 'Tolan::leInit()' 'TOLAN_DEFAULT_HANDLE' 'timeouts_open'; do
  grep -qF "$symbol" <<<"$symbols" || fail "public symbol '$symbol' is not exported"
done
for symbol in 'vtable for Tolan::Loco' 'Tolan::Impl::reopenTraceFile(' 'Tolan::Impl::writeTraceLine('; do
  if grep -qF "$symbol" <<<"$symbols"; then fail "internal symbol '$symbol' is exported"; fi
done
step "dynamic symbol table: $(echo "$symbols" | grep -c '^Tolan::\|for Tolan::') Tolan symbols, Impl ones only as intended"

# The consumer must load the installed library, not the one in the build tree.
check_loads_installed() {
  local exe=$1 resolved
  resolved=$(ldd "$exe" | awk '$1 == "'"$soname"'" { print $3 }')
  [ "$(readlink -f "$resolved")" = "$real" ] || fail "$exe loads '$resolved' instead of the installed $soname"
}

# ---- the installed server ----
httpd=$prefix/bin/tolan-httpd
[ -x "$httpd" ] || fail "bin/tolan-httpd not installed"
check_loads_installed "$httpd"
"$httpd" --help | grep -q '^usage: tolan-httpd' || fail "the installed tolan-httpd does not run"
step "bin/tolan-httpd runs against the installed library"

# ---- find_package ----
generator=()
command -v ninja >/dev/null && generator=(-G Ninja)
step "find_package(Tolan): configure and build"
cmake -S "$src/tests/consumer" -B "$work/cmake" "${generator[@]}" -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$cxxflags" -DCMAKE_PREFIX_PATH="$prefix" \
  >"$work/cmake-configure.log" 2>&1 || {
  cat "$work/cmake-configure.log" >&2
  fail "configuring the consumer"
}
found=$(sed -n 's/^Tolan_DIR:PATH=//p' "$work/cmake/CMakeCache.txt")
[ "$(readlink -f "$found")" = "$(readlink -f "$libdir/cmake/Tolan")" ] || fail "find_package found Tolan in '$found'"
cmake --build "$work/cmake" >"$work/cmake-build.log" 2>&1 || {
  cat "$work/cmake-build.log" >&2
  fail "building the consumer with CMake"
}
check_loads_installed "$work/cmake/consumer"
"$work/cmake/consumer" "$work/cmake.trace" || fail "consumer built with find_package"

# ---- pkg-config ----
export PKG_CONFIG_PATH=$libdir/pkgconfig
pcversion=$(pkg-config --modversion Tolan) || fail "pkg-config does not find Tolan"
[ "$pcversion" = "$version" ] || fail "Tolan.pc says version $pcversion, the library is $version"
flags=$(pkg-config --cflags --libs Tolan)
step "pkg-config: $flags"
# shellcheck disable=SC2086 # flags are words
"$cxx" -std=c++17 $cxxflags "$src/tests/consumer/main.cpp" -o "$work/pkgconfig-consumer" $flags \
  -Wl,-rpath,"$libdir" >"$work/pkgconfig-build.log" 2>&1 || {
  cat "$work/pkgconfig-build.log" >&2
  fail "building the consumer with pkg-config flags"
}
check_loads_installed "$work/pkgconfig-consumer"
"$work/pkgconfig-consumer" "$work/pkgconfig.trace" || fail "consumer built with pkg-config"

echo "packaging: passed"
