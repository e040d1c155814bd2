# Shared by scripts/run-demo and scripts/test: installs the Debian packages
# the build needs when they are missing, and configures and builds a tree.
# Sourced, not run.

TONA_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
TONA_JOBS=$(nproc 2>/dev/null || echo 2)

tona_packages=(g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev libsdl2-dev
               libxml2-dev libzip-dev libsndfile1-dev libsoxr-dev
               qt6-base-dev fonts-noto-cjk)

tona_install_packages() {
  local missing=() pkg
  for pkg in "${tona_packages[@]}" "$@"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
      missing+=("$pkg")
    fi
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "Installing: ${missing[*]}" >&2
  local sudo=()
  [ "$(id -u)" -ne 0 ] && sudo=(sudo)
  "${sudo[@]}" apt-get update -q
  DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
}

# tona_build DIR [cmake options...] -- [targets...]
tona_build() {
  local dir=$1; shift
  local options=() targets=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do options+=("$1"); shift; done
  [ $# -gt 0 ] && shift
  targets=("$@")
  cmake -S "$TONA_ROOT" -B "$TONA_ROOT/$dir" -G Ninja "${options[@]}" >/dev/null
  if [ ${#targets[@]} -gt 0 ]; then
    cmake --build "$TONA_ROOT/$dir" -j "$TONA_JOBS" --target "${targets[@]}"
  else
    cmake --build "$TONA_ROOT/$dir" -j "$TONA_JOBS"
  fi
}

# The options of the main build tree, shared so that run-demo and test
# never reconfigure each other's tree.
tona_release_options=(-DCMAKE_BUILD_TYPE=Release -DWARNINGS_AS_ERRORS=ON -DBUILD_BENCHMARKS=ON)
tona_sanitizer_options=(-DCMAKE_BUILD_TYPE=Debug "-DCMAKE_CXX_FLAGS_DEBUG=-O1 -g"
                        -DENABLE_SANITIZERS=ON -DWARNINGS_AS_ERRORS=ON -DBUILD_BENCHMARKS=OFF)
