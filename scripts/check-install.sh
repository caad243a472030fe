#!/usr/bin/env bash
# Installs the library into a temporary prefix and builds and runs the consumer program of
# examples/consumer against it, both ways a user would: through the CMake package
# (find_package) and through pkg-config alone. Does so for the shared library (the debug
# preset's tree, build/debug) and for the static one (build/static, the same settings with
# -DBUILD_SHARED_LIBS=OFF). Both trees are reused; only what install needs is built.
#
# The consumer checks a few public APIs, and that an error's caller record names the
# library's image ("QuorvexMobilePushNotification") when the library is shared, and the
# program's own image when it is linked in statically.
set -euo pipefail
cd "$(dirname "$0")/.."
export CCACHE_BASEDIR="$PWD" CCACHE_NOHASHDIR=1

JOBS="${PNX_JOBS:-2}"
WORK="$(mktemp -d "${TMPDIR:-/tmp}/pnx-install.XXXXXX")"
trap 'rm -rf "$WORK"' EXIT
# The consumer is held to the project's warning level: the public headers must compile
# cleanly in someone else's program.
CONSUMER_FLAGS="-Wall -Wextra -Werror"

# install_tree BUILD_DIR PREFIX: builds what `cmake --install` copies, then installs it.
install_tree() {
  cmake --build "$1" --target QuorvexMobilePushNotification pnx --parallel "$JOBS" >/dev/null
  cmake --install "$1" --prefix "$2" >/dev/null
}

# check_exports PREFIX: every symbol the shared library exports is declared in an installed
# header: no internal class, no instantiation of the C++ library's templates.
check_exports() {
  local library names name stray=0
  library="$(echo "$1"/lib/libQuorvexMobilePushNotification.so.*.*.*)"
  # The exported entity's own name: "pnx::Value::Value(...)" -> Value, "typeinfo for
  # PNXErrorCaller" -> PNXErrorCaller, "gzippedData(...)" -> gzippedData. Anything else
  # (a return type first, the std namespace) is kept whole, marked with "!".
  names="$(nm -DC --defined-only "$library" | cut -d' ' -f3- |
    sed -E 's/^(typeinfo name for|typeinfo for|vtable for|non-virtual thunk to) //' |
    sed -nE 's/^(pnx::(log_detail::)?)?(std|__gnu_cxx)(::.*)$/!&/p
             s/^(pnx::(log_detail::)?)?([A-Za-z_][A-Za-z0-9_]*)([:([].*)?$/\3/p
             t
             s/^.*$/!&/p' | sort -u)"
  while IFS= read -r name; do
    if [[ "$name" == !* ]] || ! grep -rqw -- "$name" "$1/include/QuorvexMobilePushNotification"; then
      echo "exported but in no installed header: $name" >&2
      stray=1
    fi
  done <<<"$names"
  echo "exports: $(nm -D --defined-only "$library" | wc -l) symbols of $(wc -l <<<"$names") names" >&2
  return "$stray"
}

# check_headers PREFIX: each installed header compiles on its own against the prefix alone,
# so it includes what it uses and only installed headers.
check_headers() {
  local include="$1/include"
  (cd "$include" && find QuorvexMobilePushNotification -name '*.h' -print0) |
    xargs -0 -P "$JOBS" -I{} sh -c 'echo "#include <{}>" |
      c++ -std=c++20 $2 -fsyntax-only -I"$1" -I"$1/QuorvexMobilePushNotification" -x c++ - ||
      { echo "installed header does not compile alone: {}" >&2; exit 255; }' \
      sh "$include" "$CONSUMER_FLAGS"
}

# check_consumers PREFIX NAME EXPECTED_FRAMEWORK [pkg-config flags]
check_consumers() {
  local prefix="$1" name="$2" framework="$3" pc_flags="${4:-}"
  echo "--- $name library, CMake package" >&2
  cmake -S examples/consumer -B "$WORK/$name-cmake" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="$CONSUMER_FLAGS" >/dev/null
  cmake --build "$WORK/$name-cmake" >/dev/null
  "$WORK/$name-cmake/consumer" "$framework"

  echo "--- $name library, pkg-config" >&2
  mkdir -p "$WORK/$name-pc"
  PKG_CONFIG_PATH="$prefix/lib/pkgconfig" make --no-print-directory -s \
    -f examples/consumer/Makefile OUT="$WORK/$name-pc/consumer" \
    PKG_CONFIG_FLAGS="$pc_flags" CXXFLAGS="$CONSUMER_FLAGS" \
    LDFLAGS="-Wl,-rpath,$prefix/lib"
  "$WORK/$name-pc/consumer" "$framework"
}

echo "=== shared library (build/debug)" >&2
cmake --preset debug >/dev/null
install_tree build/debug "$WORK/shared"
check_exports "$WORK/shared"
check_headers "$WORK/shared"
check_consumers "$WORK/shared" shared QuorvexMobilePushNotification

echo "=== static library (build/static)" >&2
cmake --preset debug -B build/static -DBUILD_SHARED_LIBS=OFF -DPNX_BUILD_TESTS=OFF >/dev/null
install_tree build/static "$WORK/static"
check_consumers "$WORK/static" static consumer --static

echo "install check passed" >&2
