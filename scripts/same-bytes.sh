#!/usr/bin/env bash
# Fuses a fixed corpus of recipes (every method, every output type, stacks,
# depth alignment, mixed source types) with two builds of the tool and compares
# the checksums of the outputs: a change meant to keep output bytes must print
# "same bytes". The other build is made from a git revision (default HEAD) in a
# temporary worktree, or given as a binary.
#   scripts/same-bytes.sh [REV | --binary PATH]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d /tmp/tevrin-same-bytes.XXXXXX)
cleanup() {
  git -C "$root" worktree remove --force "$work/ref" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

"$root/scripts/build.sh" build >/dev/null
new="$root/build/tevrin-fuse"
sample="$root/build/tevrin-sample"
if [ "${1:-}" = "--binary" ]; then
  old=$2
else
  rev=${1:-HEAD}
  git -C "$root" worktree add -q --detach "$work/ref" "$rev"
  ln -s "$root/.deps" "$work/ref/.deps"
  "$work/ref/scripts/build.sh" build -DTEVRIN_BUILD_TESTS=OFF >/dev/null
  old="$work/ref/build/tevrin-fuse"
fi

m=$work/models
mkdir -p "$m"
"$sample" --layers 4 --seed 1 -o "$m/a.gguf" >/dev/null
"$sample" --layers 4 --seed 2 -o "$m/b.gguf" >/dev/null
"$sample" --layers 6 --seed 3 --type q8_0 -o "$m/c.gguf" >/dev/null
"$sample" --layers 4 --seed 4 --type q4_k -o "$m/d.gguf" >/dev/null

corpus=(
  "default linear 0.3,0.7|a b"
  "default slerp 0.3|a b"
  "default slerp 0.1>0.9|a b c"
  "default ties 0.5 1,0.5|a b c"
  "default dare 0.3 1,1|a b c"
  "default pick 1|a b"
  "default chaos 0.2|a b c"
  "default task 0.7 1,0.5|a b d"
  "default breadcrumbs 0.8|a b c"
  "default della 0.4 1,1|a b c"
  "default median|a b c d"
  "default nearswap 0.002|a b"
  "out keep\ndefault linear|a d"
  "out f32\ndefault linear|a b"
  "out bf16\ndefault linear|a b"
  "out q8_0\ndefault linear|a b"
  "out q6_k\ndefault ties|a b"
  "out q5_k\ndefault slerp|a b"
  "out q5_0\ndefault linear|a b"
  "out q4_k\ndefault dare 0.2|a b"
  "out q4_0\ndefault linear|a b"
  "out q8_0\ndefault pick 0|a"
  "layers 0-1 slerp 0.2>0.8\nlayers 2-3 ties 0.6 1,0.4\ntensor *norm* pick 1|a b"
  "stack 0:0 1:1 0:2 1:3 0:3|a b"
  "stack 0:0-3 1:2-3\ndefault linear|a b"
  "out q4_k\nstack 1:0-5\ndefault linear|a c"
  "seed 7\ndefault chaos 0.1|a b"
)
n=0
for entry in "${corpus[@]}"; do
  recipe=$(printf '%b' "${entry%%|*}")
  srcs=()
  for s in ${entry##*|}; do srcs+=("$m/$s.gguf"); done
  for bin in old new; do
    exe=$old; [ "$bin" = new ] && exe=$new
    "$exe" -e "$recipe" -o "$work/$bin-$n.gguf" "${srcs[@]}" >/dev/null 2>&1 || echo failed >"$work/$bin-$n.gguf"
  done
  n=$((n + 1))
done
status=0
failed=$( (grep -l '^failed$' "$work"/new-*.gguf 2>/dev/null || true) | wc -l)
for i in $(seq 0 $((n - 1))); do
  if ! cmp -s "$work/old-$i.gguf" "$work/new-$i.gguf"; then
    echo "differs: ${corpus[$i]}"
    status=1
  fi
done
[ $status -eq 0 ] && echo "same bytes ($n recipes, $failed of them failing alike)"
exit $status
