#!/usr/bin/env bash
# Benchmark, not part of the test suite or CI: F16 to q4_k_m of a ~1 GB sample
# model by tevrin-fuse and by the reference quantizer of the pinned inference
# tree, side by side on the same threads (both use every core), alternating
# runs, page cache warm. Prints wall time and peak memory per run, the median of
# each and their ratio, and checks the two outputs hold the same tensor bytes.
#   scripts/bench-quantize.sh [rounds]        (default 3)
# LLAMA_BIN names the folder holding llama-quantize (default
# /work/pinned/build/bin). Files go to out/quantize-bench/ (about 1.6 GB).
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
llama_bin=${LLAMA_BIN:-/work/pinned/build/bin}
rounds=${1:-3}
work="$root/out/quantize-bench"
[ -x "$llama_bin/llama-quantize" ] || { echo "no llama-quantize in $llama_bin" >&2; exit 1; }
"$root/scripts/build.sh" build >&2
mkdir -p "$work"
model="$work/f16.gguf"
[ -f "$model" ] || "$root/build/tevrin-sample" --tokenizer --width 2048 --layers 8 \
  --vocab 16384 --seed 3 -o "$model"
cat "$model" >/dev/null  # warm the page cache

# Runs a command under /usr/bin/time; prints "wall cpu peak_kib" (cpu: user + system).
measure() {
  /usr/bin/time -f "%e %U %S %M" -o "$work/time.txt" "$@" >/dev/null 2>&1
  awk '{printf "%s %.2f %s\n", $1, $2 + $3, $4}' "$work/time.txt"
}
ours=() theirs=() ours_cpu=() theirs_cpu=()
for ((r = 1; r <= rounds; r++)); do
  read -r wall cpu peak < <(measure "$llama_bin/llama-quantize" "$model" "$work/ref.gguf" Q4_K_M)
  theirs+=("$wall") theirs_cpu+=("$cpu")
  echo "round $r llama-quantize: wall $wall s, cpu $cpu s, peak $peak KiB"
  read -r wall cpu peak < <(measure "$root/build/tevrin-fuse" -e "out q4_k_m" -o "$work/ours.gguf" "$model")
  ours+=("$wall") ours_cpu+=("$cpu")
  echo "round $r tevrin-fuse:    wall $wall s, cpu $cpu s, peak $peak KiB"
done
median() { printf '%s\n' "$@" | sort -g | awk '{a[NR] = $1} END {print a[int((NR + 1) / 2)]}'; }
ratio() { awk "BEGIN {printf \"%.2f\", $1 / $2}"; }
m_ours=$(median "${ours[@]}") m_theirs=$(median "${theirs[@]}")
c_ours=$(median "${ours_cpu[@]}") c_theirs=$(median "${theirs_cpu[@]}")
echo "median wall: tevrin-fuse $m_ours s, llama-quantize $m_theirs s, ratio $(ratio "$m_ours" "$m_theirs")"
echo "median cpu:  tevrin-fuse $c_ours s, llama-quantize $c_theirs s, ratio $(ratio "$c_ours" "$c_theirs")"
bash -c ". <(sed -n '/^list_tensors() {/,/^}/p' '$root/scripts/check-quantize.sh');
  diff <(list_tensors '$work/ref.gguf') <(list_tensors '$work/ours.gguf') >/dev/null" \
  && echo "tensor bytes: identical" || echo "tensor bytes: DIFFERENT"
