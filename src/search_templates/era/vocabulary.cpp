#include "era/vocabulary.hpp"

#include "common/py_helpers.hpp"

#include <string>
#include <vector>

namespace quillmarsh::st {

namespace {

PyObject* g_vocab_schema_error = nullptr;

// Interned field names, made once and kept for the life of the process.
struct FieldNames {
    std::vector<PyObject*> names;
    explicit FieldNames(const std::string_view* begin, const std::string_view* end) {
        for (auto* it = begin; it != end; ++it) {
            PyObject* s = PyUnicode_FromStringAndSize(it->data(), static_cast<Py_ssize_t>(it->size()));
            if (s == nullptr) throw py::error_already_set();
            PyUnicode_InternInPlace(&s);
            names.push_back(s);
        }
    }
};

// The interned names of one of the constant field arrays, made on first use.
const FieldNames& names_for(const std::string_view* fields) {
    static const FieldNames rotation(ROTATION_REQUIRED_FIELDS.data(), ROTATION_REQUIRED_FIELDS.data() + 5);
    static const FieldNames filtration(FILTRATION_REQUIRED_FIELDS.data(), FILTRATION_REQUIRED_FIELDS.data() + 4);
    static const FieldNames filtration_forbidden(FILTRATION_FORBIDDEN_FIELDS.data(),
                                                 FILTRATION_FORBIDDEN_FIELDS.data() + 1);
    static const FieldNames reduction(REDUCTION_REQUIRED_FIELDS.data(), REDUCTION_REQUIRED_FIELDS.data() + 5);
    static const FieldNames feature(FEATURE_REQUIRED_FIELDS.data(), FEATURE_REQUIRED_FIELDS.data() + 7);
    static const FieldNames stats(FEATURE_STATS_REQUIRED_KEYS.data(), FEATURE_STATS_REQUIRED_KEYS.data() + 5);
    if (fields == ROTATION_REQUIRED_FIELDS.data()) return rotation;
    if (fields == FILTRATION_REQUIRED_FIELDS.data()) return filtration;
    if (fields == FILTRATION_FORBIDDEN_FIELDS.data()) return filtration_forbidden;
    if (fields == REDUCTION_REQUIRED_FIELDS.data()) return reduction;
    if (fields == FEATURE_REQUIRED_FIELDS.data()) return feature;
    return stats;
}

// `key in d`, with a subclass's own __contains__ honoured.
bool dict_has(py::handle d, PyObject* key) {
    int r = PyDict_CheckExact(d.ptr()) ? PyDict_Contains(d.ptr(), key) : PySequence_Contains(d.ptr(), key);
    if (r < 0) throw py::error_already_set();
    return r != 0;
}

// d[key] when `key in d`, else a null object.
py::object entry_get(py::handle d, py::handle key) {
    if (!dict_has(d, key.ptr())) return py::object();
    return d[key];
}

// What a validator found wrong; the sets are only built when something was.
struct Findings {
    std::vector<py::object> missing;
    std::vector<py::object> unexpected;
    bool empty() const { return missing.empty() && unexpected.empty(); }
    static py::set as_set(const std::vector<py::object>& names) {
        py::set out;
        for (const auto& name : names) out.add(name);
        return out;
    }
    py::set missing_set() const { return as_set(missing); }
    py::set unexpected_set() const { return as_set(unexpected); }
};

// The kinds of function entry, each with its required and forbidden fields.
struct FunctionKind {
    const char* name;
    const std::string_view* required;
    size_t required_count;
    const std::string_view* forbidden;
    size_t forbidden_count;
};

const FunctionKind kFunctionKinds[] = {
    {"rotation", ROTATION_REQUIRED_FIELDS.data(), ROTATION_REQUIRED_FIELDS.size(), nullptr, 0},
    {"filtration", FILTRATION_REQUIRED_FIELDS.data(), FILTRATION_REQUIRED_FIELDS.size(),
     FILTRATION_FORBIDDEN_FIELDS.data(), FILTRATION_FORBIDDEN_FIELDS.size()},
    {"reduction", REDUCTION_REQUIRED_FIELDS.data(), REDUCTION_REQUIRED_FIELDS.size(), nullptr, 0},
};

[[noreturn]] void raise_schema_error(py::handle source_kind, py::handle missing, py::handle unexpected,
                                     py::handle entry) {
    raise_instance(vocab_schema_error_type()(source_kind, py::arg("missing") = missing,
                                             py::arg("unexpected") = unexpected, py::arg("entry") = entry));
}

// The key `name` of a dict, with a default (dict.get).
py::object dict_get(py::handle d, py::handle name, py::object dflt) { return key_or_attr(d, name, std::move(dflt)); }

void flatten_into(py::handle node, py::list& out) {
    if (is_list(node)) {
        for (py::handle item : node)
            if (is_dict(item)) out.append(py::reinterpret_steal<py::object>(PyDict_Copy(item.ptr())));
        return;
    }
    if (!is_dict(node)) return;
    if (Py_EnterRecursiveCall(" while flattening vocabulary groups")) throw py::error_already_set();
    try {
        for (py::handle value : py::reinterpret_borrow<py::dict>(node).attr("values")()) flatten_into(value, out);
    } catch (...) {
        Py_LeaveRecursiveCall();
        throw;
    }
    Py_LeaveRecursiveCall();
}

// VocabSchemaError.__init__(self, source_kind, *, missing=(), unexpected=(), entry=None, message=None)
PyObject* vocab_schema_error_init(PyObject* /*unused*/, PyObject* args, PyObject* kwargs) {
    static const char* kwlist[] = {"self", "source_kind", "missing", "unexpected", "entry", "message", nullptr};
    PyObject* self = nullptr;
    PyObject* source_kind = nullptr;
    PyObject* missing = nullptr;
    PyObject* unexpected = nullptr;
    PyObject* entry = Py_None;
    PyObject* message = Py_None;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OO|$OOOO:__init__", const_cast<char**>(kwlist), &self,
                                     &source_kind, &missing, &unexpected, &entry, &message))
        return nullptr;
    try {
        py::handle self_h(self);
        py::str kind{py::handle(source_kind)};
        py::frozenset missing_set(missing ? py::reinterpret_borrow<py::object>(missing) : py::tuple());
        py::frozenset unexpected_set(unexpected ? py::reinterpret_borrow<py::object>(unexpected) : py::tuple());
        self_h.attr("source_kind") = kind;
        self_h.attr("missing") = missing_set;
        self_h.attr("unexpected") = unexpected_set;
        self_h.attr("entry") = py::handle(entry);

        py::object text;
        if (message != Py_None) {
            text = py::reinterpret_borrow<py::object>(message);
        } else {
            py::object sorted = py::module_::import("builtins").attr("sorted");
            py::list parts;
            parts.append(py::str("vocabulary {} entry violates canonical contract").format(kind));
            if (!missing_set.empty())
                parts.append(py::str("missing fields: ") + py::str(", ").attr("join")(sorted(missing_set)));
            if (!unexpected_set.empty())
                parts.append(py::str("unexpected fields: ") + py::str(", ").attr("join")(sorted(unexpected_set)));
            text = py::str("; ").attr("join")(parts);
        }
        py::tuple base_args = py::make_tuple(text);
        if (reinterpret_cast<PyTypeObject*>(PyExc_ValueError)->tp_init(self, base_args.ptr(), nullptr) < 0)
            return nullptr;
    } catch (py::error_already_set& e) {
        e.restore();
        return nullptr;
    }
    Py_RETURN_NONE;
}

PyMethodDef kVocabSchemaErrorInit = {
    "__init__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(vocab_schema_error_init)),
    METH_VARARGS | METH_KEYWORDS, nullptr};

}  // namespace

py::object create_vocab_schema_error_type() {
    PyObject* type = PyErr_NewExceptionWithDoc("quillmarsh.search_templates.VocabSchemaError",
                                               "Raised when a vocabulary entry violates the canonical contract.",
                                               PyExc_ValueError, nullptr);
    if (type == nullptr) throw py::error_already_set();
    py::object cls = py::reinterpret_steal<py::object>(type);
    py::object fn = py::reinterpret_steal<py::object>(PyCFunction_NewEx(&kVocabSchemaErrorInit, nullptr, nullptr));
    if (!fn) throw py::error_already_set();
    py::object method = py::reinterpret_steal<py::object>(PyInstanceMethod_New(fn.ptr()));
    if (!method) throw py::error_already_set();
    cls.attr("__init__") = method;
    return cls;
}

void register_vocab_schema_error_type(py::object cls) { g_vocab_schema_error = cls.release().ptr(); }

py::object vocab_schema_error_type() { return py::reinterpret_borrow<py::object>(g_vocab_schema_error); }

py::frozenset field_set(const std::string_view* begin, const std::string_view* end) {
    py::set s;
    for (auto* it = begin; it != end; ++it) s.add(py::str(it->data(), it->size()));
    return py::frozenset(s);
}

py::list flatten_vocabulary_entries(py::handle node) {
    py::list out;
    flatten_into(node, out);
    return out;
}

void validate_function_entry(py::handle entry, py::handle source_kind) {
    const FunctionKind* kind = nullptr;
    if (is_str(source_kind)) {
        std::string k = source_kind.cast<std::string>();
        for (const auto& candidate : kFunctionKinds)
            if (k == candidate.name) kind = &candidate;
    }
    if (kind == nullptr) {
        PyErr_SetString(PyExc_ValueError, ("unknown function source_kind " + st::repr(source_kind)).c_str());
        throw py::error_already_set();
    }
    if (!is_dict(entry))
        raise_schema_error(source_kind, field_set(kind->required, kind->required + kind->required_count), py::tuple(),
                           entry);

    Findings found;
    for (PyObject* field : names_for(kind->required).names)
        if (!dict_has(entry, field)) found.missing.push_back(py::reinterpret_borrow<py::object>(field));
    if (kind->forbidden != nullptr)
        for (PyObject* field : names_for(kind->forbidden).names)
            if (dict_has(entry, field)) found.unexpected.push_back(py::reinterpret_borrow<py::object>(field));
    py::object function_type = entry_get(entry, ST_NAME("function_type"));
    if (function_type && py_not_equal(function_type, source_kind))
        found.unexpected.push_back(py::reinterpret_borrow<py::object>(ST_NAME("function_type")));
    if (!found.empty()) raise_schema_error(source_kind, found.missing_set(), found.unexpected_set(), entry);
}

void validate_feature_entry(py::handle entry) {
    py::handle kind = ST_NAME("feature");
    if (!is_dict(entry)) raise_schema_error(kind, field_set(FEATURE_REQUIRED_FIELDS), py::tuple(), entry);

    Findings found;
    for (PyObject* field : names_for(FEATURE_REQUIRED_FIELDS.data()).names)
        if (!dict_has(entry, field)) found.missing.push_back(py::reinterpret_borrow<py::object>(field));
    py::object function_type = entry_get(entry, ST_NAME("function_type"));
    if (function_type && py_not_equal(function_type, kind))
        found.unexpected.push_back(py::reinterpret_borrow<py::object>(ST_NAME("function_type")));
    py::object stats = entry_get(entry, ST_NAME("stats"));
    if (stats) {
        // A stats value that is not a map lacks every required key.
        bool stats_is_map = is_dict(stats);
        const auto& keys = names_for(FEATURE_STATS_REQUIRED_KEYS.data()).names;
        for (size_t i = 0; i < keys.size(); ++i)
            if (!stats_is_map || !dict_has(stats, keys[i]))
                found.missing.push_back(py::str("stats.") + py::reinterpret_borrow<py::str>(keys[i]));
    }
    if (!found.empty()) raise_schema_error(kind, found.missing_set(), found.unexpected_set(), entry);
}

py::dict normalize_template_vocabulary(py::handle vocab) {
    if (!is_dict(vocab)) {
        py::dict empty;
        empty["functions"] = py::list();
        empty["features"] = py::list();
        return empty;
    }
    py::dict normalized = py::reinterpret_steal<py::dict>(PyDict_Copy(vocab.ptr()));
    if (!normalized) throw py::error_already_set();

    if (!is_list(dict_get(normalized, ST_NAME("functions"), py::none()))) {
        // Rotations first, then filtrations, then reductions; a flat list would have been trusted.
        static const char* const kGroups[][2] = {
            {"rotations", "rotation"}, {"filtrations", "filtration"}, {"reductions", "reduction"}};
        py::list functions;
        for (const auto& group : kGroups) {
            py::str source_kind(group[1]);
            for (py::handle entry : flatten_vocabulary_entries(dict_get(normalized, py::str(group[0]), py::dict()))) {
                validate_function_entry(entry, source_kind);
                functions.append(entry);  // already a fresh shallow copy
            }
        }
        normalized["functions"] = functions;
    }

    py::object features = dict_get(normalized, ST_NAME("features"), py::none());
    if (!is_list(features)) {
        py::list flat_features = flatten_vocabulary_entries(features);
        for (py::handle entry : flat_features) validate_feature_entry(entry);
        normalized["features"] = flat_features;
    }
    return normalized;
}

}  // namespace quillmarsh::st
