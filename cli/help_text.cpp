#include "cli/help_text.h"

#include <ggml.h>

#ifndef TEVRIN_VERSION
#error "TEVRIN_VERSION is set by the build"
#endif

namespace tevrin {

const char* help_text() {
    return R"(usage: tevrin-fuse (-r recipe|-e text|--random seed) -o out.gguf src...
       tevrin-fuse --plan [--json] (-r recipe|-e text|--random seed) src...
       tevrin-fuse --inspect file.gguf
       tevrin-fuse --tensors file.gguf
       tevrin-fuse --compare [--json] [--svg out.svg] reference src...

Makes one GGUF model out of one to eight GGUF models. The first source is the
base, the others are donors. The recipe says how each tensor is blended, which
type the output is stored in, and, for a stack, which layers make up the output.

Options (matched exactly; a value is always the next argument):
  -r PATH          read the recipe from a file
  -e TEXT          the recipe text itself (-r and -e overwrite each other)
  --random SEED    generate a recipe from a seed (replaces -r / -e)
  --type WORD      output type written into a generated recipe (default q8_0)
  --imatrix FILE   importance matrix for the quantizer (llama-imatrix output)
  -o PATH          the output file; it is replaced only when complete
  -t, --threads N  worker threads (default 0: all cores); output is the same
  --split-max-size SIZE
                   write the output as shards of at most SIZE bytes of tensor
                   data each (500M, 4G, plain bytes)
  --split-max-tensors N
                   write the output as shards of at most N tensors each
  --dry            print the recipe and stop
  --plan           print what the run would do per tensor, with warnings; write
                   nothing (no -o needed); status 2 when the run would fail
  --json           with --plan or --compare: one JSON object per line
  --inspect PATH   print a one-line JSON report of a GGUF file and stop
  --tensors PATH   the same report with the file's tensor list
  --compare        compare 2 to 8 sources with the first: cosine and relative
                   distance per tensor, means per layer and role; nothing is
                   written but the optional picture
  --svg PATH       with --compare: also write a heatmap of 1 - cosine as SVG
  -h, --help       this text
  --version        program and ggml versions
  anything else    a source path (any shard of a sharded model opens all)

Recipe directives (one per line, # starts a comment):
  name TEXT                 general.name of the output
  out WORD                  output type (see below)
  seed N                    seed of the random methods (default 42)
  default METHOD            method for every tensor no other rule takes
  layers A-B METHOD         method for the block tensors of layers A to B
  tensor GLOB METHOD        method for tensors whose name matches (* and ?)
  type GLOB WORD            output type of the matrices whose name matches
  stack S:A-B S:L ...       build the output from whole layers of sources

Methods (t is a number, W a weight list such as 1,0.5; a>b or a>b>c... is a
schedule across layers):
  linear [W]                weighted mean
  slerp [t]                 spherical interpolation base -> second source
  pick [index]              one source's tensor
  median                    element-wise median
  nearswap [t]              moves the base toward the second source by t
  chaos [t]                 random weights per block of 32 rows
  task [t] [W]              base + t * weighted task vectors
  ties [density] [W]        trim, elect sign, merge
  dare [drop] [W]           random drop and rescale of task vectors
  breadcrumbs [density] [W] keeps a middle band of task-vector values
  della [drop] [W]          drop by magnitude rank, then rescale
  model_stock               toward the donors' mean as far as they agree
  sce [share]               keep high-variance elements, weigh, erase signs
  karcher [steps] [W]       spherical mean of the rows, mean length
  multislerp [t] [W]        spherical mean in one step; t 1: of task vectors
  nuslerp [W]               base + slerp of two donors' task vectors

Output words (case-insensitive):
  f32 f16 bf16 q8_0 q6_k q5_k q5_1 q5_0 q4_k q4_1 q4_0 iq4_nl iq4_xs q3_k q2_k
  tq2_0 tq1_0, or keep (each source type)
  with --imatrix also: iq3_s iq3_xxs iq2_s iq2_xs iq2_xxs iq1_m iq1_s
  named mixes: q5_k_m q5_k_s q4_k_m q4_k_s q3_k_l q3_k_m q3_k_s q2_k_s

Exit status: 0 success (also --dry, --inspect, --tensors, --help, --version,
             and --plan of a run that would succeed), 1 usage failure,
             2 the run failed or was interrupted (or --plan finds it would fail).

Example:
  tevrin-fuse -e 'out q8_0
  default slerp 0.2>0.8' -o fused.gguf base.gguf donor.gguf
)";
}

std::string version_text() {
    return std::string("tevrin-fuse ") + TEVRIN_VERSION + "\nggml " + ggml_version() + " (" +
           ggml_commit() + ")\n";
}

}  // namespace tevrin
