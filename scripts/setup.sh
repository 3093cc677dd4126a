#!/usr/bin/env bash
# Installs what the build needs, idempotently, and prints the CMake prefix of ggml.
#   scripts/setup.sh            apt packages (when missing) + ggml
# ggml: a system install that has gguf_get_tensor_ne wins; otherwise ggml-base is
# built from the pinned source into .deps/ (git-ignored). Progress goes to stderr;
# the only line on stdout is the prefix to hand to CMAKE_PREFIX_PATH (may be empty).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
deps="$root/.deps"
. "$root/scripts/ggml-pin.env"

log() { echo "setup: $*" >&2; }

need_pkgs=()
for p in cmake ninja-build g++ libgtest-dev libbenchmark-dev ca-certificates; do
  dpkg -s "$p" >/dev/null 2>&1 || need_pkgs+=("$p")
done
# npm and git may come from elsewhere than Debian (a node install, say): a working
# command is enough.
command -v npm >/dev/null 2>&1 || need_pkgs+=(npm)
command -v git >/dev/null 2>&1 || need_pkgs+=(git)
if [ ${#need_pkgs[@]} -gt 0 ]; then
  log "installing ${need_pkgs[*]}"
  sudo_cmd=""
  [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
  $sudo_cmd apt-get update -qq >&2
  DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq "${need_pkgs[@]}" >&2
fi

system_ggml_ok() {
  # A system ggml counts only if its gguf.h declares gguf_get_tensor_ne.
  for h in /usr/include/gguf.h /usr/local/include/gguf.h; do
    [ -f "$h" ] && grep -q gguf_get_tensor_ne "$h" && return 0
  done
  return 1
}

if system_ggml_ok; then
  echo ""
  exit 0
fi

prefix="$deps/ggml-from-$GGML_NPM_PACKAGE-$GGML_NPM_VERSION"
if [ -f "$prefix/.complete" ]; then
  echo "$prefix"
  exit 0
fi

mkdir -p "$deps"
work="$deps/work"
rm -rf "$work"
"$root/scripts/fetch-pinned-tree.sh" "$work/src"
touch "$work/src/ggml/ggml.pc.in"
log "building ggml-base"
cmake -S "$work/src/ggml" -B "$work/build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DGGML_CPU=OFF -DGGML_BUILD_TESTS=OFF -DGGML_BUILD_EXAMPLES=OFF -DGGML_CCACHE=OFF \
  -DGGML_NATIVE=OFF -DBUILD_SHARED_LIBS=OFF -DCMAKE_POSITION_INDEPENDENT_CODE=ON \
  -DCMAKE_INSTALL_PREFIX="$prefix" >/dev/null
cmake --build "$work/build" >/dev/null
cmake --install "$work/build" >/dev/null
rm -rf "$work"
touch "$prefix/.complete"
echo "$prefix"
