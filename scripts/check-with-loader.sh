#!/usr/bin/env bash
# Optional check, not part of the test suite or CI: shows that fused files are
# working models by loading and running them with an independent GGUF loader,
# the `llama-simple` example of the pinned upstream inference tree (CPU only).
#   scripts/check-with-loader.sh
# The loader is built once into .deps/loader-build (git-ignored; several minutes
# on two cores); models and logs go to out/loader-check/. The generated text is
# gibberish (the weights are random): what counts is that the loader accepts each
# file, stacked depth included, and runs it. The last line is PASS or FAIL.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
deps="$root/.deps"
. "$root/scripts/ggml-pin.env"
src="$deps/loader-src"
build="$deps/loader-build"
loader="$build/bin/llama-simple"
work="$root/out/loader-check"

log() { echo "check-with-loader: $*" >&2; }

# The tree comes from the same pinned npm package as ggml (see scripts/setup.sh).
fetch_source() {
  [ -f "$src/.complete" ] && return 0
  "$root/scripts/fetch-pinned-tree.sh" "$src"
  touch "$src/.complete"
}

build_loader() {
  [ -x "$loader" ] && return 0
  fetch_source
  log "building llama-simple into $build (takes a few minutes)"
  local start=$SECONDS
  cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DGGML_NATIVE=OFF \
    -DBUILD_SHARED_LIBS=OFF -DLLAMA_BUILD_TESTS=OFF -DLLAMA_BUILD_TOOLS=OFF \
    -DLLAMA_BUILD_SERVER=OFF -DLLAMA_BUILD_APP=OFF -DLLAMA_OPENSSL=OFF \
    -DGGML_CCACHE=OFF >/dev/null
  ninja -C "$build" -j2 llama-simple >/dev/null
  log "loader built in $((SECONDS - start)) s"
}

trap '[ $? -eq 0 ] || echo "FAIL: see the output above and the files in $work"' EXIT
build_loader
"$root/scripts/build.sh" build >&2
bin="$root/build"
rm -rf "$work"
mkdir -p "$work"

"$bin/tevrin-sample" --tokenizer --layers 4 --width 256 --seed 1 --name "Sample A" -o "$work/a.gguf"
"$bin/tevrin-sample" --tokenizer --layers 6 --width 256 --seed 2 --name "Sample B" -o "$work/b.gguf"
fuse() {
  local name=$1 flag=$2 recipe=$3
  echo "== tevrin-fuse $flag '$recipe' -o $name.gguf a.gguf b.gguf"
  local status=0
  "$bin/tevrin-fuse" "$flag" "$recipe" -o "$work/$name.gguf" "$work/a.gguf" "$work/b.gguf" \
    >"$work/$name.fuse.txt" 2>/dev/null || status=$?
  tail -n 2 "$work/$name.fuse.txt"
  return "$status"
}
fuse plain -r "$root/examples/slerp-schedule.txt"
fuse stacked -e "stack 0:0-3 1:2-5"

# Runs the loader on one file: passes when it exits 0, reports the expected number
# of layers and decodes at least one token. The generated text is on stdout.
run_loader() {
  local name=$1 layers=$2 status=0
  echo "== llama-simple -m $name.gguf -n 8 \"The quick brown fox\""
  "$loader" -m "$work/$name.gguf" -n 8 "The quick brown fox" \
    >"$work/$name.text.txt" 2>"$work/$name.loader.txt" || status=$?
  grep -aE "^print_info: (file type|n_layer  |model params)|^main: decoded" "$work/$name.loader.txt" || true
  echo "text: $(tr -d '\0' <"$work/$name.text.txt")"
  if [ "$status" -ne 0 ]; then
    echo "$name: the loader exited with status $status (log: $work/$name.loader.txt)"
    return 1
  fi
  if ! grep -aqE "^print_info: n_layer += $layers\$" "$work/$name.loader.txt" ||
    ! grep -aqE "^main: decoded [1-9]" "$work/$name.loader.txt"; then
    echo "$name: the loader did not report $layers layers and decoded tokens"
    return 1
  fi
}

failed=0
run_loader plain 4 || failed=1
run_loader stacked 8 || failed=1
[ "$failed" -eq 0 ] || exit 1
echo "PASS: the loader ran the plain (4 layers) and the stacked (8 layers) fused model"
