#include "common/search_status.hpp"

#include <initializer_list>

namespace quillmarsh::st {

namespace {

PyObject* g_search_status = nullptr;
PyObject* g_backtest_result = nullptr;

struct Builtins {
    py::object bool_, int_, float_, str_, list_, dict_, object_, optional, field, make_dataclass;
    Builtins() {
        py::module_ b = py::module_::import("builtins");
        bool_ = b.attr("bool");
        int_ = b.attr("int");
        float_ = b.attr("float");
        str_ = b.attr("str");
        list_ = b.attr("list");
        dict_ = b.attr("dict");
        object_ = b.attr("object");
        optional = py::module_::import("typing").attr("Optional");
        py::module_ dc = py::module_::import("dataclasses");
        field = dc.attr("field");
        make_dataclass = dc.attr("make_dataclass");
    }
    py::tuple with_default(const char* name, py::object type, py::object value) const {
        return py::make_tuple(name, type, field(py::arg("default") = value));
    }
    py::tuple with_factory(const char* name, py::object type, py::object factory) const {
        return py::make_tuple(name, type, field(py::arg("default_factory") = factory));
    }
    py::object make(const char* name, const char* doc, py::list fields) const {
        py::dict ns;
        ns["__doc__"] = doc;
        ns["__module__"] = "quillmarsh.search_templates";
        return make_dataclass(name, fields, py::arg("namespace") = ns);
    }
};

}  // namespace

py::object create_search_status_type() {
    Builtins t;
    py::object opt_float = t.optional[t.float_];
    py::object opt_str = t.optional[t.str_];
    py::list f;
    f.append(t.with_default("running", t.bool_, py::bool_(false)));
    f.append(t.with_default("n_jobs", t.int_, py::int_(0)));
    f.append(t.with_default("total_evaluated", t.int_, py::int_(0)));
    f.append(t.with_default("total_found", t.int_, py::int_(0)));
    f.append(t.with_default("signals_per_hour", t.float_, py::float_(0.0)));
    f.append(t.with_default("elapsed_seconds", t.float_, py::float_(0.0)));
    f.append(t.with_default("memory_usage_mb", t.float_, py::float_(0.0)));
    f.append(t.with_default("batch_tier", t.str_, py::str("")));
    f.append(t.with_default("t_batch", t.int_, py::int_(0)));
    f.append(t.with_default("era", t.str_, py::str("")));
    f.append(t.with_factory("errors", t.list_[t.str_], t.list_));
    f.append(t.with_default("crash_count", t.int_, py::int_(0)));
    f.append(t.with_default("sync_progress", opt_float, py::none()));
    f.append(t.with_default("error_code", opt_str, py::none()));
    f.append(t.with_default("recovery_advice", opt_str, py::none()));
    f.append(t.with_default("submission_queued", t.int_, py::int_(0)));
    f.append(t.with_default("submission_pending", t.int_, py::int_(0)));
    f.append(t.with_default("submission_accepted", t.int_, py::int_(0)));
    f.append(t.with_default("submission_rejected", t.int_, py::int_(0)));
    f.append(t.with_default("submission_retrying", t.int_, py::int_(0)));
    f.append(t.with_default("submission_discarded", t.int_, py::int_(0)));
    f.append(t.with_default("submission_backoff", t.bool_, py::bool_(false)));
    f.append(t.with_default("last_poll_time", opt_float, py::none()));
    return t.make("SearchStatus", "Current search state snapshot (23 fields).", f);
}

py::object create_backtest_result_type() {
    Builtins t;
    py::list f;
    f.append(t.with_factory("expression", t.dict_, t.dict_));
    f.append(t.with_default("passed", t.bool_, py::bool_(false)));
    f.append(t.with_default("stats", t.object_, py::none()));
    f.append(t.with_default("factor_pnl", t.object_, py::none()));
    f.append(t.with_default("per_column_stats", t.optional[t.dict_], py::none()));
    f.append(t.with_default("portfolio_returns", t.object_, py::none()));
    f.append(t.with_default("processed_weights", t.object_, py::none()));
    f.append(t.with_default("mi_score", t.optional[t.float_], py::none()));
    f.append(t.with_default("mi_passed", t.optional[t.bool_], py::none()));
    f.append(t.with_default("submitted", t.bool_, py::bool_(false)));
    f.append(t.with_default("structural_failed", t.bool_, py::bool_(false)));
    return t.make("BacktestResult", "Result from expression evaluation.", f);
}

void register_record_types(py::object search_status, py::object backtest_result) {
    g_search_status = search_status.release().ptr();
    g_backtest_result = backtest_result.release().ptr();
}

py::object search_status_type() { return py::reinterpret_borrow<py::object>(g_search_status); }
py::object backtest_result_type() { return py::reinterpret_borrow<py::object>(g_backtest_result); }

py::object new_search_status(const py::dict& fields) { return search_status_type()(**fields); }

py::object stopped_search_status() {
    py::dict fields;
    fields["running"] = false;
    return new_search_status(fields);
}

py::object new_backtest_result(const py::dict& fields) { return backtest_result_type()(**fields); }

}  // namespace quillmarsh::st
