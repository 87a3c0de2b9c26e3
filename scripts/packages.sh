# Sourced by the scripts: makes sure that Debian packages are installed.

# need_packages PACKAGE...: installs what is missing, or says with which command somebody else can.
need_packages() {
  local missing=() package as_root=()
  for package in "$@"; do
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" = installed ] || missing+=("$package")
  done
  [ ${#missing[@]} -eq 0 ] && return
  if [ "$(id -u)" -ne 0 ]; then
    if ! sudo -n true 2>/dev/null; then
      echo "Packages are missing. Install them as root with:" >&2
      echo "  apt-get update && apt-get install -y --no-install-recommends ${missing[*]}" >&2
      exit 1
    fi
    as_root=(sudo -n)
  fi
  echo "Installing ${missing[*]}"
  "${as_root[@]}" apt-get update
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
}

# To build the library and zebctl, and to run them in a sandbox.
build_packages=(g++ cmake ninja-build libpam0g-dev libssl-dev libcli11-dev nlohmann-json3-dev iproute2)
# To build and run all tests, with both compilers.
test_packages=("${build_packages[@]}" abigail-tools binutils clang doxygen libclang-rt-14-dev libgtest-dev
  pkg-config strace)
# To build the Debian packages and try them in a clean system.
packaging_packages=("${build_packages[@]}" debhelper dpkg-dev git lintian mmdebstrap)
# To run the benchmarks beside other libraries.
bench_packages=("${build_packages[@]}" pkg-config libbenchmark-dev libfmt-dev libglib2.0-dev libicu-dev libinih-dev
  libiniparser-dev libpugixml-dev libspdlog-dev libxml2-dev sudo)
