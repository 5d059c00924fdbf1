#!/usr/bin/env bash
# The packaging test: CommonL as an application's developer and a recorder
# meet it, each with nothing on the search paths but what they were given.
#   1. Configure with the search pointed at an empty root stops, with one line
#      per missing dependency that names its Debian package.
#   2. `cmake --install` into a scratch prefix; the installed commonl tool
#      runs, and examples/application is built there with find_package(CommonL) and
#      with pkg-config, and runs.
#   3. COMMONL_LOGGER=system: a recorder's CommonL linked against a logger
#      installed in a prefix of its own; the application runs with both.
#   4. The Debian packages: their fields and files, then the application built
#      against them unpacked into a scratch root, and run; the tool too.
# Usage: tests/packaging/run.sh BUILD_DIR PACKAGE_DIR
#   BUILD_DIR    a configured and built tree (COMMONL_LOGGER=standin)
#   PACKAGE_DIR  the .deb files of `./dev package`
set -euo pipefail
source_dir=$(cd "$(dirname "$0")/../.." && pwd)
build_dir=$(cd "$1" && pwd)
package_dir=$(cd "$2" && pwd)
consumer=$source_dir/examples/application
strict=(-std=c++17 -Wall -Wextra -Wpedantic -Werror)

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
# Nothing from the caller's environment may help the application find CommonL.
unset LD_LIBRARY_PATH CMAKE_PREFIX_PATH PKG_CONFIG_PATH PKG_CONFIG_LIBDIR PKG_CONFIG_SYSROOT_DIR

step() { echo "--- $*"; }
fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# expect_in TEXT WANTED... : every WANTED line occurs in TEXT.
expect_in() {
  local text=$1 wanted
  shift
  for wanted in "$@"; do
    grep -qF -- "$wanted" <<<"$text" || fail "expected \"$wanted\" in:"$'\n'"$text"
  done
}

# run_from PROGRAM DIR...: PROGRAM prints its line and takes libCommonL.so and
# libkorvalogger-qmt.so from the given directories, in that order.
run_from() {
  local program=$1 commonl_dir=$2 logger_dir=$3 out
  out=$("$program") || fail "$program did not run"
  expect_in "$out" "application: CommonL 1.0.0"
  local loaded
  loaded=$(ldd "$program")
  expect_in "$loaded" "libCommonL.so.1 => $commonl_dir/libCommonL.so.1" \
    "libkorvalogger-qmt.so => $logger_dir/libkorvalogger-qmt.so"
  echo "$out"
}

# cmake_consumer DIR PREFIX [cmake options...]: builds examples/application with
# find_package(CommonL) against PREFIX and checks that it was PREFIX's package.
cmake_consumer() {
  local dir=$1 prefix=$2
  shift 2
  cmake -S "$consumer" -B "$dir" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" "$@" >/dev/null
  cmake --build "$dir" >/dev/null
  expect_in "$(grep '^CommonL_DIR:' "$dir/CMakeCache.txt")" "=$prefix/"
}

step "configure stops on each missing dependency and names its Debian package"
empty=$scratch/empty-root
mkdir -p "$empty"
if out=$(cmake -S "$source_dir" -B "$scratch/build-missing" -G Ninja \
  -DCOMMONL_BUILD_TESTS=ON -DCOMMONL_BUILD_BENCHMARKS=ON -DCOMMONL_BUILD_TOOLS=ON \
  -DCMAKE_FIND_ROOT_PATH="$empty" -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=ONLY \
  -DCMAKE_FIND_ROOT_PATH_MODE_INCLUDE=ONLY -DCMAKE_FIND_ROOT_PATH_MODE_LIBRARY=ONLY 2>&1); then
  fail "configure went on without its dependencies"
fi
expect_in "$out" \
  "CommonL needs rapidjson: install the Debian package rapidjson-dev" \
  "CommonL needs jsmn: install the Debian package libjsmn-dev" \
  "CommonL needs GoogleTest: install the Debian package libgtest-dev" \
  "CommonL needs Google Benchmark: install the Debian package libbenchmark-dev" \
  "CommonL needs CLI11: install the Debian package libcli11-dev"
grep -F "CommonL needs" <<<"$out"

step "cmake --install into a scratch prefix"
prefix=$scratch/prefix
cmake --install "$build_dir" --prefix "$prefix" >/dev/null
[ -f "$prefix/include/CommonL/CommonL.h" ] && [ -f "$prefix/include/CommonL/Version.h" ] ||
  fail "headers are not under include/CommonL/"
[ -f "$prefix/include/korvalogger.h" ] || fail "the stand-in's header is not under include/"
libdir=$(dirname "$(find "$prefix" -name libCommonL.so.1)")

step "the installed commonl tool"
expect_in "$("$prefix/bin/commonl" --version)" "commonl 1.0.0"
# Its run path, $ORIGIN/../lib, as the loader spells it out.
expect_in "$(ldd "$prefix/bin/commonl")" "libCommonL.so.1 => $prefix/bin/../lib/libCommonL.so.1"

step "examples/application with find_package(CommonL)"
cmake_consumer "$scratch/consumer-cmake" "$prefix"
run_from "$scratch/consumer-cmake/application" "$libdir" "$libdir"

step "examples/application with pkg-config"
export PKG_CONFIG_LIBDIR=$libdir/pkgconfig
g++ "${strict[@]}" "$consumer/application.cpp" -o "$scratch/consumer-pc" \
  $(pkg-config --cflags --libs commonl) -Wl,-rpath,"$(pkg-config --variable=libdir commonl)"
unset PKG_CONFIG_LIBDIR
run_from "$scratch/consumer-pc" "$libdir" "$libdir"

step "COMMONL_LOGGER=system: a logger of the recorder's own, in a prefix of its own"
logger_prefix=$scratch/logger
recorder=$scratch/recorder
cmake --install "$build_dir" --prefix "$logger_prefix" --component logger >/dev/null
cmake -S "$source_dir" -B "$scratch/build-system" -G Ninja -DCOMMONL_LOGGER=system \
  -DCMAKE_PREFIX_PATH="$logger_prefix" -DCMAKE_INSTALL_PREFIX="$recorder" \
  -DCOMMONL_BUILD_TESTS=OFF -DCOMMONL_BUILD_BENCHMARKS=OFF -DCOMMONL_BUILD_EXAMPLES=OFF \
  -DCOMMONL_BUILD_TOOLS=OFF -DCOMMONL_BUILD_SOAK=OFF >/dev/null
cmake --build "$scratch/build-system" >/dev/null
cmake --install "$scratch/build-system" >/dev/null
[ -z "$(find "$recorder" -name 'libkorvalogger-qmt*' -o -name korvalogger.h)" ] ||
  fail "COMMONL_LOGGER=system installed a logger"
recorder_libdir=$(dirname "$(find "$recorder" -name libCommonL.so.1)")
logger_libdir=$(dirname "$(find "$logger_prefix" -name libkorvalogger-qmt.so)")
cmake_consumer "$scratch/consumer-system" "$recorder"
run_from "$scratch/consumer-system/application" "$recorder_libdir" "$logger_libdir"

step "the Debian packages"
debs=("$package_dir"/*.deb)
field() { dpkg-deb -f "$package_dir/$1"_*.deb "$2"; }
expect_in "$(printf '%s\n' "${debs[@]##*/}")" libcommonl1_ libcommonl-dev_ libkorvalogger-qmt-standin_ \
  commonl-tools_
expect_in "$(field libcommonl1 Depends)" "libkorvalogger-qmt" "libc6" "libstdc++6"
expect_in "$(field libcommonl-dev Depends)" "libcommonl1 (= 1.0.0)"
expect_in "$(field commonl-tools Depends)" "libcommonl1 (= 1.0.0)"
expect_in "$(field libkorvalogger-qmt-standin Provides)" "libkorvalogger-qmt"
expect_in "$(field libkorvalogger-qmt-standin Conflicts)" "libkorvalogger-qmt"
# apt resolves their dependencies on one another and on the system.
apt-get install --simulate "${debs[@]}" >/dev/null 2>&1 ||
  fail "apt can not install the packages: $(apt-get install --simulate "${debs[@]}" 2>&1)"
root=$scratch/root
for deb in "${debs[@]}"; do
  dpkg-deb -x "$deb" "$root"
  package=$(dpkg-deb -f "$deb" Package)
  for doc in copyright changelog.Debian.gz; do
    [ -f "$root/usr/share/doc/$package/$doc" ] || fail "$package has no $doc"
  done
done
root_libdir=$(dirname "$(find "$root" -name libCommonL.so.1)")
case $root_libdir in "$root"/usr/lib*) ;; *) fail "libCommonL.so.1 is not under /usr/lib" ;; esac
if readelf -d "$root_libdir/libCommonL.so.1" | grep -qE 'RPATH|RUNPATH'; then
  fail "the packaged libCommonL.so.1 carries a run path"
fi
grep -qx "prefix=/usr" "$root_libdir/pkgconfig/commonl.pc" || fail "commonl.pc is not for /usr"
"$source_dir/tests/check_exports.sh" "$root_libdir/libCommonL.so.1" "$source_dir/CommonL/CommonL.exports"
# The packaged tool, with the loader told where the unpacked /usr/lib is.
if readelf -d "$root/usr/bin/commonl" | grep -qE 'RPATH|RUNPATH'; then
  fail "the packaged commonl carries a run path"
fi
loader=$(readelf -l "$root/usr/bin/commonl" | sed -n 's/.*Requesting program interpreter: \(.*\)]/\1/p')
expect_in "$("$loader" --library-path "$root_libdir" "$root/usr/bin/commonl" --version)" "commonl 1.0.0"

# The unpacked root stands in for /usr, where the loader looks of itself. A
# DT_RPATH (unlike a DT_RUNPATH) also serves libCommonL.so's own needs.
root_rpath=(-Wl,--disable-new-dtags -Wl,-rpath,"$root_libdir")
step "examples/application with pkg-config against the unpacked packages"
export PKG_CONFIG_LIBDIR=$root_libdir/pkgconfig PKG_CONFIG_SYSROOT_DIR=$root
g++ "${strict[@]}" "$consumer/application.cpp" -o "$scratch/consumer-deb-pc" \
  $(pkg-config --cflags --libs commonl) "${root_rpath[@]}"
unset PKG_CONFIG_LIBDIR PKG_CONFIG_SYSROOT_DIR
run_from "$scratch/consumer-deb-pc" "$root_libdir" "$root_libdir"

step "examples/application with find_package(CommonL) against the unpacked packages"
cmake_consumer "$scratch/consumer-deb-cmake" "$root/usr" \
  -DCMAKE_EXE_LINKER_FLAGS="${root_rpath[*]}"
run_from "$scratch/consumer-deb-cmake/application" "$root_libdir" "$root_libdir"

echo "packaging test passed"
