// The built-in template `random_weighted(ctx)`: an endless stream of random SIGNAL expression graphs, a
// rotation at the root over full trees of rotations whose leaves are features, drawn with weights that
// analytics of earlier evaluations bend toward functions and features that yielded more. Also the
// read-only report `analyze_random_weighted(ctx)` of what the template would do now.
//
// How the generator spends its time. Preparation (vocabulary, eligibility, parameter synthesis, node
// budget) runs once, at the first `next`, and leaves plain C++ tables: for each drawable function its name,
// its number of data inputs and its config leaves, the feature names, and the cumulative weights of both.
// The weights are rebuilt only when `ctx.analytics` is a different object than last time. A draw is then
// pure arithmetic (a uniform depth, one binary search per node) plus the allocation of the graph's fresh
// dicts and lists; no Python function runs per node.
//
// Randomness. Every yielded graph is drawn from a private generator (SplitMix64) whose 64-bit seed is taken
// from the process-wide `random` module by one `random.getrandbits(64)` call per graph, made before
// anything else of that draw. So `random.seed(s)` makes the stream of graphs repeatable from that point on,
// every graph advances the shared `random` state as other users of `random` expect, and a draw costs one
// Python call rather than one per node. The module-level helpers `_weighted_choice` and
// `_build_random_signal_expression` use `random.random`, `random.choice` and `bisect.bisect_left` themselves,
// one call per pick, as a Python caller of those helpers expects.
#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <vector>

namespace quillmarsh::st {

namespace py = pybind11;

// SplitMix64: small, fast, and statistically sound for sampling; the state is one 64-bit word.
class SplitMix64 {
public:
    void seed(std::uint64_t s) { state_ = s; }
    std::uint64_t next() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ULL);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
        return z ^ (z >> 31);
    }
    // Uniform in [0.0, 1.0), 53 bits as random.random() has.
    double uniform() { return static_cast<double>(next() >> 11) * 0x1.0p-53; }
    // Uniform integer in [0, n), n > 0, without modulo bias.
    std::uint64_t below(std::uint64_t n);

private:
    std::uint64_t state_ = 0;
};

// Index picked by the weighted-choice rule: r = u * total, the first position whose cumulative value is not
// below r, the last item if r lies past the end; a uniform index when the total is not a positive finite
// number. `cum` is not empty.
size_t weighted_index(const std::vector<double>& cum, SplitMix64& rng);

// The state of one `random_weighted(ctx)` generator. The Python object around it is a plain CPython
// iterator type (see random_weighted.cpp): its `__next__` slot reaches `next_or_end` directly, without the
// method dispatch of a bound class, because at these rates that dispatch would cost as much as a draw.
class RandomWeightedGenerator {
public:
    explicit RandomWeightedGenerator(py::object ctx);
    // The next graph, or an empty object once finished (no exception set). Errors propagate as exceptions
    // and finish the generator.
    py::object next_or_end();
    // The generator protocol's check on the first send; then next_or_end().
    py::object send(py::handle value);
    void close();
    [[noreturn]] void throw_in(py::handle type, py::handle value);
    // The cyclic garbage collector's view: the context and the cached analytics may lead back to the
    // generator (a context kept on an object that keeps the generator), so both are visited and cleared.
    int traverse(visitproc visit, void* arg);
    void clear();

private:
    struct Rotation {
        Py_ssize_t data_inputs = 0;
        std::vector<py::object> config_children;
    };
    enum class State { Created, Suspended, Finished };

    bool prepare();
    void refresh_weights(py::object analytics);
    py::object draw();
    py::object build(long long depth);

    py::object ctx_;
    State state_ = State::Created;
    bool running_ = false;

    py::list func_names_;  // one entry per occurrence, in vocabulary order
    py::list feat_names_;
    std::vector<size_t> func_rotation_;  // occurrence -> index in rotations_ (a duplicated name: the later record)
    // Prototypes that each yielded node is copied from: {"type": "feature", "node": name} per feature and
    // {"type": "rotation", "node": name, "children": None} per function occurrence. Copying a small dict is
    // cheaper than filling a new one key by key; the copies are fresh objects, the prototypes never leave.
    std::vector<py::object> feature_leaves_, rotation_nodes_;
    std::vector<Rotation> rotations_;
    long long effective_max_depth_ = 1;

    bool have_cached_analytics_ = false;
    py::object cached_analytics_;  // held, so that its identity cannot be reused by another object
    std::vector<double> f_cum_weights_, fe_cum_weights_;

    py::object random_module_;
    SplitMix64 rng_;
    py::object key_type_, key_node_, key_children_, type_rotation_, type_feature_;
    py::object name_analytics_, name_getrandbits_, sixty_four_;
};

// The iterator type `_RandomWeightedGenerator`, made once by the module's initialiser.
py::object random_weighted_generator_type();
py::object random_weighted(py::object ctx);
py::dict analyze_random_weighted(py::handle ctx);

// Module-level helpers with the host's random source.
py::object weighted_choice(py::handle items, py::handle cum_weights);
py::object build_random_signal_expression(py::handle func_names, py::handle func_specs, py::handle func_weights,
                                          py::handle feat_names, py::handle feat_weights, py::handle target_depth);

// The report's pieces.
py::dict random_weighted_weight_entry(py::handle normalized_weights, py::handle stats, py::handle name);
py::dict random_weighted_function_weight_report(py::handle safe_rotations, py::handle normalized_weights,
                                                py::handle stats);
py::dict random_weighted_feature_weight_report(py::handle feature_specs, py::handle normalized_weights,
                                               py::handle stats);

}  // namespace quillmarsh::st
