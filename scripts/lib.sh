# shellcheck shell=bash
# Shared by the scripts, which source it: `top` is the top of the tree, and the current folder from here on.

set -euo pipefail
top=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)
cd -- "$top"
jobs=$(nproc)

# Everything that building, testing and the examples need.
# shellcheck disable=SC2034 # used by the scripts that source this
build_packages=(
  cmake ninja-build g++ pkg-config
  libyara-dev libprotobuf-dev protobuf-compiler libpoco-dev libssl-dev zlib1g-dev libseccomp-dev
  libcli11-dev libfmt-dev nlohmann-json3-dev libgtest-dev libbenchmark-dev
  python3 python3-protobuf
)

# What the tests need besides: the manual's tools, and the shells whose completion is tried.
# shellcheck disable=SC2034
test_packages=(python3-jsonschema scdoc groff-base bash zsh fish)

fail() {
  printf '%s: %s\n' "$0" "$*" >&2
  exit 1
}

# step TEXT COMMAND...: says what is done, does it, and says how long it took.
step() {
  local text=$1 start=$SECONDS
  shift
  printf '==> %s\n' "$text"
  "$@"
  printf '==> done in %d s: %s\n\n' "$((SECONDS - start))" "$text"
}

# install_packages PACKAGE...: installs those that are missing, which only root can.
install_packages() {
  local package missing=()
  command -v dpkg-query >/dev/null || fail "this is no Debian system; install what README.md names and build with cmake"
  for package in "$@"; do
    # shellcheck disable=SC2016 # the format is dpkg-query's
    if [[ $(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) != installed ]]; then
      missing+=("$package")
    fi
  done
  if ((${#missing[@]} == 0)); then
    echo "all ${#} packages are installed"
    return
  fi
  if ((EUID != 0)); then
    fail "not root, and these packages are missing. Install them with
    sudo apt-get install --no-install-recommends ${missing[*]}"
  fi
  echo "installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get -qq update
  apt-get -qq install -y --no-install-recommends "${missing[@]}" </dev/null >/dev/null
}

# get_libyara: the newer libyara that every preset but system-yara takes; where it can't be had, the system's will do.
get_libyara() {
  local status=0
  scripts/get-libyara || status=$?
  ((status == 0 || status == 2))
}

# build_preset PRESET [TARGET...]: configures and builds one of CMakePresets.json; without targets, everything.
build_preset() {
  local preset=$1 log=build/$1.configure.log
  shift
  mkdir -p build
  [[ -w build ]] || fail "$top/build belongs to another user; remove it or work in a clone of your own"
  if ! cmake --preset "$preset" >"$log" 2>&1; then
    cat "$log" >&2
    return 1
  fi
  cmake --build --preset "$preset" --parallel "$jobs" ${1:+--target "$@"}
}

# The mirror that this machine gets Debian's packages from.
find_mirror() {
  {
    cat /etc/apt/sources.list.d/*.sources 2>/dev/null | awk '$1 == "URIs:" { print $2 }'
    cat /etc/apt/sources.list /etc/apt/sources.list.d/*.list 2>/dev/null |
      sed -En 's/^deb[[:space:]]+(\[[^]]*\][[:space:]]+)?([^[:space:]]+).*/\2/p'
    true # one of the files is always missing
  } | grep -E '/debian(\.list)?/?$' | head -n 1
}

# write_test_file PATH: the harmless anti-virus test file, from pieces: written out here, it would set off every scanner
# that sees this script.
write_test_file() {
  printf '%s%s' "X5O!P%@AP[4\\PZX54(P^)7CC)7}\$EICAR" "-STANDARD-ANTIVIRUS-TEST-FILE!\$H+H*" >"$1"
}
