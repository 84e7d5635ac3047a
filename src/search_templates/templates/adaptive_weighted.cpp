#include "templates/adaptive_weighted.hpp"

#include "common/py_helpers.hpp"
#include "era/vocabulary.hpp"
#include "templates/eligibility.hpp"
#include "templates/node_budget.hpp"
#include "templates/weights.hpp"

#include <algorithm>
#include <cmath>
#include <deque>

namespace quillmarsh::st {

namespace {

constexpr long long kGiveUpAfter = 20000;        // consecutive refused candidates that end the template
constexpr size_t kMaxSearchMemories = 8;         // memories of earlier searches kept in a process
constexpr size_t kMaxElites = 20000;             // found graphs kept for local moves
constexpr long long kStickyRefusals = 64;        // refused candidates before the kind of draw is chosen again

double now_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

std::uint64_t mix64(std::uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

std::uint64_t fnv(const std::string& text, std::uint64_t h = 0xCBF29CE484222325ULL) {
    for (unsigned char c : text) {
        h ^= c;
        h *= 0x100000001B3ULL;
    }
    return h;
}

// Hash of one node's own part: its type and its name (or the repr of a configuration value).
std::uint64_t node_hash(const std::string& type, const std::string& node) {
    return mix64(fnv(node, fnv(type) ^ 0x9E3779B97F4A7C15ULL));
}

std::uint64_t combine(std::uint64_t h, std::uint64_t child) {
    return mix64(h ^ (child + 0x9E3779B97F4A7C15ULL + (h << 6) + (h >> 2)));
}

std::string text_of(py::handle value) {
    return is_str(value) ? value.cast<std::string>() : st::repr(value);
}

py::object steal(PyObject* p) {
    if (p == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(p);
}

// Runs `body`, turning an ordinary Python exception into `false`; anything else (KeyboardInterrupt,
// SystemExit, a C++ failure) goes on.
template <typename F>
bool guarded(F&& body) {
    try {
        body();
        return true;
    } catch (py::error_already_set& err) {
        if (!err.matches(PyExc_Exception)) throw;
        return false;
    } catch (py::builtin_exception&) {
        return false;
    }
}

// The memories of the searches of this process, newest last: (tracker, era id) -> memory. The tracker
// object is held so that its identity cannot be taken by another object while the entry lives.
struct MemoryEntry {
    py::object tracker;
    py::object era_id;
    std::shared_ptr<AdaptiveSearchMemory> memory;
};
std::deque<MemoryEntry>* g_memories = nullptr;

std::deque<MemoryEntry>& memories() {
    if (g_memories == nullptr) g_memories = new std::deque<MemoryEntry>();  // lives as long as the process
    return *g_memories;
}

std::shared_ptr<AdaptiveSearchMemory> find_memory(py::handle tracker, py::handle era_id) {
    for (auto& entry : memories())
        if (entry.tracker.ptr() == tracker.ptr() && py_equal(entry.era_id, era_id)) return entry.memory;
    return nullptr;
}

}  // namespace

// ---- shared memory ----------------------------------------------------------------------------------

py::dict AdaptiveSearchMemory::summary() const {
    py::dict out;
    long long draws = draws_explore + draws_learned + draws_local + draws_mirror;
    out["evaluated_known"] = py::int_(static_cast<long long>(evaluated.size()));
    out["seeded_from_store"] = py::int_(seeded_count);
    out["found"] = py::int_(static_cast<long long>(found_seen.size()));
    out["found_signals"] = py::int_(static_cast<long long>(found.size()));
    py::dict by_mode;
    by_mode["explore"] = py::int_(draws_explore);
    by_mode["learned"] = py::int_(draws_learned);
    by_mode["local"] = py::int_(draws_local);
    by_mode["mirror"] = py::int_(draws_mirror);
    out["draws"] = by_mode;
    py::dict moves;
    moves["feature"] = py::int_(local_moves[0]);
    moves["sibling"] = py::int_(local_moves[1]);
    moves["subtree"] = py::int_(local_moves[2]);
    moves["combine"] = py::int_(local_moves[3]);
    out["local_moves"] = moves;
    out["exploration_share"] = py::float_(draws ? static_cast<double>(draws_explore) / draws : 0.0);
    out["repeats_skipped"] = py::int_(repeats_skipped);
    out["near_copies_skipped"] = py::int_(near_copies_skipped);
    out["degenerate_skipped"] = py::int_(degenerate_skipped);
    out["refreshes"] = py::int_(refreshes);
    out["refresh_failures"] = py::int_(refresh_failures);
    out["store_read_failures"] = py::int_(store_read_failures);
    out["function_weights"] = function_weights ? function_weights : py::dict();
    out["feature_weights"] = feature_weights ? feature_weights : py::dict();
    return out;
}

std::shared_ptr<AdaptiveSearchMemory> adaptive_search_memory(py::handle ctx, py::object& holder) {
    py::object tracker = attr_or(ctx, "_tracker");
    py::object era_id = attr_or(ctx, "_era_id");
    if (tracker.is_none()) {
        // No store: a memory of this generator alone.
        holder = py::none();
        return std::make_shared<AdaptiveSearchMemory>();
    }
    auto& all = memories();
    if (auto found = find_memory(tracker, era_id)) {
        // Move it to the back: it is the one in use now.
        auto it = std::find_if(all.begin(), all.end(), [&](const MemoryEntry& e) { return e.memory == found; });
        MemoryEntry entry = *it;
        all.erase(it);
        all.push_back(entry);
        return found;
    }
    auto memory = std::make_shared<AdaptiveSearchMemory>();
    all.push_back(MemoryEntry{tracker, era_id, memory});
    while (all.size() > kMaxSearchMemories) all.pop_front();
    holder = tracker;
    return memory;
}

// ---- canonical hashes -------------------------------------------------------------------------------

namespace {
std::uint64_t graph_hash(py::handle graph, int level) {
    if (level > 256 || !is_dict(graph)) return node_hash("?", text_of(graph));
    py::object type = map_get(graph, "type", py::none());
    py::object node = map_get(graph, "node", py::none());
    std::string type_text = is_str(type) ? type.cast<std::string>() : st::repr(type);
    bool config = type_text == "int" || type_text == "float" || type_text == "bool" || type_text == "string";
    std::uint64_t h = node_hash(type_text, config ? st::repr(node) : text_of(node));
    py::object children = map_get(graph, "children", py::none());
    if (PyList_Check(children.ptr()) || PyTuple_Check(children.ptr())) {
        Py_ssize_t n = 0;
        for (py::handle child : children) {
            h = combine(h, graph_hash(child, level + 1));
            ++n;
        }
        h = combine(h, static_cast<std::uint64_t>(n));
    }
    return h;
}
}  // namespace

std::uint64_t canonical_graph_hash(py::handle graph) { return graph_hash(graph, 0); }

std::uint64_t AdaptiveWeightedGenerator::hash(const Tree& t) const {
    if (t.fn < 0) return feature_hashes_[t.feat];
    const Function& f = functions_[t.fn];
    std::uint64_t h = f.base_hash;
    for (const Tree& kid : t.kids) h = combine(h, hash(kid));
    for (std::uint64_t c : f.config_hashes) h = combine(h, c);
    return combine(h, static_cast<std::uint64_t>(t.kids.size() + f.config_hashes.size()));
}

bool AdaptiveWeightedGenerator::degenerate(const Tree& t) const {
    if (t.fn < 0) return false;
    for (size_t i = 1; i < t.kids.size(); ++i)
        if (hash(t.kids[i]) == hash(t.kids[0])) return true;
    for (const Tree& kid : t.kids)
        if (degenerate(kid)) return true;
    return false;
}

std::uint64_t AdaptiveWeightedGenerator::shape_hash(const Tree& t) const {
    if (t.fn < 0) return feature_hashes_[t.feat];
    const Function& f = functions_[t.fn];
    if (f.wrapper && t.kids.size() == 1) return shape_hash(t.kids[0]);
    std::uint64_t h = f.family_hash;
    for (const Tree& kid : t.kids) h = combine(h, shape_hash(kid));
    return combine(h, static_cast<std::uint64_t>(t.kids.size()));
}

int AdaptiveWeightedGenerator::depth(const Tree& t) const {
    int d = 0;
    for (const Tree& kid : t.kids) d = std::max(d, depth(kid));
    return d + 1;
}

long long AdaptiveWeightedGenerator::node_count(const Tree& t) const {
    if (t.fn < 0) return 1;
    long long n = 1 + static_cast<long long>(functions_[t.fn].config_children.size());
    for (const Tree& kid : t.kids) n += node_count(kid);
    return n;
}

bool AdaptiveWeightedGenerator::parse(py::handle graph, Tree& out, int level) const {
    if (level > effective_max_depth_ || !is_dict(graph)) return false;
    py::object type = map_get(graph, "type", py::none());
    py::object node = map_get(graph, "node", py::none());
    if (!is_str(type) || !is_str(node)) return false;
    std::string kind = type.cast<std::string>();
    if (kind == "feature") {
        if (!PyDict_Contains(feature_index_.ptr(), node.ptr())) return false;
        out.fn = -1;
        out.feat = feature_index_[node].cast<int>();
        return true;
    }
    if (kind != "rotation" || !PyDict_Contains(function_index_.ptr(), node.ptr())) return false;
    out.fn = function_index_[node].cast<int>();
    const Function& f = functions_[out.fn];
    py::object children = map_get(graph, "children", py::none());
    if (!is_list(children) || py::len(children) != static_cast<size_t>(f.data_inputs) + f.config_children.size())
        return false;
    out.kids.assign(static_cast<size_t>(f.data_inputs), Tree{});
    for (Py_ssize_t k = 0; k < f.data_inputs; ++k)
        if (!parse(PyList_GET_ITEM(children.ptr(), k), out.kids[k], level + 1)) return false;
    return true;
}

py::object AdaptiveWeightedGenerator::to_graph(const Tree& t) const {
    if (t.fn < 0) return steal(PyDict_Copy(feature_leaves_[t.feat].ptr()));
    const Function& f = functions_[t.fn];
    Py_ssize_t n_config = static_cast<Py_ssize_t>(f.config_children.size());
    py::object children = steal(PyList_New(static_cast<Py_ssize_t>(t.kids.size()) + n_config));
    Py_ssize_t k = 0;
    for (const Tree& kid : t.kids) PyList_SET_ITEM(children.ptr(), k++, to_graph(kid).release().ptr());
    for (const py::object& leaf : f.config_children) {
        py::object copy = PyDict_Check(leaf.ptr()) ? steal(PyDict_Copy(leaf.ptr()))
                                                   : import_module("copy").attr("copy")(leaf);
        PyList_SET_ITEM(children.ptr(), k++, copy.release().ptr());
    }
    py::object node = steal(PyDict_Copy(f.prototype.ptr()));
    if (PyDict_SetItemString(node.ptr(), "children", children.ptr()) != 0) throw py::error_already_set();
    return node;
}

// ---- the generator ----------------------------------------------------------------------------------

AdaptiveWeightedGenerator::AdaptiveWeightedGenerator(py::object ctx, AdaptiveOptions options)
    : ctx_(std::move(ctx)), options_(std::move(options)) {}

bool AdaptiveWeightedGenerator::prepare() {
    py::dict vocab = normalize_template_vocabulary(ctx_.attr("vocabulary"));
    py::object raw_depth = ctx_.attr("max_depth");
    py::object max_depth = try_py_int(raw_depth);
    if (!max_depth) {
        log_info("adaptive_weighted disabled: invalid max_depth %r", raw_depth);
        return false;
    }
    if (py_gt(max_depth, py::int_(RANDOM_WEIGHTED_MAX_DEPTH))) max_depth = py::int_(RANDOM_WEIGHTED_MAX_DEPTH);
    if (py_lt(max_depth, py::int_(2))) {
        log_info("adaptive_weighted disabled: max_depth %r cannot produce a rotation root", max_depth);
        return false;
    }
    long long requested_depth = max_depth.cast<long long>();
    py::object functions = map_get(vocab, "functions", py::list());
    py::object features = map_get(vocab, "features", py::list());
    py::object window_limit = random_weighted_window_limit(ctx_, max_depth);
    node_limit_ = random_weighted_node_limit(ctx_);
    py::int_ node_limit_obj(node_limit_);
    py::object registry = random_weighted_runtime_registry(ctx_);
    // Exclusions are not logged here: analyze_adaptive_weighted lists them with their reasons.
    py::tuple safety = random_weighted_function_safety(functions, false, window_limit, node_limit_obj, registry);
    py::list safe = safety[0].cast<py::list>();
    safe = random_weighted_rotations_within_node_budget(safe, node_limit_obj);
    feature_names_ = random_weighted_feature_names(features);
    effective_max_depth_ = static_cast<int>(
        random_weighted_max_depth_within_node_budget(safe, requested_depth, node_limit_));
    if (py::len(safe) == 0 || py::len(feature_names_) == 0) {
        if (py::len(safe) == 0) log_info("adaptive_weighted disabled: no SIGNAL-safe rotation functions available");
        if (py::len(feature_names_) == 0) log_info("adaptive_weighted disabled: no valid features available");
        return false;
    }
    if (effective_max_depth_ < 2) {
        log_info("adaptive_weighted disabled: node budget %r cannot produce a rotation root", node_limit_obj);
        return false;
    }

    // One function per name: a name listed twice keeps its later record.
    std::vector<std::string> family_keys;  // family/subfamily/data inputs of each function, its later record
    for (py::handle record : safe) {
        py::object name = record["name"];
        Function f;
        f.name = name;
        f.data_inputs = static_cast<Py_ssize_t>(py::len(record["data_params"]));
        for (py::handle leaf : record["config_children"]) {
            f.config_children.push_back(py::reinterpret_borrow<py::object>(leaf));
            f.config_hashes.push_back(graph_hash(leaf, 0));
        }
        f.base_hash = node_hash("rotation", name.cast<std::string>());
        std::string subfamily = text_of(map_get(record, "function_subfamily", py::str("")));
        std::string family_key = text_of(map_get(record, "function_family", py::str(""))) + "/" + subfamily + "/" +
                                 std::to_string(f.data_inputs);
        f.family_hash = node_hash("family", family_key);
        f.wrapper = f.data_inputs == 1 &&
                    std::find(options_.wrapper_subfamilies.begin(), options_.wrapper_subfamilies.end(), subfamily) !=
                        options_.wrapper_subfamilies.end();
        py::dict proto;
        proto["type"] = "rotation";
        proto["node"] = name;
        proto["children"] = py::none();
        f.prototype = proto;
        if (PyDict_Contains(function_index_.ptr(), name.ptr())) {
            size_t i = function_index_[name].cast<size_t>();
            functions_[i] = std::move(f);
            family_keys[i] = std::move(family_key);
        } else {
            function_index_[name] = py::int_(functions_.size());
            functions_.push_back(std::move(f));
            family_keys.push_back(std::move(family_key));
            function_names_.append(name);
        }
    }
    if (!options_.mirror_function.empty()) {
        py::str mirror_name(options_.mirror_function);
        if (PyDict_Contains(function_index_.ptr(), mirror_name.ptr())) {
            int i = function_index_[mirror_name].cast<int>();
            if (functions_[i].data_inputs == 1) mirror_fn_ = i;
        }
    }
    py::object thresholds = attr_or(ctx_, "_thresholds");
    if (is_dict(thresholds))
        mirror_sharpe_ = std::max(0.5, std::fabs(random_weighted_float_value(map_get(thresholds, "sharpe_min"), 1.0)));
    for (size_t i = 0; i < functions_.size(); ++i) {
        for (size_t j = 0; j < functions_.size(); ++j)
            if (i != j && family_keys[i] == family_keys[j]) functions_[i].siblings.push_back(static_cast<int>(j));
        if (functions_[i].data_inputs == 2) binary_functions_.push_back(static_cast<int>(i));
    }
    py::list unique_features;
    for (py::handle name : feature_names_) {
        if (PyDict_Contains(feature_index_.ptr(), name.ptr())) continue;
        feature_index_[name] = py::int_(feature_hashes_.size());
        feature_hashes_.push_back(node_hash("feature", name.cast<std::string>()));
        py::dict leaf;
        leaf["type"] = "feature";
        leaf["node"] = name;
        feature_leaves_.push_back(leaf);
        unique_features.append(name);
    }
    feature_names_ = unique_features;
    f_flat_.resize(functions_.size());
    fe_flat_.resize(feature_hashes_.size());
    for (size_t i = 0; i < f_flat_.size(); ++i) f_flat_[i] = static_cast<double>(i + 1);
    for (size_t i = 0; i < fe_flat_.size(); ++i) fe_flat_[i] = static_cast<double>(i + 1);
    f_learned_ = f_flat_;
    fe_learned_ = fe_flat_;

    random_module_ = import_module("random");
    json_loads_ = import_module("json").attr("loads");
    memory_ = adaptive_search_memory(ctx_, memory_holder_);
    seed_memory();
    maybe_refresh(true);
    return true;
}

bool AdaptiveWeightedGenerator::accept_found(py::handle graph, py::handle sharpe) {
    std::uint64_t h = canonical_graph_hash(graph);
    memory_->evaluated.insert(h);
    if (!memory_->found_seen.insert(h).second) return false;
    // Found graphs with the same in-sample Sharpe to two decimals are, as good as always, one signal
    // written in several ways (min(x, y) with y far larger than x is x): local moves start from one of
    // them only, so that they spread over different signals rather than over the copies of one.
    double value = random_weighted_float_value(sharpe, 0.0);
    bool new_signal = memory_->found_sharpes.insert(static_cast<long long>(std::llround(value * 100.0))).second;
    if (new_signal && memory_->found.size() < kMaxElites)
        memory_->found.push_back(py::reinterpret_borrow<py::object>(graph));
    Tree t;
    if (parse(graph, t, 1)) memory_->found_shapes.insert(shape_hash(t));
    return true;
}

// The tracker's `signal_graphs` and the era it reads, when the search has a store to read.
bool AdaptiveWeightedGenerator::store_reader(py::object& read, py::object& era_id) const {
    py::object tracker = attr_or(ctx_, "_tracker");
    era_id = attr_or(ctx_, "_era_id");
    read = tracker.is_none() ? py::object(py::none()) : callable_attr(tracker, "signal_graphs");
    return !read.is_none() && !era_id.is_none();
}

void AdaptiveWeightedGenerator::seed_memory() {
    if (memory_->seeded) return;
    memory_->seeded = true;
    py::object read, era_id;
    if (!store_reader(read, era_id)) return;
    bool ok = guarded([&] {
        py::object rows = read(era_id);
        for (py::handle row : rows) {
            py::object graph = json_loads_(py::object(row[py::int_(0)]));
            std::uint64_t h = canonical_graph_hash(graph);
            if (memory_->evaluated.insert(h).second) ++memory_->seeded_count;
            if (truthy(py::object(row[py::int_(1)]))) accept_found(graph, py::object(row[py::int_(2)]));
            memory_->found_since = py::object(row[py::int_(3)]);
        }
    });
    if (!ok) ++memory_->store_read_failures;
    memory_->last_found_read = now_seconds();
    if (mirror_fn_ >= 0) read_mirrors(read, era_id);
}

void AdaptiveWeightedGenerator::read_found() {
    py::object read, era_id;
    if (!store_reader(read, era_id)) return;
    memory_->last_found_read = now_seconds();
    bool ok = guarded([&] {
        py::dict kwargs;
        kwargs["passed"] = true;
        kwargs["since"] = memory_->found_since ? memory_->found_since : py::object(py::none());
        py::object rows = read(era_id, **kwargs);
        for (py::handle row : rows) {
            accept_found(json_loads_(py::object(row[py::int_(0)])), py::object(row[py::int_(2)]));
            memory_->found_since = py::object(row[py::int_(3)]);
        }
    });
    if (!ok) ++memory_->store_read_failures;
    if (mirror_fn_ >= 0) read_mirrors(read, era_id);
}

void AdaptiveWeightedGenerator::read_mirrors(py::handle read, py::handle era_id) {
    bool ok = guarded([&] {
        py::dict kwargs;
        kwargs["passed"] = false;
        kwargs["since"] = memory_->mirror_since ? memory_->mirror_since : py::object(py::none());
        kwargs["sharpe_at_most"] = py::float_(-mirror_sharpe_);
        py::object rows = read(era_id, **kwargs);
        for (py::handle row : rows) {
            py::object graph = json_loads_(py::object(row[py::int_(0)]));
            if (memory_->mirror_seen.insert(canonical_graph_hash(graph)).second) memory_->to_mirror.push_back(graph);
            memory_->mirror_since = py::object(row[py::int_(3)]);
        }
    });
    if (!ok) ++memory_->store_read_failures;
}

bool AdaptiveWeightedGenerator::mirror_candidate(Tree& out) {
    while (!memory_->to_mirror.empty()) {
        py::object graph = memory_->to_mirror.front();
        memory_->to_mirror.pop_front();
        Tree t;
        if (!parse(graph, t, 1)) continue;
        if (t.fn == mirror_fn_ && t.kids.size() == 1) {
            Tree inner = std::move(t.kids[0]);
            if (inner.fn < 0) continue;  // a bare feature is not a SIGNAL root
            out = std::move(inner);
        } else if (depth(t) >= effective_max_depth_ && functions_[t.fn].wrapper && t.kids.size() == 1) {
            // No room above: an order-keeping wrapper at the root gives way to the sign flip instead.
            out = std::move(t);
            out.fn = mirror_fn_;
        } else {
            out = Tree{};
            out.fn = mirror_fn_;
            out.kids.push_back(std::move(t));
        }
        if (depth(out) > effective_max_depth_ || node_count(out) > node_limit_) {
            ++memory_->budget_skipped;
            continue;
        }
        std::uint64_t h = hash(out);
        if (memory_->evaluated.count(h)) {
            ++memory_->repeats_skipped;
            continue;
        }
        if (memory_->found_shapes.count(shape_hash(out))) {
            ++memory_->near_copies_skipped;
            continue;
        }
        return true;
    }
    return false;
}

void AdaptiveWeightedGenerator::refresh_weights() {
    py::object analytics;
    if (!guarded([&] { analytics = ctx_.attr("analytics"); })) return;
    if (have_analytics_ && analytics.ptr() == cached_analytics_.ptr()) return;
    std::vector<double> f_cum, fe_cum;
    py::tuple maps;
    bool ok = guarded([&] {
        maps = random_weighted_yield_maps(analytics, function_names_, feature_names_);
        f_cum = random_weighted_cum_weights(function_names_, maps[0]);
        fe_cum = random_weighted_cum_weights(feature_names_, maps[1]);
    });
    cached_analytics_ = analytics;
    have_analytics_ = true;
    if (!ok || f_cum.size() != functions_.size() || fe_cum.size() != feature_hashes_.size()) {
        ++memory_->refresh_failures;
        return;
    }
    f_learned_ = std::move(f_cum);
    fe_learned_ = std::move(fe_cum);
    py::dict fw, few;
    double prev = 0.0;
    for (size_t i = 0; i < f_learned_.size(); ++i) {
        fw[py::reinterpret_borrow<py::object>(PyList_GET_ITEM(function_names_.ptr(), i))] = py::float_(f_learned_[i] - prev);
        prev = f_learned_[i];
    }
    prev = 0.0;
    for (size_t i = 0; i < fe_learned_.size(); ++i) {
        few[py::reinterpret_borrow<py::object>(PyList_GET_ITEM(feature_names_.ptr(), i))] = py::float_(fe_learned_[i] - prev);
        prev = fe_learned_[i];
    }
    memory_->function_weights = fw;
    memory_->feature_weights = few;
}

void AdaptiveWeightedGenerator::maybe_refresh(bool force) {
    double now = now_seconds();
    if (force) started_ = now;
    // Early on every outcome moves the weights a lot: the cadence starts at a second (or a hundred graphs)
    // and slows to the one asked for over the first minute or so.
    double age = now - started_;
    double period = std::min(options_.refresh_seconds, 1.0 + age / 10.0);
    double every = std::min(static_cast<double>(options_.refresh_evaluations), 100.0 + age * 10.0);
    if (!force && static_cast<double>(yields_since_refresh_) < every && now - last_refresh_ < period) return;
    yields_since_refresh_ = 0;
    last_refresh_ = now;
    if (!force) {
        py::object refresh = callable_attr(ctx_, "refresh_analytics");
        if (refresh.is_none() || !guarded([&] { refresh(); })) ++memory_->refresh_failures;
        else ++memory_->refreshes;
    }
    refresh_weights();
    // One read of the store per refresh period serves every worker of the search.
    if (now - memory_->last_found_read >= period * 0.5) read_found();
    while (parsed_found_ < memory_->found.size()) {
        Tree t;
        if (parse(memory_->found[parsed_found_], t, 1)) elites_.push_back(std::move(t));
        ++parsed_found_;
    }
}

size_t AdaptiveWeightedGenerator::pick(const std::vector<double>& cum) { return weighted_index(cum, rng_); }

AdaptiveWeightedGenerator::Tree AdaptiveWeightedGenerator::random_tree(int d, bool flat) {
    Tree t;
    if (d <= 1) {
        t.feat = static_cast<int>(pick(flat ? fe_flat_ : fe_learned_));
        return t;
    }
    t.fn = static_cast<int>(pick(flat ? f_flat_ : f_learned_));
    Py_ssize_t n = functions_[t.fn].data_inputs;
    t.kids.reserve(static_cast<size_t>(n));
    for (Py_ssize_t k = 0; k < n; ++k) t.kids.push_back(random_tree(d - 1, flat));
    return t;
}

namespace {
// Every node of a tree with its level below the root (root 0), in pre-order.
template <typename TreeT>
void collect(TreeT& t, int level, std::vector<std::pair<TreeT*, int>>& out) {
    out.emplace_back(&t, level);
    for (auto& kid : t.kids) collect(kid, level + 1, out);
}
}  // namespace

// The less used of two found signals drawn at random: local moves spread over the signals found rather
// than piling onto the first ones, whose neighbourhoods are the most worked already.
size_t AdaptiveWeightedGenerator::pick_elite() {
    if (elite_uses_.size() < elites_.size()) elite_uses_.resize(elites_.size(), 0);
    size_t a = static_cast<size_t>(rng_.below(elites_.size()));
    size_t b = static_cast<size_t>(rng_.below(elites_.size()));
    size_t chosen = elite_uses_[b] < elite_uses_[a] ? b : a;
    ++elite_uses_[chosen];
    return chosen;
}

bool AdaptiveWeightedGenerator::local_move(Tree& out) {
    out = elites_[pick_elite()];
    std::vector<std::pair<Tree*, int>> nodes;
    collect(out, 0, nodes);
    // Moves that change little (a feature, a window) a tenth and a twentieth of the time: their passes are
    // mostly copies of the signal they came from, and a window change keeps the shape, so it is refused
    // as a near-copy whenever the signal was found. Moves that add something new (a fresh subtree 55%, a
    // combination 30%) the rest: per evaluation they give two to four times as many signals unlike every
    // one found before.
    std::uint64_t r = rng_.below(20);
    int op = r < 2 ? 0 : r < 3 ? 1 : r < 14 ? 2 : 3;
    last_move_ = op;
    if (op == 0) {  // swap a feature
        std::vector<Tree*> leaves;
        for (auto& [node, level] : nodes)
            if (node->fn < 0) leaves.push_back(node);
        if (leaves.empty()) return false;
        leaves[static_cast<size_t>(rng_.below(leaves.size()))]->feat = static_cast<int>(pick(fe_learned_));
        return true;
    }
    if (op == 1) {  // another member of a function's family: another window, another lag, another norm
        std::vector<Tree*> inner;
        for (auto& [node, level] : nodes)
            if (node->fn >= 0 && !functions_[node->fn].siblings.empty()) inner.push_back(node);
        if (inner.empty()) return false;
        Tree* node = inner[static_cast<size_t>(rng_.below(inner.size()))];
        const auto& siblings = functions_[node->fn].siblings;
        node->fn = siblings[static_cast<size_t>(rng_.below(siblings.size()))];
        return true;
    }
    if (op == 2) {  // replace a subtree below the root
        if (nodes.size() < 2) return false;
        auto [node, level] = nodes[1 + static_cast<size_t>(rng_.below(nodes.size() - 1))];
        int room = effective_max_depth_ - level;
        if (room < 1) return false;
        int d = 1 + static_cast<int>(rng_.below(static_cast<std::uint64_t>(room)));
        *node = random_tree(d, false);
        return true;
    }
    // combine with another found signal, or with a fresh small tree, under a two-input function
    if (binary_functions_.empty()) return false;
    Tree other = elites_.size() > 1 && rng_.below(2) == 0
                     ? elites_[pick_elite()]
                     : random_tree(1 + static_cast<int>(rng_.below(2)) + 1, false);
    // Each side must leave room for the new root: a side too deep gives way to one of its subtrees (the
    // part of a found signal that carries its edge is more often than not below a wrapper at its root).
    int room = effective_max_depth_ - 1;
    for (Tree* side : {&out, &other}) {
        while (depth(*side) > room) {
            Tree kid = std::move(side->kids[static_cast<size_t>(rng_.below(side->kids.size()))]);
            *side = std::move(kid);
        }
    }
    Tree root;
    root.fn = binary_functions_[static_cast<size_t>(rng_.below(binary_functions_.size()))];
    if (rng_.below(2) == 0) std::swap(out, other);
    root.kids.push_back(std::move(out));
    root.kids.push_back(std::move(other));
    out = std::move(root);
    return true;
}

py::object AdaptiveWeightedGenerator::next() {
    if (finished_) throw py::stop_iteration();
    try {
        if (!prepared_) {
            prepared_ = true;
            if (!prepare()) {
                finished_ = true;
                throw py::stop_iteration();
            }
        } else {
            maybe_refresh(false);
        }
        // One seed from the process-wide `random` per graph, so that `random.seed` repeats the stream.
        py::object bits = random_module_.attr("getrandbits")(64);
        rng_.seed(PyLong_AsUnsignedLongLongMask(bits.ptr()));
        AdaptiveSearchMemory& memory = *memory_;
        if (mirror_fn_ >= 0) {
            Tree mirrored;
            if (mirror_candidate(mirrored)) {
                memory.evaluated.insert(hash(mirrored));
                ++memory.draws_mirror;
                ++yields_since_refresh_;
                return to_graph(mirrored);
            }
        }
        // The kind of draw is chosen once per graph and kept while its candidates are refused (repeats and
        // near-copies are refused far more often around found signals than elsewhere, and a fresh choice
        // after each refusal would shift the draws away from local moves); after kStickyRefusals the choice
        // is made again.
        Mode mode = Mode::Learned;
        for (long long refused = 0; refused < kGiveUpAfter; ++refused) {
            if (refused % kStickyRefusals == 0) {
                double u = rng_.uniform();
                mode = u < options_.explore_share ? Mode::Explore
                       : (!elites_.empty() && u < options_.explore_share + options_.local_share) ? Mode::Local
                                                                                                 : Mode::Learned;
            }
            Tree candidate;
            if (mode == Mode::Local) {
                if (!local_move(candidate)) continue;
                if (candidate.fn < 0 || depth(candidate) > effective_max_depth_ || node_count(candidate) > node_limit_) {
                    ++memory.budget_skipped;
                    continue;
                }
            } else {
                int d = 2 + static_cast<int>(rng_.below(static_cast<std::uint64_t>(effective_max_depth_ - 1)));
                candidate = random_tree(d, mode == Mode::Explore);
            }
            std::uint64_t h = hash(candidate);
            if (degenerate(candidate)) {
                // f(x, x): a copy of x (min, max, add), a constant (sub, div) or its square.
                ++memory.degenerate_skipped;
                memory.evaluated.insert(h);
                continue;
            }
            if (memory.evaluated.count(h)) {
                ++memory.repeats_skipped;
                continue;
            }
            if (!memory.found_shapes.empty() && memory.found_shapes.count(shape_hash(candidate))) {
                ++memory.near_copies_skipped;
                memory.evaluated.insert(h);  // never worth drawing again
                continue;
            }
            memory.evaluated.insert(h);
            if (mode == Mode::Local) ++memory.local_moves[last_move_];
            (mode == Mode::Explore ? memory.draws_explore
                                   : mode == Mode::Local ? memory.draws_local : memory.draws_learned)++;
            ++yields_since_refresh_;
            return to_graph(candidate);
        }
        log_info("adaptive_weighted finished: every expression it could draw has been evaluated");
        finished_ = true;
        throw py::stop_iteration();
    } catch (py::stop_iteration&) {
        throw;
    } catch (...) {
        finished_ = true;
        throw;
    }
}

// ---- public functions -------------------------------------------------------------------------------

namespace {
double option_float(py::handle value, const char* name, double lo, double hi) {
    auto v = try_py_float(value);
    if (is_bool(value) || !v || !std::isfinite(*v) || *v < lo || *v > hi)
        throw py::value_error(std::string(name) + " must be a number from " + st::repr(py::float_(lo)) + " to " +
                              st::repr(py::float_(hi)) + ", got " + st::repr(value));
    return *v;
}
}  // namespace

py::object adaptive_weighted(py::object ctx, py::object refresh_seconds, py::object refresh_evaluations,
                             py::object explore_share, py::object local_share, py::object wrapper_subfamilies,
                             py::object mirror_function) {
    AdaptiveOptions options;
    options.refresh_seconds = option_float(refresh_seconds, "refresh_seconds", 0.0, 1e9);
    if (!is_int_not_bool(refresh_evaluations) || py_lt(refresh_evaluations, py::int_(1)))
        throw py::value_error("refresh_evaluations must be a whole number of at least 1, got " + st::repr(refresh_evaluations));
    options.refresh_evaluations = clamp_py_int(refresh_evaluations, 1, 1LL << 62);
    options.explore_share = option_float(explore_share, "explore_share", 0.0, 1.0);
    options.local_share = option_float(local_share, "local_share", 0.0, 1.0);
    if (options.explore_share + options.local_share > 1.0)
        throw py::value_error("explore_share and local_share must add up to at most 1.0");
    if (!wrapper_subfamilies.is_none()) {
        if (is_str(wrapper_subfamilies))
            throw py::type_error("wrapper_subfamilies must be a collection of names, not a string");
        options.wrapper_subfamilies.clear();
        for (py::handle name : wrapper_subfamilies) {
            if (!is_str(name)) throw py::type_error("wrapper_subfamilies must hold strings, got " + st::repr(name));
            options.wrapper_subfamilies.push_back(name.cast<std::string>());
        }
    }
    if (!mirror_function.is_none()) {
        if (!is_str(mirror_function))
            throw py::type_error("mirror_function must be a function name or None, got " + st::repr(mirror_function));
        options.mirror_function = mirror_function.cast<std::string>();
    } else {
        options.mirror_function.clear();
    }
    return py::cast(new AdaptiveWeightedGenerator(std::move(ctx), std::move(options)),
                    py::return_value_policy::take_ownership);
}

py::dict analyze_adaptive_weighted(py::handle ctx) {
    py::dict report = analyze_random_weighted(ctx);
    py::object tracker = attr_or(ctx, "_tracker");
    std::shared_ptr<AdaptiveSearchMemory> memory =
        tracker.is_none() ? nullptr : find_memory(tracker, attr_or(ctx, "_era_id"));
    report["learning"] = memory ? py::object(memory->summary()) : py::object(py::none());
    return report;
}

py::object adaptive_weighted_learning() {
    auto& all = memories();
    if (all.empty()) return py::none();
    return all.back().memory->summary();
}

void bind_adaptive_weighted(py::module_& m) {
    py::class_<AdaptiveWeightedGenerator>(m, "_AdaptiveWeightedGenerator")
        .def("__iter__", [](py::object self) { return self; })
        .def("__next__", &AdaptiveWeightedGenerator::next)
        .def("close", [](AdaptiveWeightedGenerator&) {});
    m.def("adaptive_weighted", &adaptive_weighted, py::arg("ctx"), py::arg("refresh_seconds") = 5.0,
          py::arg("refresh_evaluations") = 500, py::arg("explore_share") = 0.05, py::arg("local_share") = 0.7,
          py::arg("wrapper_subfamilies") = py::none(), py::arg("mirror_function") = "neg",
          "Built-in template that learns while it runs: refreshes analytics every refresh_seconds or "
          "refresh_evaluations graphs (more often in its first minute), never yields a graph already evaluated in the era, draws a share of "
          "graphs with flat weights (explore_share) and a share by local moves around found signals "
          "(local_share), skips near-copies of found signals under wrappers of the given subfamilies, and "
          "draws mirror_function(graph) for graphs whose Sharpe was at or below minus the era's floor.");
    m.def("analyze_adaptive_weighted", [](py::object ctx) { return analyze_adaptive_weighted(ctx); }, py::arg("ctx"),
          "analyze_random_weighted's report plus what adaptive_weighted has learnt in this search ('learning').");
    m.def("adaptive_weighted_learning", &adaptive_weighted_learning,
          "What adaptive_weighted has learnt in the most recent search of this process, or None.");
    m.def("_adaptive_weighted_graph_hash", [](py::object graph) { return py::int_(canonical_graph_hash(graph)); },
          py::arg("graph"));
}

}  // namespace quillmarsh::st
