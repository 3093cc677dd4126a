#!/usr/bin/env bash
# The architecture matrix: sample models of the shapes people merge (llama with
# and without a tied head, qwen2 with attention biases, a mixture of experts,
# deci with per-layer head arrays, phi3 with fused attention), each fused by
# identity recipes, a blend with a donor whose vocabulary grew by three tokens,
# a stack that mixes the layers of both, and a re-quantization.
#
#   scripts/arch-matrix.sh [--fuse-only] [--bin DIR] [--work DIR] [--loader PATH]
#
# The fusion half always runs (the test suite runs it with --fuse-only). The
# loading half runs where an inference loader is at hand: --loader, else
# $TEVRIN_LOADER, else the llama-simple that scripts/check-with-loader.sh builds
# into .deps/loader-build. It loads and generates eight tokens with every
# output; identity recipes must generate exactly the text of their source, the
# others must load, report their depth and decode. The last line is PASS or FAIL.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bin="$root/build"
work="$root/out/arch-matrix"
loader=${TEVRIN_LOADER:-$root/.deps/loader-build/bin/llama-simple}
fuse_only=0
while [ $# -gt 0 ]; do
  case $1 in
    --fuse-only) fuse_only=1 ;;
    --bin) bin=$2; shift ;;
    --work) work=$2; shift ;;
    --loader) loader=$2; shift ;;
    *) echo "usage: $0 [--fuse-only] [--bin DIR] [--work DIR] [--loader PATH]" >&2; exit 2 ;;
  esac
  shift
done
[ "$fuse_only" -eq 1 ] || [ -x "$loader" ] || {
  echo "arch-matrix: no loader at $loader, fusion half only" >&2
  fuse_only=1
}
rm -rf "$work"
mkdir -p "$work"

shapes=(llama tied qwen2 moe deci phi3)
# name|recipe|sources|output layers|identity (the output must generate the base's text)
recipes=(
  "copy|out f16\ndefault pick 0|a|4|yes"
  "restack|out f16\nstack 0:0-3|a|4|yes"
  "blend|out f16\ndefault slerp 0.4|a b|4|no"
  "stack|out f16\nstack 0:0-3 1:1-2|a b|6|no"
  "quant|out q4_k\ndefault linear 0.7,0.3|a b|4|no"
)
failures=0
fail() {
  echo "FAILED: $*"
  failures=$((failures + 1))
}

# Runs the loader; leaves the generated text in <file>.text and the log in <file>.log.
generate() {
  local file=$1
  "$loader" -m "$file" -n 8 "The quick brown fox" >"$file.text" 2>"$file.log"
}

check_output() {
  local shape=$1 name=$2 layers=$3 identity=$4 out=$5
  if ! generate "$out"; then
    fail "$shape $name: the loader refused it (log: $out.log)"
    return
  fi
  grep -aqE "^print_info: n_layer += $layers\$" "$out.log" ||
    fail "$shape $name: the loader did not report $layers layers"
  grep -aqE "^main: decoded [1-9]" "$out.log" || fail "$shape $name: nothing decoded"
  if [ "$identity" = yes ] && ! cmp -s "$out.text" "$work/$shape-a.gguf.text"; then
    fail "$shape $name: text differs from the source's"
  fi
  echo "  $name: $(tr -d '\0' <"$out.text" | head -c 60)"
}

for shape in "${shapes[@]}"; do
  a="$work/$shape-a.gguf"
  b="$work/$shape-b.gguf"
  "$bin/tevrin-sample" --shape "$shape" --tokenizer --seed 1 --name "Sample A" -o "$a"
  "$bin/tevrin-sample" --shape "$shape" --tokenizer --seed 2 --vocab 515 --name "Sample B" -o "$b"
  echo "== $shape"
  if [ "$fuse_only" -eq 0 ] && ! generate "$a"; then
    fail "$shape: the loader refused the source (log: $a.log)"
    continue
  fi
  for entry in "${recipes[@]}"; do
    IFS='|' read -r name recipe srcs layers identity <<<"$entry"
    recipe=$(printf '%b' "$recipe")
    out="$work/$shape-$name.gguf"
    args=()
    for s in $srcs; do args+=("$work/$shape-$s.gguf"); done
    if ! "$bin/tevrin-fuse" -e "$recipe" -o "$out" "${args[@]}" >"$out.fuse" 2>/dev/null; then
      fail "$shape $name: $(grep -a '^FAILED' "$out.fuse")"
      continue
    fi
    summary=$(grep -a '^OK' "$out.fuse")
    # The donor's vocabulary grew by three tokens: it must be aligned, not dropped.
    if [[ $srcs == *b* ]] && [[ $summary != *"source 1 vocabulary aligned on 512 shared rows of 512"* ]]; then
      fail "$shape $name: donor not aligned ($summary)"
    fi
    if [[ $("$bin/tevrin-fuse" --inspect "$out") != *"\"n_layer\":\"$layers\""* ]]; then
      fail "$shape $name: not $layers layers"
    fi
    if [ "$fuse_only" -eq 1 ]; then
      echo "  $name: $summary"
    else
      check_output "$shape" "$name" "$layers" "$identity" "$out"
    fi
  done
done
if [ "$failures" -ne 0 ]; then
  echo "FAIL: $failures failures (files in $work)"
  exit 1
fi
half=$([ "$fuse_only" -eq 1 ] && echo "fused" || echo "fused and loaded")
echo "PASS: ${#shapes[@]} shapes x ${#recipes[@]} recipes $half"
