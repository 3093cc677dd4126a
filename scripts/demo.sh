#!/usr/bin/env bash
# The main job on built-in sample models: makes two small llama-shaped models,
# fuses them with a recipe from examples/, and shows what came out.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/build.sh" build >&2
bin="$root/build"
demo="$root/demo"
mkdir -p "$demo"

echo "== making two sample models (4 and 6 layers, different seeds)"
"$bin/tevrin-sample" --layers 4 --width 256 --seed 1 --name "Sample A" -o "$demo/a.gguf"
"$bin/tevrin-sample" --layers 6 --width 256 --seed 2 --name "Sample B" \
  --template "{{ messages }}" -o "$demo/b.gguf"

echo "== fusing them with examples/slerp-schedule.txt"
"$bin/tevrin-fuse" -r "$root/examples/slerp-schedule.txt" -o "$demo/fused.gguf" \
  "$demo/a.gguf" "$demo/b.gguf"

echo "== the fused model's header"
"$bin/tevrin-fuse" --inspect "$demo/fused.gguf"
echo "== files in $demo"
ls -l "$demo"
