// The handle's construction, the era's key material, the failure ledger and the status snapshot.
#include "engine/search_handle.hpp"

#include "common/constants.hpp"
#include "common/host_runtime.hpp"
#include "common/py_helpers.hpp"
#include "common/search_error.hpp"
#include "common/search_status.hpp"

#include <algorithm>
#include <string>

namespace quillmarsh::st {

namespace {

// A function of a standard module, looked up once and kept for the life of the process.
py::object stdlib_fn(const char* module_name, const char* name) {
    return import_module(module_name).attr(name);
}

bool text_contains(const std::string& text, const char* needle) { return text.find(needle) != std::string::npos; }

[[noreturn]] void raise_value_error(const std::string& message) {
    PyErr_SetString(PyExc_ValueError, message.c_str());
    throw py::error_already_set();
}

// The module's depth cap of generated expressions; the built-in template binds it, 6 until it does.
py::object max_depth_cap() {
    py::object cap = module_attr_or_none("_RANDOM_WEIGHTED_MAX_DEPTH");
    return cap.is_none() ? py::object(py::int_(6)) : cap;
}

}  // namespace

double monotonic_now() {
    static PyObject* fn = stdlib_fn("time", "monotonic").release().ptr();
    return py::reinterpret_borrow<py::object>(fn)().cast<double>();
}

double wall_now() {
    static PyObject* fn = stdlib_fn("time", "time").release().ptr();
    return py::reinterpret_borrow<py::object>(fn)().cast<double>();
}

py::object new_daemon_thread(py::object target, const std::string& name, py::tuple args) {
    static PyObject* thread_type = stdlib_fn("threading", "Thread").release().ptr();
    return py::reinterpret_borrow<py::object>(thread_type)(py::arg("target") = target, py::arg("name") = name,
                                                           py::arg("args") = args, py::arg("daemon") = true);
}

py::object SearchHandle::self() const {
    return py::cast(this, py::return_value_policy::reference);
}

void SearchHandle::initialize(py::object template_, py::object n_jobs, py::object tracker, py::object sync_mgr,
                              py::object bt, py::object obf, py::object era_cfg, py::object auth_mock,
                              py::object data_dir) {
    if (era_cfg.is_none()) raise_new(sdk_runtime_not_ready_error_type(), py::tuple());
    py::module_ threading = py::module_::import("threading");
    py::module_ queue = py::module_::import("queue");

    _template = std::move(template_);
    _n_jobs = n_jobs.cast<long long>();
    _tracker = std::move(tracker);
    _sync_mgr = std::move(sync_mgr);
    _backtester = std::move(bt);
    _obfuscation = std::move(obf);
    _era_config = std::move(era_cfg);
    _auth = std::move(auth_mock);
    _data_dir = std::move(data_dir);
    _running = true;
    _stopped = false;
    _era_failures = 0;
    _sync_failures = 0;
    _era_data_mod = module_attr_or_none("era_data");
    _start_time = monotonic_now();
    _total_evaluated = 0;
    _total_found = 0;
    _crash_count = 0;
    _errors = py::list();
    _fatal_error = py::none();
    _lock = threading.attr("Lock")();
    _stop_event = threading.attr("Event")();
    _queue_empty = queue.attr("Empty");
    _submission_queue = queue.attr("Queue")();
    _submission_wakeup = threading.attr("Event")();
    _retry_queue = py::list();
    _pending_submissions = py::dict();
    _finished_queue_ids = py::set();
    _pending_receipts_by_queue_id = py::dict();
    _tracker_write_lock = threading.attr("RLock")();
    _tracker_uses_persistent_store = truthy(module_attr("_tracker_uses_persistent_store")(_tracker));
    _submission_owner = py::str(py::module_::import("uuid").attr("uuid4")());
    _replacement_abort_event = threading.attr("Event")();
    _submission_start_lock = threading.attr("Lock")();
    _poll_start_lock = threading.attr("Lock")();
    _submission_claim_columns_ready = false;
    _retry_claim_columns_ready = false;
    _submission_backoff_seconds = 5.0;
    _submission_backoff_until = 0.0;
    _polling_backoff_seconds = 5.0;
    _polling_backoff_until = 0.0;
    _submission_failures = 0;
    _polling_failures = 0;
    _submission_degraded = false;
    _polling_degraded = false;
    _discovery_rate_declining_nudge_active = false;
    _submission_queued = _submission_pending = _submission_accepted = 0;
    _submission_rejected = _submission_retrying = _submission_discarded = 0;
    _submission_backoff = false;
    _last_poll_time = py::float_(wall_now());
    _era_transition_triggered = false;
    _era = py::str(_era_config.attr("era_id"));
    _sync_progress = 0.0;
    _batch_tier = py::str("full");
    _t_batch = 1000;
    _vocab = module_attr("_normalize_template_vocabulary")(_obfuscation.attr("get_vocabulary")());
    py::object configured = attr_or(module_attr_or_none("_library_runtime"), "valid_universe_id");
    _search_universe_id = module_attr("_derive_search_universe_id")(_era_config, configured);
    _signal_pool_id = module_attr("_first_signal_pool_id_from_era_config")(_era_config);
    _metaparameters = module_attr("_resolve_search_metaparameters_from_era_config")(_era_config, _signal_pool_id);
    py::object era_depth = py::int_(_era_config.attr("max_depth"));
    py::object cap = max_depth_cap();
    _max_depth = (era_depth < cap) ? era_depth : cap;
    _thresholds = _era_config.attr("thresholds");

    // The evaluations of earlier runs of this store count towards the total.
    try {
        py::object count_fn = attr_or(_tracker, "get_evaluation_count");
        if (is_callable(count_fn)) {
            py::object count = count_fn();
            if (PyLong_Check(count.ptr())) _total_evaluated = count.cast<long long>();
        }
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_warning("Failed to load persisted evaluation count: %s", e.value());
    }

    do_per_era_init();
    _worker_threads = py::list();
    _worker_start_event = threading.attr("Event")();
    _worker_start_count = 0;
    _supervisor_thread = py::none();
    _sync_thread = py::none();
    _era_thread = py::none();
    _submission_thread = py::none();
    _polling_thread = py::none();
    start_all_threads();
}

void SearchHandle::do_per_era_init() {
    if (!_era_config || _era_config.is_none() || !_auth || _auth.is_none())
        raise_new(sdk_runtime_not_ready_error_type(), py::tuple());

    // An error of the vault is judged by its text: some mean "done already", some end the search.
    auto fatal_if_permanent = [this](const std::string& text) {
        if (text_contains(text, "era mismatch") || text_contains(text, "invalid credentials")) {
            set_fatal_error(py::str("INFRASTRUCTURE_FAILURE"), py::str("register()"),
                            py::str("Background infrastructure failed permanently: " + text));
            return true;
        }
        return false;
    };

    try {
        py::module_ os_path = py::module_::import("os.path");
        py::object base = truthy(_data_dir) ? _data_dir : os_path.attr("expanduser")("~/.quillmarsh");
        py::object shuffle_seed_path = os_path.attr("join")(base, "shuffle_seed.enc");
        if (!truthy(os_path.attr("exists")(shuffle_seed_path)))
            raise_value_error("Shuffle seed file not found: " + str(shuffle_seed_path));

        // Key material: read whole and handed on; never looked into or logged here.
        py::object shuffle_blob;
        {
            py::object file = py::module_::import("io").attr("open")(shuffle_seed_path, "rb");
            try {
                shuffle_blob = file.attr("read")();
            } catch (py::error_already_set&) {
                file.attr("close")();
                throw;
            }
            file.attr("close")();
        }
        size_t blob_len = py::len(shuffle_blob);
        if (blob_len != 60) raise_value_error("Shuffle seed must be 60 bytes, got " + std::to_string(blob_len));

        py::object wallet_secret = _auth.attr("wallet_secret");
        size_t secret_len = py::len(wallet_secret);
        if (secret_len != 32) raise_value_error("wallet_secret must be 32 bytes, got " + std::to_string(secret_len));

        py::object era_id = _era_config.attr("era_id");
        py::dict keys;
        keys["shuffle_blob"] = shuffle_blob;
        keys["wallet_secret"] = wallet_secret;
        keys["era_id"] = era_id;

        py::object init_runtime_vault =
            _backtester.is_none() ? py::object(py::none()) : attr_or(_backtester, "initialize_era_vault");
        try {
            if (is_callable(init_runtime_vault)) {
                init_runtime_vault(**keys);
            } else if (!_era_data_mod.is_none()) {
                _era_data_mod.attr("initialize")(shuffle_blob, wallet_secret, era_id);
            }
        } catch (py::error_already_set& e) {
            if (!is_general_exception(e)) throw;
            std::string text = str(e.value());
            if (!text_contains(text, "vault already initialized") && !fatal_if_permanent(text)) throw;
        }

        if (!_backtester.is_none()) {
            try {
                _backtester.attr("init_reconstruction")(**keys);
            } catch (py::error_already_set& e) {
                if (!is_general_exception(e)) throw;
                log_warning("Backtester init_reconstruction failed: %s", e.value());
            }
        }
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e) || e.matches(search_error_type())) throw;
        // Everything else ends the routine quietly: by design a handle is still built, and evaluation
        // fails later at the backtester.
        std::string text = str(e.value());
        if (!text_contains(text, "vault already initialized")) fatal_if_permanent(text);
    }
}

void SearchHandle::set_fatal_error(py::object error_code, py::object recovery_advice, py::object message) {
    {
        PyLockHold hold(_lock);
        _running = false;
        py::dict fields;
        fields["running"] = false;
        fields["error_code"] = error_code;
        fields["recovery_advice"] = recovery_advice;
        _fatal_error = search_error_type()(error_code, recovery_advice, message, new_search_status(fields));
    }
    try {
        py::dict payload;
        payload["code"] = error_code;
        payload["recovery"] = recovery_advice;
        payload["message"] = message;
        import_from("quillmarsh.callbacks", "emit_event")(py::arg("data_dir") = _data_dir,
                                                           py::arg("event_type") = "failure",
                                                           py::arg("severity") = "fatal", py::arg("payload") = payload);
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_warning("callback dispatch failed during fatal-error: %s", e.value());
    }
}

void SearchHandle::append_error(py::object message) {
    PyLockHold hold(_lock);
    _errors.attr("append")(message);
}

void SearchHandle::record_background_failure(py::object component, py::object operation, py::object exc,
                                             bool backoff) {
    py::str message = py::str("{} {} failed ({}): {}")
                          .format(component, operation, py::type::of(exc).attr("__name__"), exc);
    log_warning("%s", message);
    const bool submission = py_equal(component, py::str("submission"));
    const bool polling = !submission && py_equal(component, py::str("polling"));

    PyLockHold hold(_lock);
    _crash_count += 1;
    _errors.attr("append")(message);
    if (!submission && !polling) return;

    long long& failures = submission ? _submission_failures : _polling_failures;
    double& backoff_seconds = submission ? _submission_backoff_seconds : _polling_backoff_seconds;
    double& backoff_until = submission ? _submission_backoff_until : _polling_backoff_until;
    bool& degraded = submission ? _submission_degraded : _polling_degraded;
    failures += 1;
    if (backoff) {
        double current_backoff = backoff_seconds;
        if (submission) _submission_backoff = true;
        backoff_seconds = std::min(current_backoff * 2.0, 300.0);
        backoff_until = monotonic_now() + current_backoff;
    }
    if (failures >= INFRASTRUCTURE_FAILURE_THRESHOLD && !degraded) {
        _errors.attr("append")(submission ? "submission capability degraded after 10 consecutive failures; search "
                                            "continues without submissions"
                                          : "polling capability degraded after 10 consecutive failures; search "
                                            "continues without polling");
        degraded = true;
    }
}

void SearchHandle::reset_background_failures(py::object component) {
    PyLockHold hold(_lock);
    if (py_equal(component, py::str("submission")))
        _submission_failures = 0;
    else if (py_equal(component, py::str("polling")))
        _polling_failures = 0;
}

py::object SearchHandle::status() {
    self().attr("_maybe_fire_discovery_rate_declining_nudge")();

    PyLockHold hold(_lock);
    if (!_fatal_error.is_none()) {
        py::object code = _fatal_error.attr("error_code");
        py::object advice = _fatal_error.attr("recovery_advice");
        py::dict fields;
        fields["running"] = false;
        fields["n_jobs"] = _n_jobs;
        fields["total_evaluated"] = _total_evaluated;
        fields["error_code"] = code;
        fields["recovery_advice"] = advice;
        fields["errors"] = new_list(_errors);
        fields["crash_count"] = _crash_count;
        raise_instance(search_error_type()(code, advice, _fatal_error.attr("message"), new_search_status(fields)));
    }
    double elapsed = monotonic_now() - _start_time;
    double sph = elapsed > 0.0 ? static_cast<double>(_total_evaluated) / elapsed * 3600.0 : 0.0;
    py::object mem;
    try {
        py::module_ resource = py::module_::import("resource");
        py::object usage = resource.attr("getrusage")(resource.attr("RUSAGE_SELF"));
        mem = py::object(usage.attr("ru_maxrss")) / py::int_(1024);
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_warning("Failed to get memory usage: %s", e.value());
        mem = py::float_(1.0);
    }
    py::dict fields;
    fields["running"] = _running;
    fields["n_jobs"] = _n_jobs;
    fields["total_evaluated"] = _total_evaluated;
    fields["total_found"] = _total_found;
    fields["signals_per_hour"] = sph;
    fields["elapsed_seconds"] = elapsed;
    fields["memory_usage_mb"] = mem;
    fields["batch_tier"] = _batch_tier;
    fields["t_batch"] = _t_batch;
    fields["era"] = _era;
    fields["errors"] = new_list(_errors);
    fields["crash_count"] = _crash_count;
    fields["sync_progress"] = _sync_progress;
    fields["error_code"] = py::none();
    fields["recovery_advice"] = py::none();
    fields["submission_queued"] = _submission_queued;
    fields["submission_pending"] = _submission_pending;
    fields["submission_accepted"] = _submission_accepted;
    fields["submission_rejected"] = _submission_rejected;
    fields["submission_retrying"] = _submission_retrying;
    fields["submission_discarded"] = _submission_discarded;
    fields["submission_backoff"] = _submission_backoff;
    fields["last_poll_time"] = _last_poll_time;
    return new_search_status(fields);
}

}  // namespace quillmarsh::st
