// Names of the search engine: search(), status(), the handle class, the worker hooks, the sandbox and the
// management operations.
#include "common/py_helpers.hpp"
#include "engine/search_entry.hpp"
#include "engine/search_handle.hpp"
#include "engine/template_sandbox.hpp"
#include "host/bindings.hpp"
#include "submission/submission_store.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

using Handle = SearchHandle;

// A pybind11 instance is freed without its type's finalizer; these put `__del__` back on the road that
// Python objects take: run it when the last reference goes (or when the collector frees a cycle), then
// free the instance unless `__del__` resurrected it.
PyTypeObject* g_handle_type = nullptr;

void handle_finalize(PyObject* self) {
    PyObject *type, *value, *traceback;
    PyErr_Fetch(&type, &value, &traceback);
    PyObject* result = PyObject_CallMethod(self, "__del__", nullptr);
    if (result == nullptr)
        PyErr_WriteUnraisable(self);
    else
        Py_DECREF(result);
    PyErr_Restore(type, value, traceback);
}

void handle_dealloc(PyObject* self) {
    if (PyObject_CallFinalizerFromDealloc(self) < 0) return;  // resurrected by __del__
    g_handle_type->tp_base->tp_dealloc(self);  // pybind11's own, inherited when the type became ready
}

void install_finalizer(PyHeapTypeObject* heap_type) {
    PyTypeObject* type = &heap_type->ht_type;
    g_handle_type = type;
    type->tp_dealloc = handle_dealloc;
    type->tp_finalize = handle_finalize;
}

// A Python-valued field: reading an unset one raises AttributeError, as for a missing attribute.
template <typename Class>
void object_field(Class& cls, const char* name, py::object SearchHandle::*member) {
    std::string field(name);
    cls.def_property(
        name,
        [member, field](const Handle& h) -> py::object {
            const py::object& value = h.*member;
            if (!value) throw py::attribute_error("'_SearchHandleImpl' object has no attribute '" + field + "'");
            return value;
        },
        [member](Handle& h, py::object value) { h.*member = std::move(value); });
}

void bind_handle(py::module_& m) {
    py::class_<Handle> cls(m, "_SearchHandleImpl", py::dynamic_attr(), py::custom_type_setup(install_finalizer),
                           "Concrete SearchHandle returned by search().");
    // The C++ object is made and registered first, so that the search started by `initialize` can hand
    // the Python object's bound methods to its threads.
    cls.def(
        "__init__",
        [](py::detail::value_and_holder& v_h, py::object template_, py::object n_jobs, py::object tracker,
           py::object sync_mgr, py::object bt, py::object obf, py::object era_cfg, py::object auth_mock,
           py::object data_dir) {
            py::detail::initimpl::construct<py::class_<Handle>>(v_h, new Handle(), false);
            // Holder and registration now, not after __init__ returns: the threads that `initialize`
            // starts must find this very Python object behind `this`.
            v_h.type->init_instance(v_h.inst, nullptr);
            v_h.value_ptr<Handle>()->initialize(template_, n_jobs, tracker, sync_mgr, bt, obf, era_cfg, auth_mock,
                                                data_dir);
        },
        py::detail::is_new_style_constructor(), py::arg("template"), py::arg("n_jobs"), py::arg("tracker"),
        py::arg("sync_mgr"), py::arg("bt"), py::arg("obf"), py::arg("era_cfg"), py::arg("auth_mock"),
        py::arg("data_dir") = py::none());

#define QM_OBJECT(name) object_field(cls, #name, &Handle::name)
    QM_OBJECT(_template); QM_OBJECT(_tracker); QM_OBJECT(_sync_mgr); QM_OBJECT(_backtester); QM_OBJECT(_obfuscation);
    QM_OBJECT(_era_config); QM_OBJECT(_auth); QM_OBJECT(_data_dir); QM_OBJECT(_era_data_mod); QM_OBJECT(_errors);
    QM_OBJECT(_fatal_error); QM_OBJECT(_lock); QM_OBJECT(_stop_event); QM_OBJECT(_queue_empty);
    QM_OBJECT(_submission_queue); QM_OBJECT(_submission_wakeup); QM_OBJECT(_retry_queue);
    QM_OBJECT(_pending_submissions); QM_OBJECT(_finished_queue_ids); QM_OBJECT(_pending_receipts_by_queue_id);
    QM_OBJECT(_tracker_write_lock); QM_OBJECT(_submission_owner); QM_OBJECT(_replacement_abort_event);
    QM_OBJECT(_submission_start_lock); QM_OBJECT(_poll_start_lock); QM_OBJECT(_last_poll_time); QM_OBJECT(_era);
    QM_OBJECT(_batch_tier); QM_OBJECT(_vocab); QM_OBJECT(_search_universe_id); QM_OBJECT(_signal_pool_id);
    QM_OBJECT(_metaparameters); QM_OBJECT(_max_depth); QM_OBJECT(_thresholds); QM_OBJECT(_worker_threads);
    QM_OBJECT(_worker_start_event); QM_OBJECT(_supervisor_thread); QM_OBJECT(_sync_thread); QM_OBJECT(_era_thread);
    QM_OBJECT(_submission_thread); QM_OBJECT(_polling_thread);
#undef QM_OBJECT
#define QM_VALUE(name) cls.def_readwrite(#name, &Handle::name)
    QM_VALUE(_n_jobs); QM_VALUE(_running); QM_VALUE(_stopped); QM_VALUE(_era_failures); QM_VALUE(_sync_failures);
    QM_VALUE(_start_time); QM_VALUE(_total_evaluated); QM_VALUE(_total_found); QM_VALUE(_crash_count);
    QM_VALUE(_tracker_uses_persistent_store); QM_VALUE(_submission_claim_columns_ready);
    QM_VALUE(_retry_claim_columns_ready); QM_VALUE(_submission_backoff_seconds); QM_VALUE(_submission_backoff_until);
    QM_VALUE(_polling_backoff_seconds); QM_VALUE(_polling_backoff_until); QM_VALUE(_submission_failures);
    QM_VALUE(_polling_failures); QM_VALUE(_submission_degraded); QM_VALUE(_polling_degraded);
    QM_VALUE(_discovery_rate_declining_nudge_active); QM_VALUE(_submission_queued); QM_VALUE(_submission_pending);
    QM_VALUE(_submission_accepted); QM_VALUE(_submission_rejected); QM_VALUE(_submission_retrying);
    QM_VALUE(_submission_discarded); QM_VALUE(_submission_backoff); QM_VALUE(_era_transition_triggered);
    QM_VALUE(_sync_progress); QM_VALUE(_t_batch); QM_VALUE(_worker_start_count);
#undef QM_VALUE

    // State and ledger.
    cls.def("_do_per_era_init", &Handle::do_per_era_init);
    cls.def("_set_fatal_error", &Handle::set_fatal_error, py::arg("error_code"), py::arg("recovery_advice"),
            py::arg("message"));
    cls.def("_append_error", &Handle::append_error, py::arg("message"));
    cls.def("_record_background_failure", &Handle::record_background_failure, py::arg("component"),
            py::arg("operation"), py::arg("exc"), py::arg("backoff") = true);
    cls.def("_reset_background_failures", &Handle::reset_background_failures, py::arg("component"));
    cls.def("status", &Handle::status,
            "The state of this search now.\n\n"
            "Returns:\n"
            "    SearchStatus: a snapshot: running flag, evaluations (counting those stored by earlier runs),\n"
            "    rate, memory, era, background errors, and the submission counts (queued, pending,\n"
            "    accepted, rejected, retrying, discarded).\n\n"
            "Raises:\n"
            "    SearchError: the search ended in a fatal error; its error_code and recovery_advice say what\n"
            "        to do, and its status holds the counts at that moment. Raised anew on every call.");

    // Threads.
    cls.def("_start_all_threads", &Handle::start_all_threads);
    cls.def("_worker_loop", &Handle::worker_loop, py::arg("worker_id"));
    cls.def("_worker_loop_inner", &Handle::worker_loop_inner, py::arg("worker_id"));
    cls.def_static("_interruptible_wait", &Handle::interruptible_wait, py::arg("stop_event"), py::arg("timeout"));
    cls.def("_build_era_thread", &Handle::build_era_thread);
    cls.def("_era_loop", &Handle::era_loop);
    cls.def("_on_era_change", &Handle::on_era_change, py::arg("event_type"), py::arg("era_id"));
    cls.def("_supervisor_loop", &Handle::supervisor_loop);
    cls.def("_supervisor_loop_inner", &Handle::supervisor_loop_inner);

    // Stop and replacement.
    cls.def("stop", &Handle::stop, py::arg("join_timeout") = 2.0,
            "Stop the search in order: finish the receipts in hand, stop and join the threads, release the\n"
            "data sync. Queued submissions stay in the store for a later search. A second call does nothing.\n\n"
            "Args:\n"
            "    join_timeout: seconds to wait for each background thread (workers get 5.0 each, to\n"
            "        finish the evaluation in hand).\n\n"
            "Returns:\n"
            "    None.\n\n"
            "Raises:\n"
            "    Nothing of its own: failures while releasing are logged.");
    cls.def("_abort_for_replacement", &Handle::abort_for_replacement);
    cls.def("__del__", [](py::handle self) {
        if (!py::isinstance<Handle>(self)) return;
        Handle* h = nullptr;
        try {
            h = &self.cast<Handle&>();
        } catch (const py::cast_error&) {
            return;  // never constructed: nothing to signal or release
        }
        h->del();
    });
    cls.def("_ensure_replacement_abort_primitives", &Handle::ensure_replacement_abort_primitives);
    cls.def("_replacement_abort_event_handle", &Handle::replacement_abort_event_handle);
    cls.def("_submission_start_guard", &Handle::submission_start_guard);
    cls.def("_poll_start_guard", &Handle::poll_start_guard);
    cls.def("_replacement_abort_requested", &Handle::replacement_abort_requested);
    cls.def("_drop_replacement_aborted_payload", &Handle::drop_replacement_aborted_payload, py::arg("payload"),
            py::arg("journal_key") = py::none());

    // The operations of the submission pipeline; its two threads are bound by bind_submission_loops.
    bind_submission_handle(cls);

    m.attr("SearchHandle") = cls;
}

}  // namespace

void bind_engine(py::module_& m) {
    init_template_sandbox(m);
    bind_handle(m);

    m.def("_spawn_worker", &spawn_worker, py::arg("handle"), py::arg("worker_id"));
    m.def("_restart_worker", &restart_worker, py::arg("handle"), py::arg("count"));

    m.def("search", &search, py::arg("template"), py::arg("n_jobs") = 1,
          "Start a search: run `template` on `n_jobs` worker threads and return its SearchHandle.\n\n"
          "Needs a login (register() or login(private_key)) and a configured data directory. A search\n"
          "still running in this process is replaced: it is aborted before this one starts. Call\n"
          "stop() on the handle before the program exits.\n\n"
          "Args:\n"
          "    template: a callable taking a SearchContext and yielding expression graphs (usually a\n"
          "        generator); each is judged by ctx.evaluate. random_weighted is the built-in one.\n"
          "    n_jobs: worker threads, at least 1; more than the machine's cores is cut to that count.\n\n"
          "Returns:\n"
          "    SearchHandle: the running search; handle.status() reports on it, handle.stop() ends it.\n\n"
          "Raises:\n"
          "    TypeError: `template` is not callable.\n"
          "    ValueError: `n_jobs` is below 1.\n"
          "    SearchError: the search cannot start; error_code is one of AUTH_ERROR,\n"
          "        RUNTIME_BOOTSTRAP_FAILED, OUT_OF_MEMORY, DISK_FULL, DATA_DIR_REQUIRED,\n"
          "        VALID_UNIVERSE_UNAVAILABLE, SEARCH_TRACKER_UNAVAILABLE, ERA_CONFIG_UNAVAILABLE,\n"
          "        VOCABULARY_UNAVAILABLE, BACKTESTER_UNAVAILABLE, and recovery_advice tells what to do.\n"
          "    SyncError: the data sync before the start failed.");
    m.def("status", &module_status,
          "The status of the active search.\n\n"
          "Returns:\n"
          "    SearchStatus: the status of the search started last in this process (as handle.status()).\n\n"
          "Raises:\n"
          "    SearchError: NO_ACTIVE_SEARCH when no search runs, or the fatal error of the active search.");
    m.def("delete_evaluations", &delete_evaluations, py::arg("eval_type") = py::none(), py::arg("keep_last") = 50000,
          "Delete all but the newest `keep_last` evaluations; not while a search runs.\n\n"
          "Evaluations that a queued or retrying submission still refers to are kept.\n\n"
          "Args:\n"
          "    eval_type: \"signal\" or \"strategy\" to thin only that table; None for both.\n"
          "    keep_last: how many of the newest evaluations to keep (a non-negative integer).\n\n"
          "Returns:\n"
          "    dict: the deleted rows per type and in total (\"deleted\").\n\n"
          "Raises:\n"
          "    RuntimeError: a search is running; stop it first.\n"
          "    OSError: no data directory is configured.\n"
          "    ValueError: a bad `eval_type` or `keep_last`.");
    m.def("delete_failed_evaluations", &delete_failed_evaluations, py::arg("eval_type") = py::none(),
          "Delete the evaluations that failed; not while a search runs.\n\n"
          "Args:\n"
          "    eval_type: \"signal\" or \"strategy\" to thin only that table; None for both.\n\n"
          "Returns:\n"
          "    dict: the deleted rows per type and in total (\"deleted\").\n\n"
          "Raises:\n"
          "    RuntimeError: a search is running; stop it first.\n"
          "    OSError: no data directory is configured.\n"
          "    ValueError: a bad `eval_type`.");
    m.def("get_db_info", &get_db_info,
          "Describe the local tracking database.\n\n"
          "Allowed while a search runs.\n\n"
          "Returns:\n"
          "    dict: the store's path, size in bytes, journal mode, row counts per table, passed and failed\n"
          "    evaluations, pending submissions and whether a search is active.\n\n"
          "Raises:\n"
          "    OSError: no data directory is configured.");
    m.def("inject_heartbeat", &inject_heartbeat, "Inject heartbeat during search startup.");
}

}  // namespace quillmarsh::st
