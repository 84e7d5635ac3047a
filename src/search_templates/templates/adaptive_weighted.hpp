// The built-in template `adaptive_weighted(ctx, ...)`: a search that learns while it runs. It draws SIGNAL
// expression graphs from the same safe rotations, synthesized parameters, node budget and analytics weights
// as `random_weighted`, and adds three things:
//
// * it refreshes the analytics while it runs, through `ctx.refresh_analytics()`, every `refresh_seconds`
//   or every `refresh_evaluations` graphs, whichever comes first, so that outcomes recorded during the run
//   bend the draws that follow; in its first minute more often (from every second or hundred graphs,
//   slowing to the cadence asked for), while each outcome still moves the weights a lot;
// * it never yields a graph already evaluated in this era: a set of 64-bit hashes of canonical forms,
//   seeded from the store at start and shared by every worker of the search;
// * it keeps exploring while it exploits: a share of draws with flat weights, local moves around the
//   signals found so far (swap a feature, change a window, replace a subtree, combine two signals; each
//   starting from the less used of two found signals), and a refusal of near-copies of found signals,
//   which a pool's correlation check would reject anyway;
// * it mirrors: an evaluation whose Sharpe was at or below minus the era's Sharpe floor is a signal with
//   the wrong sign, and the same graph under the sign-flipping function (`mirror_function`, "neg" by
//   default) is drawn next, ahead of anything else.
//
// Near-copies. The shape of a graph is the graph with every wrapper taken out (a one-input function of a
// wrapper subfamily: smoothing, normalising, order-keeping, unary) and every other function replaced by
// its family, subfamily and number of inputs: ts_mean_20(cs_rank(ts_delta_5(x))) and ts_delta_1(x) have
// the same shape. A graph whose shape is that of a found signal is a smoothed, normalised, lagged or
// re-windowed copy of it and is not drawn. Nor is a graph that applies a function of several inputs to
// one subtree twice (min(x, x) is x, sub(x, x) is zero).
//
// Canonical form. A graph is hashed node by node: the node's type and name (the `repr` of a configuration
// value), then its children in order. Key order of the maps does not matter; argument order does, since
// the vocabulary says nothing about which functions commute.
//
// Like every template it runs inside the sandbox and takes no lock of the engine's: the store is read
// through the tracker's own read methods. Missing, failing or malformed analytics and store reads never
// raise: the template keeps the weights it had (flat at first) and goes on.
//
// Concurrency. All state is touched with the GIL held and without any call that could release it in the
// middle of an update, so the memory shared by the workers needs no lock of its own.
#pragma once

#include <pybind11/pybind11.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "templates/random_weighted.hpp"

namespace quillmarsh::st {

namespace py = pybind11;

// What the workers of one search (one store, one era) learn together.
struct AdaptiveSearchMemory {
    std::unordered_set<std::uint64_t> evaluated;    // canonical hashes of graphs evaluated in this era
    std::unordered_set<std::uint64_t> found_seen;   // canonical hashes of the found graphs held below
    std::unordered_set<std::uint64_t> found_shapes;  // shapes of the found graphs (see above)
    std::unordered_set<long long> found_sharpes;    // in-sample Sharpe x 100 of the found graphs
    std::vector<py::object> found;                  // found graphs of distinct Sharpe (maps), oldest first
    py::object found_since;                         // created_at of the newest found graph read, or None
    std::deque<py::object> to_mirror;               // evaluated graphs whose mirror image is still to draw
    std::unordered_set<std::uint64_t> mirror_seen;  // canonical hashes of the graphs put on to_mirror
    py::object mirror_since;                        // created_at of the newest of them read, or None
    bool seeded = false;
    double last_found_read = -1e300;                // steady-clock seconds of the last read of the store
    long long seeded_count = 0;
    long long draws_explore = 0, draws_learned = 0, draws_local = 0, draws_mirror = 0;
    long long local_moves[4] = {0, 0, 0, 0};       // local draws by move: feature, sibling, subtree, combine
    long long repeats_skipped = 0, near_copies_skipped = 0, degenerate_skipped = 0, budget_skipped = 0;
    long long refreshes = 0, refresh_failures = 0, store_read_failures = 0;
    py::object function_weights, feature_weights;   // name -> weight after the last refresh (maps)

    py::dict summary() const;
};

struct AdaptiveOptions {
    double refresh_seconds = 5.0;
    long long refresh_evaluations = 500;
    double explore_share = 0.05;
    double local_share = 0.7;
    std::vector<std::string> wrapper_subfamilies{"smoothing", "normalization", "order", "unary"};
    std::string mirror_function = "neg";  // empty: no mirror images
};

class AdaptiveWeightedGenerator {
public:
    AdaptiveWeightedGenerator(py::object ctx, AdaptiveOptions options);
    py::object next();  // raises StopIteration when finished

private:
    struct Tree {
        int fn = -1;    // index in functions_, or -1 for a feature leaf
        int feat = -1;  // index in features_ for a leaf
        std::vector<Tree> kids;
    };
    struct Function {
        py::object name;
        Py_ssize_t data_inputs = 0;
        std::vector<py::object> config_children;
        std::vector<std::uint64_t> config_hashes;
        std::uint64_t base_hash = 0;
        std::uint64_t family_hash = 0;  // family, subfamily and data inputs: what a shape keeps
        bool wrapper = false;
        std::vector<int> siblings;  // same family, subfamily and data inputs, itself excluded
        py::object prototype;       // {"type": "rotation", "node": name, "children": None}
    };
    enum class Mode { Explore, Learned, Local };

    bool prepare();
    bool store_reader(py::object& read, py::object& era_id) const;
    void seed_memory();
    void maybe_refresh(bool force);
    void read_found();
    void read_mirrors(py::handle read, py::handle era_id);
    bool mirror_candidate(Tree& out);
    void refresh_weights();
    bool accept_found(py::handle graph, py::handle sharpe);

    std::uint64_t hash(const Tree& t) const;
    std::uint64_t shape_hash(const Tree& t) const;
    bool degenerate(const Tree& t) const;  // a function of several inputs over identical subtrees
    int depth(const Tree& t) const;
    long long node_count(const Tree& t) const;
    bool parse(py::handle graph, Tree& out, int level) const;
    py::object to_graph(const Tree& t) const;

    size_t pick(const std::vector<double>& cum);
    Tree random_tree(int depth, bool flat);
    size_t pick_elite();
    bool local_move(Tree& out);  // sets last_move_

    py::object ctx_;
    AdaptiveOptions options_;
    bool prepared_ = false, finished_ = false;
    std::shared_ptr<AdaptiveSearchMemory> memory_;
    py::object memory_holder_;

    std::vector<Function> functions_;
    std::vector<int> binary_functions_;
    py::list function_names_, feature_names_;
    std::vector<std::uint64_t> feature_hashes_;
    std::vector<py::object> feature_leaves_;
    py::dict function_index_, feature_index_;
    int effective_max_depth_ = 1;
    int mirror_fn_ = -1;          // index of the sign-flipping function, or -1
    double mirror_sharpe_ = 1.0;  // Sharpe at or below minus this makes a graph worth mirroring
    long long node_limit_ = 1;

    std::vector<double> f_flat_, fe_flat_, f_learned_, fe_learned_, f_binary_;
    bool have_analytics_ = false;
    py::object cached_analytics_;

    std::vector<Tree> elites_;  // parsed found graphs, in the order of memory_->found
    std::vector<std::uint32_t> elite_uses_;  // local moves started from each of them
    size_t parsed_found_ = 0;
    int last_move_ = 0;

    long long yields_since_refresh_ = 0;
    double last_refresh_ = 0.0;
    double started_ = 0.0;
    SplitMix64 rng_;
    py::object random_module_, json_loads_;
};

// Shared memory of the search that `ctx` belongs to (created on first use).
std::shared_ptr<AdaptiveSearchMemory> adaptive_search_memory(py::handle ctx, py::object& holder);

py::object adaptive_weighted(py::object ctx, py::object refresh_seconds, py::object refresh_evaluations,
                             py::object explore_share, py::object local_share, py::object wrapper_subfamilies,
                             py::object mirror_function);
py::dict analyze_adaptive_weighted(py::handle ctx);
py::object adaptive_weighted_learning();
std::uint64_t canonical_graph_hash(py::handle graph);
void bind_adaptive_weighted(py::module_& m);

}  // namespace quillmarsh::st
