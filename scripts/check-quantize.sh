#!/usr/bin/env bash
# Optional check, not part of the test suite or CI: for one source and
# `default pick 0`, the named mixes of tevrin-fuse must give the same per-tensor
# types as the reference quantizer of the pinned inference tree, and the same
# tensor bytes wherever the type is the same. Runs on llama-, qwen2- and
# MoE-shaped sample models and one with per-layer head counts, without an
# importance matrix and with one in each of its two file forms (computed by
# llama-imatrix when it is built next to the quantizer; else only the runs
# without a matrix are made).
#   scripts/check-quantize.sh [mix...]        (default: all eight mixes)
# LLAMA_BIN names the folder holding llama-quantize (default
# /work/pinned/build/bin); it is never built here. Files and logs go to
# out/quantize-check/. The last line is PASS or FAIL.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
llama_bin=${LLAMA_BIN:-/work/pinned/build/bin}
work="$root/out/quantize-check"
mixes=("$@")
[ ${#mixes[@]} -gt 0 ] || mixes=(Q2_K_S Q3_K_S Q3_K_M Q3_K_L Q4_K_S Q4_K_M Q5_K_S Q5_K_M)

log() { echo "check-quantize: $*" >&2; }
if [ ! -x "$llama_bin/llama-quantize" ]; then
  log "no llama-quantize in $llama_bin (set LLAMA_BIN)"
  exit 1
fi
trap '[ $? -eq 0 ] || echo "FAIL: see the output above and the files in $work"' EXIT
"$root/scripts/build.sh" build >&2
bin="$root/build"
rm -rf "$work"
mkdir -p "$work"

# name: tevrin-sample options
models=(
  "llama: --shape tied --layers 12 --width 256 --ffn 768 --vocab 512"
  "qwen2: --shape qwen2 --layers 6 --width 896 --ffn 1152 --vocab 512"
  "moe: --shape moe --layers 4 --width 256 --ffn 512 --vocab 512"
  "deci: --shape deci --layers 8 --width 256 --ffn 768 --vocab 512"
)

# Per tensor of a GGUF file: name, type number, and a hash of its bytes.
list_tensors() {
  python3 - "$1" <<'PY'
import hashlib, struct, sys
data = open(sys.argv[1], 'rb').read()
pos = 0
def take(fmt):
    global pos
    v = struct.unpack_from('<' + fmt, data, pos); pos += struct.calcsize('<' + fmt); return v[0]
def text():
    global pos
    n = take('Q'); s = data[pos:pos + n].decode(); pos += n; return s
sizes = {0: 1, 1: 1, 2: 2, 3: 2, 4: 4, 5: 4, 6: 4, 7: 1, 10: 8, 11: 8, 12: 8}
def value(t):
    global pos
    if t == 8: return text()
    if t == 9:
        et = take('I'); n = take('Q'); return [value(et) for _ in range(n)]
    pos += sizes[t]
    return struct.unpack_from('<' + {0:'B',1:'b',2:'H',3:'h',4:'I',5:'i',6:'f',7:'?',10:'Q',11:'q',12:'d'}[t], data, pos - sizes[t])[0]
# ggml type number: (block size, bytes per block)
TYPE_SIZES = {0: (1, 4), 1: (1, 2), 2: (32, 18), 3: (32, 20), 6: (32, 22), 7: (32, 24),
              8: (32, 34), 10: (256, 84), 11: (256, 110), 12: (256, 144), 13: (256, 176),
              14: (256, 210), 16: (256, 66), 17: (256, 74), 18: (256, 98), 19: (256, 50),
              20: (32, 18), 21: (256, 110), 22: (256, 82), 23: (256, 136), 29: (256, 56),
              30: (1, 2), 34: (256, 54), 35: (256, 66)}
assert data[:4] == b'GGUF'
pos = 4; take('I'); n_tensors = take('Q'); n_kv = take('Q')
align = 32
for _ in range(n_kv):
    k = text(); v = value(take('I'))
    if k == 'general.alignment': align = v
infos = []
for _ in range(n_tensors):
    name = text(); nd = take('I'); dims = [take('Q') for _ in range(nd)]
    infos.append((name, take('I'), dims, take('Q')))
start = (pos + align - 1) // align * align
for name, t, dims, off in sorted(infos):
    block, size = TYPE_SIZES[t]
    rows = 1
    for d in dims[1:]:
        rows *= d
    blob = data[start + off:start + off + dims[0] // block * size * rows]
    print(name, t, hashlib.sha256(blob).hexdigest()[:16])
PY
}

fail=0
compare() {  # label reference ours
  local label=$1 ref=$2 ours=$3
  list_tensors "$ref" >"$ref.list"
  list_tensors "$ours" >"$ours.list"
  local types_differ bytes_differ total
  total=$(wc -l <"$ref.list")
  types_differ=$(join <(cut -d' ' -f1,2 "$ref.list") <(cut -d' ' -f1,2 "$ours.list") \
    | awk '$2 != $3' | wc -l)
  bytes_differ=$(join "$ref.list" "$ours.list" | awk '$2 == $4 && $3 != $5' | wc -l)
  if [ "$(cut -d' ' -f1 "$ref.list")" != "$(cut -d' ' -f1 "$ours.list")" ]; then
    echo "$label: tensor names differ"; fail=1; return
  fi
  echo "$label: $total tensors, types differ: $types_differ, bytes differ: $bytes_differ"
  if [ "$types_differ" != 0 ] || [ "$bytes_differ" != 0 ]; then
    join "$ref.list" "$ours.list" | awk '$2 != $4 || $3 != $5' | head -5
    fail=1
  fi
}

for entry in "${models[@]}"; do
  name=${entry%%:*}
  "$bin/tevrin-sample" --tokenizer ${entry#*:} --seed 7 -o "$work/$name.gguf"
  matrices=("")
  if [ -x "$llama_bin/llama-imatrix" ]; then
    python3 -c 'print("the quick brown fox jumps over the lazy dog. " * 500)' >"$work/text.txt"
    for form in gguf dat; do
      "$llama_bin/llama-imatrix" -m "$work/$name.gguf" -f "$work/text.txt" -c 128 --chunks 2 \
        --output-format "$form" -o "$work/$name.imatrix.$form" >"$work/$name.imatrix.$form.log" 2>&1
      matrices+=("$work/$name.imatrix.$form")
    done
  fi
  for mix in "${mixes[@]}"; do
    for matrix in "${matrices[@]}"; do
      ref_args=() our_args=() tag=plain
      if [ -n "$matrix" ]; then
        ref_args=(--imatrix "$matrix") our_args=(--imatrix "$matrix") tag=${matrix##*.}
      elif [ "$mix" = Q2_K_S ]; then
        continue  # made only with an importance matrix
      fi
      ref="$work/$name.$mix.$tag.ref.gguf" ours="$work/$name.$mix.$tag.ours.gguf"
      "$llama_bin/llama-quantize" "${ref_args[@]}" "$work/$name.gguf" "$ref" "$mix" \
        >"$ref.log" 2>&1 || { echo "$name $mix $tag: reference failed"; fail=1; continue; }
      "$bin/tevrin-fuse" "${our_args[@]}" -e "out $mix" -o "$ours" "$work/$name.gguf" \
        >"$ours.log" 2>&1 || { echo "$name $mix $tag: tevrin-fuse failed"; tail -2 "$ours.log"; fail=1; continue; }
      compare "$name $mix $tag" "$ref" "$ours"
    done
  done
done
# Plain type words against the reference's --pure (every matrix in one type), on
# the dense model whose rows fit every block: word:reference-type[:needs-matrix].
plain_words=(q2_k:Q2_K q3_k:Q3_K_M q4_1:Q4_1 q5_1:Q5_1 iq4_nl:IQ4_NL iq4_xs:IQ4_XS
  tq1_0:TQ1_0 tq2_0:TQ2_0 iq3_s:IQ3_S:m iq3_xxs:IQ3_XXS:m iq2_s:IQ2_M:m iq1_m:IQ1_M:m)
if [ ${#@} -eq 0 ]; then
  matrix="$work/llama.imatrix.gguf"
  for entry in "${plain_words[@]}"; do
    IFS=: read -r word ftype needs <<<"$entry"
    args=()
    if [ -n "$needs" ]; then
      [ -f "$matrix" ] || continue
      args=(--imatrix "$matrix")
    fi
    ref="$work/llama.$word.ref.gguf" ours="$work/llama.$word.ours.gguf"
    "$llama_bin/llama-quantize" --pure "${args[@]}" "$work/llama.gguf" "$ref" "$ftype" \
      >"$ref.log" 2>&1 || { echo "llama $word: reference failed"; fail=1; continue; }
    "$bin/tevrin-fuse" "${args[@]}" -e "out $word" -o "$ours" "$work/llama.gguf" \
      >"$ours.log" 2>&1 || { echo "llama $word: tevrin-fuse failed"; tail -2 "$ours.log"; fail=1; continue; }
    compare "llama $word${needs:+ with matrix}" "$ref" "$ours"
  done
fi
[ "$fail" = 0 ] && echo PASS || { echo FAIL; exit 1; }
