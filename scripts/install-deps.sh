#!/usr/bin/env bash
# Installs the Debian 12 packages this project builds, tests and fuzzes with.
# Idempotent: every package is checked with dpkg-query first; apt-get runs only when
# something is missing. Run as root; as another user it lists what is missing and fails.
set -euo pipefail

PACKAGES=(
  # toolchain
  build-essential cmake ninja-build pkg-config ccache git python3
  clang-14 libclang-rt-14-dev  # the asan and fuzz presets; sanitizer and libFuzzer runtimes
  clang-format
  doxygen  # scripts/docs.sh: the API reference
  # libraries
  ca-certificates curl openssl libssl-dev libcurl4-openssl-dev
  libsqlite3-dev sqlite3 zlib1g-dev libplist-dev nlohmann-json3-dev uuid-dev
  libcli11-dev libcpp-httplib-dev libspdlog-dev
  # tests and benchmarks
  googletest libgtest-dev libgmock-dev libbenchmark-dev
)

is_installed() {
  [[ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" == installed ]]
}

missing=()
for package in "${PACKAGES[@]}"; do
  is_installed "$package" || missing+=("$package")
done

if ((${#missing[@]} == 0)); then
  echo "install-deps: all ${#PACKAGES[@]} packages are installed" >&2
  exit 0
fi

if ((EUID != 0)); then
  echo "install-deps: missing packages: ${missing[*]}" >&2
  echo "install-deps: as root, run: apt-get install -y ${missing[*]}" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
