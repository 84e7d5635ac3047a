#include "engine/search_entry.hpp"

#include "common/host_runtime.hpp"
#include "common/py_helpers.hpp"
#include "common/search_error.hpp"
#include "common/search_status.hpp"
#include "engine/search_handle.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

constexpr int SYNC_ATTEMPTS = 11;

void set_search_active_flag(bool value) {
    PyLockHold hold(module_attr("_search_active_lock"));
    module().attr("_search_active") = value;
}

py::object new_sync_error(const char* message) { return import_from("quillmarsh.sync", "SyncError")(message); }

// Earlier handles of this process are stopped hard; one that resists keeps its place and gets its stop
// event set.
void replace_running_searches() {
    py::object active_handles = module_attr("_active_handles");
    for (auto item : new_list(active_handles)) {
        py::object h = py::reinterpret_borrow<py::object>(item);
        if (truthy(attr_or(h, "_stopped", py::bool_(false)))) {
            active_handles.attr("discard")(h);
            continue;
        }
        try {
            py::object abort = attr_or(h, "_abort_for_replacement");
            if (is_callable(abort))
                abort();
            else
                h.attr("stop")(py::arg("join_timeout") = 2.0);
            active_handles.attr("discard")(h);
        } catch (py::error_already_set& e) {
            if (!is_general_exception(e)) throw;
            log_warning("Failed to stop previous search handle: %s", e.value());
            try {
                h.attr("_stop_event").attr("set")();
            } catch (py::error_already_set& e2) {
                if (!is_general_exception(e2)) throw;
                log_warning("Failed to signal previous search handle: %s", e2.value());
            }
        }
    }
}

// The data sync before start-up: the progress value, or None without a sync manager. Every failure
// reaches the caller as SyncError.
py::object sync_before_start(py::object sync_mgr) {
    if (sync_mgr.is_none()) return py::none();
    py::object sync_error_type = import_from("quillmarsh.sync", "SyncError");
    py::object progress = py::none();
    try {
        if (!truthy(sync_mgr.attr("needs_sync")())) return py::float_(1.0);
        for (int attempt = 1; attempt <= SYNC_ATTEMPTS; ++attempt) {
            try {
                sync_mgr.attr("sync")();
                return py::float_(1.0);
            } catch (py::error_already_set& e) {
                if (!e.matches(PyExc_ConnectionError)) throw;
                progress = py::float_(attempt / static_cast<double>(SYNC_ATTEMPTS));
            }
        }
        raise_instance(new_sync_error("Data sync failed after multiple retries. Check network and try again."));
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e) || e.matches(sync_error_type)) throw;
        raise_from(new_sync_error("Data sync failed before search startup. Check network and try again."),
                   e.value());
    }
}

// The vocabulary as JSON text, or None: from the runtime when it holds a map, else from the data directory.
py::object vocabulary_json(py::object runtime, py::object data_dir, py::object valid_universe_id) {
    py::object vocabulary_raw = attr_or(runtime, "vocabulary_raw");
    py::object loaded = is_dict(vocabulary_raw) ? vocabulary_raw : py::object(py::none());
    try {
        py::object obfuscation = import_module("quillmarsh.obfuscation");
        if (loaded.is_none()) {
            py::object result = obfuscation.attr("load_vocabulary")(data_dir, valid_universe_id);
            if (is_dict(result))
                loaded = result;
            else
                log_warning("load_vocabulary returned non-dict payload: %s", py::type::of(result).attr("__name__"));
        }
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_warning("Failed to load vocabulary via load_vocabulary: %s", e.value());
    }
    if (loaded.is_none()) return py::none();
    return import_module("json").attr("dumps")(loaded);
}

}  // namespace

py::object search(py::object template_, py::object n_jobs) {
    py::module_ st_mod = module();

    // 1. Authentication, with one attempt to bootstrap the runtime from cached credentials.
    bool authed = is_authed(st_mod);
    py::object bootstrap_error = py::none();
    if (!authed) {
        bootstrap_error = bootstrap_runtime_from_cached_auth(st_mod);
        authed = is_authed(st_mod);
    }
    if (!authed) {
        if (!bootstrap_error.is_none())
            raise_search_error(ErrorCode::RuntimeBootstrapFailed, py::object(), str(bootstrap_error));
        raise_search_error(ErrorCode::AuthError);
    }

    // 2. The machine before the arguments: a bad argument on a starved machine reports the machine.
    module_attr("_check_memory")();
    module_attr("_check_disk")();

    // 3. Arguments.
    if (!is_callable(template_)) {
        PyErr_SetString(PyExc_TypeError, "Template must be callable accepting SearchContext");
        throw py::error_already_set();
    }
    if (n_jobs < py::int_(1)) throw py::value_error("n_jobs must be >= 1");

    // 4-5. Data directory and runtime.
    py::object data_dir = agent_onboarding_data_dir(py::none());
    if (data_dir.is_none()) raise_search_error(ErrorCode::DataDirRequired);
    py::object runtime = module_attr_or_none("_library_runtime");

    // 6. Earlier searches give way before the sync, so a slow sync runs with no search active.
    replace_running_searches();

    // 7. Core limit.
    py::object cpu_count = import_module("multiprocessing").attr("cpu_count")();
    if (n_jobs > cpu_count) {
        log_warning("n_jobs=%s exceeds available cores (%s). Using n_jobs=%s.", n_jobs, cpu_count, cpu_count);
        n_jobs = cpu_count;
    }

    // 8. Heartbeat hook.
    try {
        module_attr("inject_heartbeat")();
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_warning("Heartbeat injection failed: %s", e.value());
    }

    // 9. Data sync.
    py::object sync_mgr = runtime.is_none() ? py::object(py::none()) : attr_or(runtime, "sync_manager");
    py::object sync_progress = sync_before_start(sync_mgr);

    // 10-11. Path and universe.
    data_dir = import_module("os.path").attr("expanduser")(data_dir);
    py::object valid_universe_id = runtime.is_none() ? py::object(py::none()) : attr_or(runtime, "valid_universe_id");
    if (!truthy(valid_universe_id)) raise_search_error(ErrorCode::ValidUniverseUnavailable);

    // 12. Vocabulary; its absence is judged with the obfuscation manager.
    py::object vocab_data = vocabulary_json(runtime, data_dir, valid_universe_id);

    // 13. Tracker.
    py::object tracker = attr_or(runtime, "search_tracker");
    if (tracker.is_none()) raise_search_error(ErrorCode::SearchTrackerUnavailable);

    // 14. Activity flags; from here every failure clears the module's flag again.
    try {
        tracker.attr("set_search_active")(true);
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_warning("Failed to set search active: %s", e.value());
    }
    set_search_active_flag(true);

    // 15. Era configuration.
    py::object era_cfg = attr_or(runtime, "search_era_config");
    if (era_cfg.is_none()) {
        set_search_active_flag(false);
        try {
            tracker.attr("set_search_active")(false);
        } catch (py::error_already_set& e) {
            if (!is_general_exception(e)) throw;
            log_warning("Failed to clear search active after missing era config: %s", e.value());
        }
        raise_search_error(ErrorCode::EraConfigUnavailable);
    }

    // 16. Obfuscation manager.
    py::object obf = py::none();
    py::object obfuscation_manager = module_attr_or_none("ObfuscationManager");
    if (!obfuscation_manager.is_none()) {
        try {
            obf = obfuscation_manager(vocab_data, era_cfg.attr("era_id"), valid_universe_id);
        } catch (py::error_already_set& e) {
            if (!is_general_exception(e)) throw;
            log_warning("Failed to instantiate ObfuscationManager: %s", e.value());
        }
    }
    if (obf.is_none()) {
        set_search_active_flag(false);
        raise_search_error(ErrorCode::VocabularyUnavailable);
    }

    // 17-18. Backtester and auth object.
    py::object bt = attr_or(runtime, "evaluator");
    if (bt.is_none()) {
        set_search_active_flag(false);
        raise_search_error(ErrorCode::BacktesterUnavailable);
    }
    py::object auth_obj = attr_or(runtime, "auth_proxy");

    // 19. The handle; its constructor starts the threads.
    py::object handle = module_attr("_SearchHandleImpl")(
        py::arg("template") = template_, py::arg("n_jobs") = n_jobs, py::arg("tracker") = tracker,
        py::arg("sync_mgr") = sync_mgr, py::arg("bt") = bt, py::arg("obf") = obf, py::arg("era_cfg") = era_cfg,
        py::arg("auth_mock") = auth_obj, py::arg("data_dir") = data_dir);

    // 20-22. Progress, publication.
    if (!sync_progress.is_none()) handle.attr("_sync_progress") = sync_progress;
    {
        PyLockHold hold(module_attr("_search_active_lock"));
        st_mod.attr("_active_search_handle") = handle;
    }
    module_attr("_active_handles").attr("add")(handle);
    return handle;
}

py::object module_status() {
    py::object handle;
    {
        PyLockHold hold(module_attr("_search_active_lock"));
        handle = module_attr("_active_search_handle");
    }
    if (handle.is_none()) {
        const ErrorWords& words = error_words(ErrorCode::NoActiveSearch);
        py::dict fields;
        fields["running"] = false;
        fields["error_code"] = std::string(words.code);
        fields["recovery_advice"] = std::string(words.advice);
        raise_search_error(ErrorCode::NoActiveSearch, new_search_status(fields));
    }
    return handle.attr("status")();
}

py::object delete_evaluations(py::object eval_type, py::object keep_last) {
    module_attr("_raise_if_management_blocked")();
    return module_attr("_call_management_tracker")("delete_evaluations", py::arg("eval_type") = eval_type,
                                                   py::arg("keep_last") = keep_last);
}

py::object delete_failed_evaluations(py::object eval_type) {
    module_attr("_raise_if_management_blocked")();
    return module_attr("_call_management_tracker")("delete_failed_evaluations", py::arg("eval_type") = eval_type);
}

py::object get_db_info() { return module_attr("_call_management_tracker")("get_db_info"); }

void inject_heartbeat() {}

}  // namespace quillmarsh::st
