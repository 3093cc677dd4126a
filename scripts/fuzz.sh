#!/usr/bin/env bash
# Builds the libFuzzer targets with clang into build-fuzz/ and runs one or all of
# them for a bounded time. Not part of CI.
#   scripts/fuzz.sh [all|recipe|source_open|inspect|fusion] [seconds per target]
# Defaults: all, 60 s. The growing corpus stays in build-fuzz/corpus/<target>/,
# the generated seeds in build-fuzz/seeds/<target>/, crash inputs and logs in
# build-fuzz/findings/. Extra libFuzzer flags can be given in FUZZ_ARGS.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
target=${1:-all}
seconds=${2:-60}
dir="$root/build-fuzz"
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-2}
case "$target" in
  all | recipe | source_open | inspect | fusion) ;;
  *)
    echo "usage: scripts/fuzz.sh [all|recipe|source_open|inspect|fusion] [seconds]" >&2
    exit 1
    ;;
esac

for p in clang libclang-rt-14-dev; do
  if ! dpkg -s "$p" >/dev/null 2>&1; then
    sudo_cmd=""
    [ "$(id -u)" -ne 0 ] && sudo_cmd="sudo"
    $sudo_cmd apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo_cmd apt-get install -y -qq clang libclang-rt-14-dev
    break
  fi
done

# Runs of this script may overlap (one target each); they build one at a time.
mkdir -p "$dir"
flock "$dir/.build-lock" "$root/scripts/build.sh" build-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTEVRIN_BUILD_FUZZ=ON -DTEVRIN_BUILD_TESTS=OFF

# Packs base, donor and recipe the way fuzz_fusion reads its input.
pack_fusion() {
  perl -e 'local $/; my @parts;
    for my $f (@ARGV[0,1]) { open(my $h, "<:raw", $f) or die; push @parts, <$h>; }
    print pack("V", length $parts[0]), $parts[0], pack("V", length $parts[1]), $parts[1];' "$1" "$2"
  cat "$3"
}

make_seeds() {
  local seeds="$dir/seeds" models="$dir/seeds/models"
  [ -f "$seeds/.complete" ] && return
  rm -rf "$seeds"
  mkdir -p "$models" "$seeds/recipe" "$seeds/source_open" "$seeds/inspect" "$seeds/fusion"
  local sample="$dir/tevrin-sample" small="--width 32 --ffn 32 --vocab 2"
  "$sample" $small --layers 0 --vocab 1 --type f32 -o "$models/tiny.gguf"
  "$sample" $small --layers 1 --type f16 --seed 2 -o "$models/one.gguf"
  "$sample" $small --layers 2 --type q8_0 --seed 3 --template "{{x}}" -o "$models/two.gguf"
  "$sample" $small --layers 3 --type q4_0 --seed 4 -o "$models/three.gguf"
  "$sample" $small --layers 2 --type bf16 --seed 5 --arch qwen2 -o "$models/other.gguf"
  cp "$models"/*.gguf "$seeds/source_open/"
  cp "$models"/*.gguf "$seeds/inspect/"
  local i=0 r
  for r in "$root"/examples/*.txt; do
    for n in 1 2 3; do
      { printf "\\x0$n"; cat "$r"; } >"$seeds/recipe/$(basename "$r" .txt)-$n"
    done
  done
  local pairs=("tiny one" "one two" "two three" "three other" "one one")
  local recipes=("$root"/examples/*.txt)
  printf 'stack 0:0-1 1:0\nout keep\n' >"$models/stack.txt"
  printf 'default ties 0.5\nlayers 1 slerp 0.2>0.8\nout f16\n' >"$models/mixed.txt"
  recipes+=("$models/stack.txt" "$models/mixed.txt")
  for pair in "${pairs[@]}"; do
    set -- $pair
    for r in "${recipes[@]}"; do
      pack_fusion "$models/$1.gguf" "$models/$2.gguf" "$r" >"$seeds/fusion/seed-$i"
      i=$((i + 1))
    done
  done
  touch "$seeds/.complete"
}

# A crash, a sanitizer report or a time-out leaves its input in findings/<target>/
# and makes the script fail at the end.
failed=0
run_target() {
  local name=$1 dict=$2 log="$dir/findings/$1/last-run.log" status=0
  mkdir -p "$dir/corpus/$name" "$dir/findings/$name" "$dir/tmp"
  echo "== fuzz_$name for ${seconds}s"
  # Scratch files of a crashed run stay inside the build folder.
  # shellcheck disable=SC2086
  (cd "$dir/findings/$name" && TMPDIR="$dir/tmp" \
    "$dir/fuzz/fuzz_$name" "$dir/corpus/$name" "$dir/seeds/$name" -dict="$dict" \
    -max_total_time="$seconds" -timeout=30 -rss_limit_mb=4096 -print_final_stats=1 \
    ${FUZZ_ARGS:-} >"$log" 2>&1) || status=$?
  grep -E '^(Done|stat::number_of_executed_units|stat::average_exec_per_sec|SUMMARY)' "$log" || true
  if [ "$status" -ne 0 ]; then
    echo "fuzz_$name failed (status $status): see $dir/findings/$name/" >&2
    failed=1
  fi
}

make_seeds
both="$dir/seeds/both.dict"
cat "$root/fuzz/gguf.dict" "$root/fuzz/recipe.dict" >"$both"
case "$target" in
  all)
    run_target recipe "$root/fuzz/recipe.dict"
    run_target source_open "$root/fuzz/gguf.dict"
    run_target inspect "$root/fuzz/gguf.dict"
    run_target fusion "$both"
    ;;
  recipe) run_target recipe "$root/fuzz/recipe.dict" ;;
  source_open | inspect) run_target "$target" "$root/fuzz/gguf.dict" ;;
  fusion) run_target fusion "$both" ;;
esac
exit "$failed"
