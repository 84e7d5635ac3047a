#include "templates/random_weighted.hpp"

#include "common/py_helpers.hpp"
#include "era/vocabulary.hpp"
#include "templates/eligibility.hpp"
#include "templates/node_budget.hpp"
#include "templates/weights.hpp"

#include <algorithm>
#include <cmath>

namespace quillmarsh::st {

namespace {

py::object steal(PyObject* p) {
    if (p == nullptr) throw py::error_already_set();
    return py::reinterpret_steal<py::object>(p);
}

// A fresh shallow copy of a config leaf: a dict copies as a dict, anything else through copy.copy.
py::object copy_leaf(py::handle leaf) {
    if (PyDict_Check(leaf.ptr())) return steal(PyDict_Copy(leaf.ptr()));
    return import_module("copy").attr("copy")(leaf);
}

void set_item(py::handle dict, py::handle key, py::handle value) {
    if (PyDict_SetItem(dict.ptr(), key.ptr(), value.ptr()) != 0) throw py::error_already_set();
}

}  // namespace

std::uint64_t SplitMix64::below(std::uint64_t n) {
    // Lemire's multiply-and-shift with rejection of the biased low band.
    unsigned __int128 m = static_cast<unsigned __int128>(next()) * n;
    auto low = static_cast<std::uint64_t>(m);
    if (low < n) {
        std::uint64_t threshold = (0 - n) % n;
        while (low < threshold) {
            m = static_cast<unsigned __int128>(next()) * n;
            low = static_cast<std::uint64_t>(m);
        }
    }
    return static_cast<std::uint64_t>(m >> 64);
}

size_t weighted_index(const std::vector<double>& cum, SplitMix64& rng) {
    double total = cum.back();
    if (!(total > 0.0) || !std::isfinite(total)) return static_cast<size_t>(rng.below(cum.size()));
    double r = rng.uniform() * total;
    size_t i = static_cast<size_t>(std::lower_bound(cum.begin(), cum.end(), r) - cum.begin());
    return i < cum.size() ? i : cum.size() - 1;
}

// ---- the generator -----------------------------------------------------------------------------------

RandomWeightedGenerator::RandomWeightedGenerator(py::object ctx) : ctx_(std::move(ctx)) {
    key_type_ = steal(PyUnicode_InternFromString("type"));
    key_node_ = steal(PyUnicode_InternFromString("node"));
    key_children_ = steal(PyUnicode_InternFromString("children"));
    type_rotation_ = steal(PyUnicode_InternFromString("rotation"));
    type_feature_ = steal(PyUnicode_InternFromString("feature"));
    name_analytics_ = steal(PyUnicode_InternFromString("analytics"));
    name_getrandbits_ = steal(PyUnicode_InternFromString("getrandbits"));
    sixty_four_ = steal(PyLong_FromLong(64));
}

bool RandomWeightedGenerator::prepare() {
    py::dict vocab = normalize_template_vocabulary(ctx_.attr("vocabulary"));
    py::object raw_depth = ctx_.attr("max_depth");
    py::object max_depth = try_py_int(raw_depth);
    if (!max_depth) {
        log_info("random_weighted disabled: invalid max_depth %r", raw_depth);
        return false;
    }
    if (py_gt(max_depth, py::int_(RANDOM_WEIGHTED_MAX_DEPTH))) max_depth = py::int_(RANDOM_WEIGHTED_MAX_DEPTH);
    if (py_lt(max_depth, py::int_(2))) {
        log_info("random_weighted disabled: max_depth %r cannot produce a rotation root", max_depth);
        return false;
    }
    long long requested_depth = max_depth.cast<long long>();  // within [2, 6] here
    py::object functions = map_get(vocab, "functions", py::list());
    py::object features = map_get(vocab, "features", py::list());

    py::object window_limit = random_weighted_window_limit(ctx_, max_depth);
    long long node_limit = random_weighted_node_limit(ctx_);
    py::int_ node_limit_obj(node_limit);
    py::object registry = random_weighted_runtime_registry(ctx_);

    py::list safe_rotations = random_weighted_safe_rotations(functions, window_limit, node_limit_obj, registry);
    feat_names_ = random_weighted_feature_names(features);
    safe_rotations = random_weighted_rotations_within_node_budget(safe_rotations, node_limit_obj);
    effective_max_depth_ = random_weighted_max_depth_within_node_budget(safe_rotations, requested_depth, node_limit);

    bool no_rotations = py::len(safe_rotations) == 0, no_features = py::len(feat_names_) == 0;
    if (no_rotations || no_features) {
        if (no_rotations) log_info("random_weighted disabled: no SIGNAL-safe rotation functions available");
        if (no_features) log_info("random_weighted disabled: no valid features available");
        return false;
    }
    if (effective_max_depth_ < 2) {
        log_info("random_weighted disabled: node budget %r cannot produce a rotation root", node_limit_obj);
        return false;
    }
    if (effective_max_depth_ < requested_depth)
        log_info("random_weighted capped max_depth from %r to %r to stay within node budget %r", max_depth,
                 py::int_(effective_max_depth_), node_limit_obj);

    // func_specs: a name listed twice keeps both occurrences in func_names, and the later record.
    py::dict index_of_name;
    for (py::handle record : safe_rotations) {
        py::object name = record["name"];
        Rotation rotation;
        rotation.data_inputs = static_cast<Py_ssize_t>(py::len(record["data_params"]));
        for (py::handle leaf : record["config_children"])
            rotation.config_children.push_back(py::reinterpret_borrow<py::object>(leaf));
        index_of_name[name] = py::int_(rotations_.size());
        rotations_.push_back(std::move(rotation));
        func_names_.append(name);
    }
    for (py::handle name : func_names_) func_rotation_.push_back(index_of_name[name].cast<size_t>());

    for (py::handle name : feat_names_) {
        py::object leaf = steal(PyDict_New());
        set_item(leaf, key_type_, type_feature_);
        set_item(leaf, key_node_, name);
        feature_leaves_.push_back(std::move(leaf));
    }
    for (py::handle name : func_names_) {
        py::object node = steal(PyDict_New());
        set_item(node, key_type_, type_rotation_);
        set_item(node, key_node_, name);
        set_item(node, key_children_, Py_None);
        rotation_nodes_.push_back(std::move(node));
    }

    random_module_ = import_module("random");
    have_cached_analytics_ = false;
    cached_analytics_ = py::none();
    return true;
}

void RandomWeightedGenerator::refresh_weights(py::object analytics) {
    py::tuple maps = random_weighted_yield_maps(analytics, func_names_, feat_names_);
    f_cum_weights_ = random_weighted_cum_weights(func_names_, maps[0]);
    fe_cum_weights_ = random_weighted_cum_weights(feat_names_, maps[1]);
    cached_analytics_ = std::move(analytics);
    have_cached_analytics_ = true;
}

py::object RandomWeightedGenerator::build(long long depth) {
    if (depth <= 1) return steal(PyDict_Copy(feature_leaves_[weighted_index(fe_cum_weights_, rng_)].ptr()));
    size_t i = weighted_index(f_cum_weights_, rng_);
    const Rotation& rotation = rotations_[func_rotation_[i]];
    Py_ssize_t n_config = static_cast<Py_ssize_t>(rotation.config_children.size());
    py::object children = steal(PyList_New(rotation.data_inputs + n_config));
    for (Py_ssize_t k = 0; k < rotation.data_inputs; ++k)
        PyList_SET_ITEM(children.ptr(), k, build(depth - 1).release().ptr());  // pre-order: subtree by subtree
    for (Py_ssize_t k = 0; k < n_config; ++k)
        PyList_SET_ITEM(children.ptr(), rotation.data_inputs + k, copy_leaf(rotation.config_children[k]).release().ptr());
    py::object node = steal(PyDict_Copy(rotation_nodes_[i].ptr()));
    set_item(node, key_children_, children);
    return node;
}

py::object RandomWeightedGenerator::draw() {
    // One call into `random` per graph: the seed of this graph's private stream. `getrandbits` is looked up
    // on the module at each draw, as `random.getrandbits(64)` would be.
    py::object getrandbits = steal(PyObject_GetAttr(random_module_.ptr(), name_getrandbits_.ptr()));
    py::object bits = steal(PyObject_CallOneArg(getrandbits.ptr(), sixty_four_.ptr()));
    std::uint64_t seed = PyLong_AsUnsignedLongLongMask(bits.ptr());
    if (seed == static_cast<std::uint64_t>(-1) && PyErr_Occurred()) throw py::error_already_set();
    rng_.seed(seed);
    // The depth comes first, uniform over [2, effective_max_depth].
    long long depth = 2 + static_cast<long long>(rng_.below(static_cast<std::uint64_t>(effective_max_depth_ - 1)));
    py::object analytics = steal(PyObject_GetAttr(ctx_.ptr(), name_analytics_.ptr()));
    if (!have_cached_analytics_ || analytics.ptr() != cached_analytics_.ptr()) refresh_weights(std::move(analytics));
    return build(depth);
}

py::object RandomWeightedGenerator::next_or_end() {
    if (running_) throw py::value_error("generator already executing");
    if (state_ == State::Finished) return py::object();
    running_ = true;
    try {
        if (state_ == State::Created && !prepare()) {
            state_ = State::Finished;
            running_ = false;
            return py::object();
        }
        state_ = State::Suspended;
        py::object graph = draw();
        running_ = false;
        return graph;
    } catch (...) {
        // An exception that escapes ends the generator, as it ends a Python generator.
        state_ = State::Finished;
        running_ = false;
        throw;
    }
}

py::object RandomWeightedGenerator::send(py::handle value) {
    if (state_ == State::Created && !value.is_none())
        throw py::type_error("can't send non-None value to a just-started generator");
    return next_or_end();
}

void RandomWeightedGenerator::close() {
    if (running_) throw py::value_error("generator already executing");
    state_ = State::Finished;  // holds no resource: nothing to release
}

void RandomWeightedGenerator::throw_in(py::handle type, py::handle value) {
    if (running_) throw py::value_error("generator already executing");
    state_ = State::Finished;
    py::object cls = py::reinterpret_borrow<py::object>(type);
    py::object exc;
    if (PyExceptionInstance_Check(type.ptr())) {
        exc = cls;
    } else if (!PyExceptionClass_Check(type.ptr())) {
        throw py::type_error("exceptions must be classes or instances deriving from BaseException");
    } else if (value.is_none()) {
        exc = cls();
    } else if (PyObject_IsInstance(value.ptr(), type.ptr()) == 1) {
        exc = py::reinterpret_borrow<py::object>(value);
    } else {
        exc = PyTuple_Check(value.ptr()) ? cls(*py::reinterpret_borrow<py::tuple>(value)) : cls(value);
    }
    raise_instance(exc);
}

int RandomWeightedGenerator::traverse(visitproc visit, void* arg) {
    Py_VISIT(ctx_.ptr());
    Py_VISIT(cached_analytics_.ptr());
    return 0;
}

void RandomWeightedGenerator::clear() {
    state_ = State::Finished;
    ctx_ = py::object();
    cached_analytics_ = py::object();
    have_cached_analytics_ = false;
}

// ---- the Python iterator type ------------------------------------------------------------------------

namespace {

struct GeneratorObject {
    PyObject_HEAD
    RandomWeightedGenerator* impl;
};

PyObject* g_generator_type = nullptr;

// Hands a C++ exception back to the interpreter as the pending Python error.
void set_python_error() {
    try {
        throw;
    } catch (py::error_already_set& err) {
        err.restore();
    } catch (py::builtin_exception& err) {
        err.set_error();
    } catch (const std::exception& err) {
        PyErr_SetString(PyExc_RuntimeError, err.what());
    } catch (...) {
        PyErr_SetString(PyExc_RuntimeError, "random_weighted: unknown C++ exception");
    }
}

RandomWeightedGenerator& impl_of(PyObject* self) { return *reinterpret_cast<GeneratorObject*>(self)->impl; }

int generator_traverse(PyObject* self, visitproc visit, void* arg) {
    Py_VISIT(Py_TYPE(self));
    RandomWeightedGenerator* impl = reinterpret_cast<GeneratorObject*>(self)->impl;
    return impl ? impl->traverse(visit, arg) : 0;
}

int generator_clear(PyObject* self) {
    if (RandomWeightedGenerator* impl = reinterpret_cast<GeneratorObject*>(self)->impl) impl->clear();
    return 0;
}

void generator_dealloc(PyObject* self) {
    PyTypeObject* type = Py_TYPE(self);
    PyObject_GC_UnTrack(self);
    delete reinterpret_cast<GeneratorObject*>(self)->impl;
    type->tp_free(self);
    Py_DECREF(type);
}

PyObject* generator_iternext(PyObject* self) {
    try {
        return impl_of(self).next_or_end().release().ptr();  // NULL without an error: exhausted
    } catch (...) {
        set_python_error();
        return nullptr;
    }
}

PyObject* stop_if_empty(py::object result) {
    if (!result) PyErr_SetNone(PyExc_StopIteration);
    return result.release().ptr();
}

PyObject* generator_send(PyObject* self, PyObject* value) {
    try {
        return stop_if_empty(impl_of(self).send(value));
    } catch (...) {
        set_python_error();
        return nullptr;
    }
}

PyObject* generator_close(PyObject* self, PyObject*) {
    try {
        impl_of(self).close();
        Py_RETURN_NONE;
    } catch (...) {
        set_python_error();
        return nullptr;
    }
}

PyObject* generator_throw(PyObject* self, PyObject* args) {
    PyObject *type = nullptr, *value = Py_None, *traceback = Py_None;
    if (!PyArg_UnpackTuple(args, "throw", 1, 3, &type, &value, &traceback)) return nullptr;
    try {
        impl_of(self).throw_in(type, value);
    } catch (...) {
        set_python_error();
    }
    return nullptr;
}

PyMethodDef generator_methods[] = {
    {"send", generator_send, METH_O, "send(value): the next graph; the value is not used."},
    {"close", generator_close, METH_NOARGS, "close(): finish the generator."},
    {"throw", generator_throw, METH_VARARGS, "throw(type[, value[, traceback]]): finish and raise."},
    {nullptr, nullptr, 0, nullptr}};

PyType_Slot generator_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(generator_dealloc)},
    {Py_tp_traverse, reinterpret_cast<void*>(generator_traverse)},
    {Py_tp_clear, reinterpret_cast<void*>(generator_clear)},
    {Py_tp_iter, reinterpret_cast<void*>(PyObject_SelfIter)},
    {Py_tp_iternext, reinterpret_cast<void*>(generator_iternext)},
    {Py_tp_methods, generator_methods},
    {Py_tp_doc, const_cast<char*>("The iterator of random_weighted(ctx): endless random SIGNAL graphs.")},
    {0, nullptr}};

PyType_Spec generator_spec = {"quillmarsh.search_templates._RandomWeightedGenerator", sizeof(GeneratorObject), 0,
                              Py_TPFLAGS_DEFAULT | Py_TPFLAGS_HAVE_GC, generator_slots};

}  // namespace

py::object random_weighted_generator_type() {
    if (g_generator_type == nullptr) {
        g_generator_type = PyType_FromSpec(&generator_spec);  // kept for the life of the process
        if (g_generator_type == nullptr) throw py::error_already_set();
    }
    return py::reinterpret_borrow<py::object>(g_generator_type);
}

py::object random_weighted(py::object ctx) {
    auto* type = reinterpret_cast<PyTypeObject*>(random_weighted_generator_type().ptr());
    py::object self = steal(type->tp_alloc(type, 0));
    reinterpret_cast<GeneratorObject*>(self.ptr())->impl = new RandomWeightedGenerator(std::move(ctx));
    return self;
}

// ---- helpers with the host's random source -----------------------------------------------------------

py::object weighted_choice(py::handle items, py::handle cum_weights) {
    py::object random = import_module("random");
    py::object total = cum_weights[py::int_(-1)];
    if (!py_gt(total, py::float_(0.0)) || !random_weighted_is_finite_number(total))
        return random.attr("choice")(items);
    py::object r = steal(PyNumber_Multiply(random.attr("random")().ptr(), total.ptr()));
    py::object i = import_module("bisect").attr("bisect_left")(cum_weights, r);
    if (py_lt(i, py::int_(py::len(items)))) return items[i];
    return items[py::int_(-1)];
}

namespace {
py::object build_with_host_random(py::handle func_names, py::handle func_specs, py::handle func_weights,
                                  py::handle feat_names, py::handle feat_weights, py::handle target_depth) {
    py::int_ one(1);
    if (!py_gt(target_depth, one)) {
        py::dict leaf;
        leaf["type"] = "feature";
        leaf["node"] = weighted_choice(feat_names, feat_weights);
        return leaf;
    }
    py::object func = weighted_choice(func_names, func_weights);
    py::object rotation = func_specs[func];
    py::object below = steal(PyNumber_Subtract(target_depth.ptr(), one.ptr()));
    py::list children;
    for (py::handle ignored : rotation["data_params"]) {
        (void)ignored;  // a data input carries no constraint on what fills it
        children.append(build_with_host_random(func_names, func_specs, func_weights, feat_names, feat_weights, below));
    }
    for (py::handle leaf : rotation["config_children"]) children.append(copy_leaf(leaf));
    py::dict node;
    node["type"] = "rotation";
    node["node"] = func;
    node["children"] = children;
    return node;
}
}  // namespace

py::object build_random_signal_expression(py::handle func_names, py::handle func_specs, py::handle func_weights,
                                          py::handle feat_names, py::handle feat_weights, py::handle target_depth) {
    return build_with_host_random(func_names, func_specs, func_weights, feat_names, feat_weights, target_depth);
}

}  // namespace quillmarsh::st
