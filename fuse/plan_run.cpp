#include "fuse/plan_run.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "fuse/stack_plan.h"
#include "fuse/type_choice.h"
#include "fuse/vocab_align.h"

namespace tevrin {
namespace {

void add_source_notes(const SourceList& sources, const Recipe& recipe,
                      std::vector<std::string>& notes) {
    const SourceModel& base = *sources[0];
    for (size_t s = 1; s < sources.size(); ++s) {
        const SourceModel& donor = *sources[s];
        if (donor.arch != base.arch) {
            notes.push_back("mixed families (" + base.arch + " + " + donor.arch +
                            "): mismatched tensors keep the base");
        } else if (recipe.stack.empty() && donor.n_layer != base.n_layer) {
            notes.push_back("depth-aligned " + std::to_string(donor.n_layer) + " layers onto " +
                            std::to_string(base.n_layer));
        }
    }
}

}  // namespace

void check_source_count(const std::vector<std::string>& paths) {
    if (paths.empty()) {
        throw std::runtime_error("add at least one source model");
    }
    if (paths.size() > 8) {
        throw std::runtime_error("at most 8 source models");
    }
}

void open_sources(const std::vector<std::string>& paths, SourceList& sources) {
    for (const auto& path : paths) {
        sources.push_back(std::make_unique<SourceModel>());
        sources.back()->open(path);
    }
}

RunPlan plan_run(const Recipe& recipe, const SourceList& sources) {
    RunPlan run;
    add_source_notes(sources, recipe, run.notes);
    check_stack_ranges(recipe, sources);
    const bool stacked = !recipe.stack.empty();
    run.output_layers = stacked ? int32_t(recipe.stack.size()) : sources[0]->n_layer;
    PlanContext ctx{recipe, run.output_layers, sources, run.plans};
    if (stacked) {
        plan_stack(ctx);
    } else {
        plan_base_tensors(ctx, true);
    }
    add_vocab_notes(sources, run.plans, run.notes);
    settle_output_types(run.plans, recipe, read_model_facts(*sources[0], run.output_layers));
    return run;
}

std::string join_notes(std::vector<std::string> notes) {
    std::sort(notes.begin(), notes.end());
    notes.erase(std::unique(notes.begin(), notes.end()), notes.end());
    std::string joined;
    for (const auto& note : notes) {
        joined += (joined.empty() ? "" : "; ") + note;
    }
    return joined;
}

}  // namespace tevrin
