#include "submission/submission_store.hpp"

#include "common/py_helpers.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

PyObject* g_row_schema_error = nullptr;

py::object json_module() {
    static PyObject* json = py::module_::import("json").release().ptr();
    return py::reinterpret_borrow<py::object>(json);
}

// RowSchemaError.__init__(self, source_kind, missing=(), row_id=None, message=None)
PyObject* row_schema_error_init(PyObject*, PyObject* args, PyObject* kwargs) {
    static const char* kwlist[] = {"self", "source_kind", "missing", "row_id", "message", nullptr};
    PyObject* self = nullptr;
    PyObject* source_kind = nullptr;
    PyObject* missing = nullptr;
    PyObject* row_id = Py_None;
    PyObject* message = Py_None;
    if (!PyArg_ParseTupleAndKeywords(args, kwargs, "OO|OOO:__init__", const_cast<char**>(kwlist), &self,
                                     &source_kind, &missing, &row_id, &message))
        return nullptr;
    try {
        py::object kind = py::str(source_kind);
        py::object missing_keys = missing ? py::reinterpret_borrow<py::object>(missing) : py::tuple();
        py::object id = py::reinterpret_borrow<py::object>(row_id);
        py::handle self_h(self);
        self_h.attr("source_kind") = kind;
        self_h.attr("missing") = missing_keys;
        self_h.attr("row_id") = id;

        py::list parts;
        if (message != Py_None) {
            parts.append(py::reinterpret_borrow<py::object>(message));
        } else {
            parts.append(py::str("{0} row {1!r} payload_json schema violation").attr("format")(kind, id));
        }
        if (truthy(missing_keys)) {
            py::object sorted = py::module_::import("builtins").attr("sorted")(missing_keys);
            parts.append(py::str("missing keys: ") + py::str(", ").attr("join")(sorted));
        }
        py::object text = py::str("; ").attr("join")(parts);
        py::reinterpret_borrow<py::object>(PyExc_ValueError).attr("__init__")(self_h, text);
    } catch (py::error_already_set& e) {
        e.restore();
        return nullptr;
    }
    Py_RETURN_NONE;
}

PyMethodDef kRowSchemaErrorInit = {
    "__init__", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(row_schema_error_init)),
    METH_VARARGS | METH_KEYWORDS, nullptr};

// payload.get(key) or ... : the first truthy value, else the last candidate (Python's `or`).
py::object first_truthy(std::initializer_list<py::object> candidates) {
    py::object last = py::none();
    for (const auto& c : candidates) {
        if (truthy(c)) return c;
        last = c;
    }
    return last;
}

py::object row_field(const py::object& row, size_t i) {
    return row.is_none() ? py::none() : py::object(row[py::int_(i)]);
}

const char* claim_operation(ClaimTable t) {
    return t == ClaimTable::SubmissionQueue ? "submission_queue_claim_schema" : "submission_retry_claim_schema";
}
const char* claim_table_name(ClaimTable t) {
    return t == ClaimTable::SubmissionQueue ? "submission_queue" : "submission_retry";
}
const char* claim_ready_flag(ClaimTable t) {
    return t == ClaimTable::SubmissionQueue ? "_submission_claim_columns_ready" : "_retry_claim_columns_ready";
}

}  // namespace

bool tracker_uses_persistent_store(py::handle tracker) { return !attr_or(tracker, "_conn").is_none(); }

py::str serialize_submission_payload(py::handle payload) {
    static PyObject* builtin_str = reinterpret_cast<PyObject*>(&PyUnicode_Type);
    return json_module().attr("dumps")(payload, py::arg("sort_keys") = true,
                                       py::arg("default") = py::handle(builtin_str));
}

py::dict submission_payload_for_storage(py::handle payload) {
    py::dict out;
    for (auto item : py::reinterpret_borrow<py::object>(payload).attr("items")()) {
        py::tuple kv = py::reinterpret_borrow<py::tuple>(item);
        bool transient = false;
        if (is_str(kv[0])) {
            std::string key = kv[0].cast<std::string>();
            for (const char* t : TRANSIENT_PAYLOAD_KEYS) transient = transient || key == t;
        }
        if (!transient) out[kv[0]] = kv[1];
    }
    return out;
}

py::object load_submission_payload(py::handle payload_json) {
    if (payload_json.is_none() || !truthy(payload_json)) throw py::value_error("payload_json must not be empty");
    py::object payload = json_module().attr("loads")(payload_json);
    if (!is_dict(payload)) throw py::value_error("payload_json must decode to an object");
    return payload;
}

void require_payload_typed_keys(py::handle payload, py::handle source_kind, py::handle row_id) {
    py::tuple required(REQUIRED_ROW_PAYLOAD_KEYS.size());
    for (size_t i = 0; i < REQUIRED_ROW_PAYLOAD_KEYS.size(); ++i) required[i] = py::str(REQUIRED_ROW_PAYLOAD_KEYS[i]);
    if (!is_dict(payload)) {
        raise_instance(row_schema_error_type()(source_kind, py::arg("missing") = required, py::arg("row_id") = row_id));
    }
    py::list missing;
    for (auto key : required)
        if (!py::reinterpret_borrow<py::dict>(payload).contains(key)) missing.append(key);
    if (!missing.empty()) {
        raise_instance(row_schema_error_type()(source_kind, py::arg("missing") = py::tuple(missing),
                                               py::arg("row_id") = row_id));
    }
}

py::object create_row_schema_error_type() {
    PyObject* type = PyErr_NewException("quillmarsh.search_templates.RowSchemaError", PyExc_ValueError, nullptr);
    if (type == nullptr) throw py::error_already_set();
    py::object cls = py::reinterpret_steal<py::object>(type);
    py::object fn = py::reinterpret_steal<py::object>(PyCFunction_NewEx(&kRowSchemaErrorInit, nullptr, nullptr));
    if (!fn) throw py::error_already_set();
    cls.attr("__init__") = py::reinterpret_steal<py::object>(PyInstanceMethod_New(fn.ptr()));
    return cls;
}

void register_row_schema_error_type(py::object type) { g_row_schema_error = type.release().ptr(); }
py::object row_schema_error_type() { return py::reinterpret_borrow<py::object>(g_row_schema_error); }

py::object create_receipt_record_type() {
    py::module_ dc = py::module_::import("dataclasses");
    py::dict ns;
    ns["__doc__"] = "A receipt rebuilt from a journal entry.";
    ns["__module__"] = "quillmarsh.search_templates";
    py::list fields;
    fields.append(py::make_tuple("submission_id", py::module_::import("builtins").attr("str")));
    return dc.attr("make_dataclass")("_ReceiptRecord", fields, py::arg("namespace") = ns);
}

py::tuple resolve_submission_pool_ids(py::handle conn, py::handle payload) {
    py::object p = py::reinterpret_borrow<py::object>(payload);
    py::object submission_type = p.attr("get")("submission_type");
    py::object eval_id = p.attr("get")("eval_id");
    py::object c = py::reinterpret_borrow<py::object>(conn);
    if (is_str(submission_type) && submission_type.cast<std::string>() == "strategy") {
        py::object row = c.attr("execute")(
            "SELECT strategy_pool_id, signal_pool_id FROM strategy_evaluations WHERE eval_id=?",
            py::make_tuple(eval_id)).attr("fetchone")();
        py::object pool_id = first_truthy({p.attr("get")("pool_id"), p.attr("get")("strategy_pool_id"),
                                           row_field(row, 0)});
        py::object signal_pool_id = first_truthy({p.attr("get")("signal_pool_id"), row_field(row, 1)});
        if (!truthy(signal_pool_id)) throw py::value_error("signal_pool_id must be a non-empty string");
        return py::make_tuple(pool_id, signal_pool_id);
    }
    py::object row = c.attr("execute")("SELECT pool_id FROM signal_evaluations WHERE eval_id=?",
                                       py::make_tuple(eval_id)).attr("fetchone")();
    py::object pool_id = first_truthy({p.attr("get")("pool_id"), p.attr("get")("signal_pool_id"), row_field(row, 0)});
    return py::make_tuple(pool_id, py::none());
}

py::set persistent_table_columns(py::handle conn, std::string_view table_name) {
    py::object c = py::reinterpret_borrow<py::object>(conn);
    py::set columns;
    py::object dialect = attr_or(c, "dialect");
    if (is_str(dialect) && dialect.cast<std::string>() == "postgres") {
        py::object rows = c.attr("execute")(
            "SELECT column_name FROM information_schema.columns WHERE table_schema = current_schema() AND "
            "table_name = ?",
            py::make_tuple(std::string(table_name))).attr("fetchall")();
        for (auto row : rows) columns.add(row[py::int_(0)]);
        return columns;
    }
    std::string quoted = "\"";
    for (char ch : table_name) quoted += ch == '"' ? std::string("\"\"") : std::string(1, ch);
    quoted += "\"";
    py::object rows = c.attr("execute")("PRAGMA table_info(" + quoted + ")").attr("fetchall")();
    for (auto row : rows) columns.add(row[py::int_(1)]);
    return columns;
}

bool ensure_claim_columns(py::handle handle, ClaimTable table) {
    py::object h = py::reinterpret_borrow<py::object>(handle);
    const char* flag = claim_ready_flag(table);
    if (truthy(attr_or(h, flag, py::bool_(false)))) return true;
    if (!truthy(attr_or(h, "_tracker_uses_persistent_store", py::bool_(false)))) return false;
    try {
        py::object lock = h.attr("_tracker_write_lock");
        lock.attr("acquire")();
        try {
            py::object conn = h.attr("_tracker").attr("_conn");
            py::set columns = persistent_table_columns(conn, claim_table_name(table));
            const std::string name = claim_table_name(table);
            if (!columns.contains("in_flight_owner"))
                conn.attr("execute")("ALTER TABLE " + name + " ADD COLUMN in_flight_owner TEXT");
            if (!columns.contains("in_flight_at"))
                conn.attr("execute")("ALTER TABLE " + name + " ADD COLUMN in_flight_at REAL");
            conn.attr("commit")();
        } catch (...) {
            lock.attr("release")();
            throw;
        }
        lock.attr("release")();
        h.attr(flag) = true;
        return true;
    } catch (py::error_already_set& e) {
        h.attr("_record_background_failure")("submission", claim_operation(table), e.value(),
                                             py::arg("backoff") = true);
        return false;
    }
}

double submission_queue_lease_seconds() {
    return py::float_(module_attr("SUBMISSION_QUEUE_LEASE_SECONDS")).cast<double>();
}

}  // namespace quillmarsh::st
