// _SearchHandleImpl (also bound as SearchHandle): the one object that holds a running search.
//
// It owns the collaborators handed over by search(), the counters, the in-memory submission queue, the
// locks and events, the failure ledger and the threads. Every field is exposed to Python under its own
// name: collaborators, locks, events, queues and containers are Python objects; flags, counters and
// back-off timing are plain C++ values. All of them are touched only with the GIL held, and the counters
// and the ledger only under `_lock` (a Python lock), so the GIL and that lock are the only serialisation.
//
// Threads are Python threads whose targets are bound methods of this object; a loop holds the GIL while it
// works and gives it up only while it sleeps (interruptible_wait) or blocks inside a Python call.
#pragma once

#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>

namespace quillmarsh::st {

namespace py = pybind11;

// Holds a Python lock (threading.Lock/RLock) for a scope; released whatever way the scope ends.
class PyLockHold {
public:
    explicit PyLockHold(py::object lock) : lock_(std::move(lock)) { lock_.attr("acquire")(); }
    ~PyLockHold() {
        // Without the GIL this is a daemon thread being unwound at interpreter exit: touch nothing.
        if (PyGILState_Check() == 0) {
            lock_.release();
            return;
        }
        try {
            lock_.attr("release")();
        } catch (py::error_already_set&) {
            // Releasing a lock this scope holds does not fail.
        }
    }
    PyLockHold(const PyLockHold&) = delete;
    PyLockHold& operator=(const PyLockHold&) = delete;

private:
    py::object lock_;
};

// True when `err` is an instance of Exception (the general exception class a guard catches).
inline bool is_general_exception(const py::error_already_set& err) { return err.matches(PyExc_Exception); }

class SearchHandle {
public:
    SearchHandle() = default;

    // The constructor proper; runs once the Python object exists, so threads can target its methods.
    void initialize(py::object template_, py::object n_jobs, py::object tracker, py::object sync_mgr, py::object bt,
                    py::object obf, py::object era_cfg, py::object auth_mock, py::object data_dir);
    // The Python object of this handle.
    py::object self() const;

    // ---- state and ledger ----
    void do_per_era_init();
    void set_fatal_error(py::object error_code, py::object recovery_advice, py::object message);
    void append_error(py::object message);
    void record_background_failure(py::object component, py::object operation, py::object exc, bool backoff);
    void reset_background_failures(py::object component);
    py::object status();

    // ---- threads ----
    void start_all_threads();
    void worker_loop(py::object worker_id);
    void worker_loop_inner(py::object worker_id);
    static bool interruptible_wait(py::object stop_event, double timeout);

    // ---- supervision and eras ----
    py::object build_era_thread();
    void era_loop();
    void on_era_change(py::object event_type, py::object era_id);
    void supervisor_loop();
    void supervisor_loop_inner();

    // ---- stop and replacement ----
    void stop(py::object join_timeout);
    void abort_for_replacement();
    void del();
    void ensure_replacement_abort_primitives();
    py::object replacement_abort_event_handle();
    py::object submission_start_guard();
    py::object poll_start_guard();
    bool replacement_abort_requested();
    void drop_replacement_aborted_payload(py::object payload, py::object journal_key);

    // ---- queue claims and leases (submission/queue_claims.cpp) ----
    bool ensure_submission_claim_columns();
    bool ensure_retry_claim_columns();
    py::set persistent_table_columns(const std::string& table_name);
    // None: nothing to be had now; {}: a row was consumed without a payload; else the claimed payload.
    py::object peek_submission_payload();
    py::object peek_retry_payload();
    // The next payload from whichever source applies, or None.
    py::object dequeue_submission_payload();
    py::object dequeue_retry_payload();
    py::object payload_from_tracker_item(py::object tracker_item);
    // (condition text, parameter list) that pins a claimed row: same id, identity, content and time.
    py::tuple source_sql_predicates(py::object payload, py::object id_name, py::object source_id,
                                    bool require_owner = false);
    bool delete_submission_queue_item(py::object queue_id);
    bool delete_submission_retry_item(py::object retry_id);
    bool delete_submission_queue_payload(py::object payload);
    bool delete_submission_retry_payload(py::object payload);
    bool delete_claimed_submission_source(py::object payload);
    bool has_in_memory_submission_work();

    // ---- the retry store (submission/retry_store.cpp) ----
    void enqueue_retry_payload(py::object payload, py::object rejection_reason, py::object retry_after);
    py::object move_claimed_queue_to_retry(py::object payload, py::object payload_json, py::object rejection_reason,
                                           py::object retry_after);
    void update_claimed_retry_payload(py::object payload, py::object payload_json, py::object rejection_reason,
                                      py::object retry_count, py::object retry_after);
    void defer_claimed_retry_payload(py::object payload, py::object retry_after, py::object rejection_reason);
    void defer_claimed_queue_payload(py::object payload);
    py::object retry_exhausted_submission_id(py::object payload);
    bool finalize_retry_exhausted_payload(py::object payload, py::object rejection_reason);

    // ---- the receipt journal (submission/receipt_journal.cpp) ----
    py::object receipt_journal_path();
    py::object receipt_journal_entry(py::object payload, py::object receipt);
    py::object receipt_journal_key(py::object entry);
    py::object receipt_journal_key_for_payload(py::object payload, py::object submission_id);
    py::object receipt_journal_file_path(py::object key);
    py::object append_receipt_journal(py::object payload, py::object receipt, bool required = false);
    py::object append_receipt_journal_until_durable(py::object payload, py::object receipt);
    py::list read_receipt_journal();
    void rewrite_receipt_journal_without(py::object completed_key);
    bool submission_status_exists(py::object submission_id);
    // After a failed record: true when the store holds the receipt all the same, because another search on
    // this store replayed its journal entry first. A store error counts as false.
    bool receipt_recorded_meanwhile(py::object submission_id);
    bool journal_source_still_matches(py::object payload);
    bool replay_receipt_journal();

    // ---- receipt finalisation and counts (submission/receipt_finalization.cpp) ----
    void record_submission_and_delete_queue(py::object payload, py::object receipt);
    void finalize_persisted_receipt(py::object payload, py::object submission_id);
    bool flush_pending_receipt_finalizations();
    void update_submission_counts();
    void maybe_fire_discovery_rate_declining_nudge();
    void handle_submission_success(py::object payload, py::object receipt);

    // ---- fields, under their Python names ----
    py::object _template, _tracker, _sync_mgr, _backtester, _obfuscation, _era_config, _auth, _data_dir;
    long long _n_jobs = 0;
    bool _running = false;
    bool _stopped = false;
    long long _era_failures = 0;
    long long _sync_failures = 0;
    py::object _era_data_mod;
    double _start_time = 0.0;
    long long _total_evaluated = 0;
    long long _total_found = 0;
    long long _crash_count = 0;
    py::object _errors, _fatal_error, _lock, _stop_event, _queue_empty, _submission_queue, _submission_wakeup;
    py::object _retry_queue, _pending_submissions, _finished_queue_ids, _pending_receipts_by_queue_id;
    py::object _tracker_write_lock;
    bool _tracker_uses_persistent_store = false;
    py::object _submission_owner, _replacement_abort_event, _submission_start_lock, _poll_start_lock;
    bool _submission_claim_columns_ready = false;
    bool _retry_claim_columns_ready = false;
    double _submission_backoff_seconds = 5.0;
    double _submission_backoff_until = 0.0;
    double _polling_backoff_seconds = 5.0;
    double _polling_backoff_until = 0.0;
    long long _submission_failures = 0;
    long long _polling_failures = 0;
    bool _submission_degraded = false;
    bool _polling_degraded = false;
    bool _discovery_rate_declining_nudge_active = false;
    long long _submission_queued = 0, _submission_pending = 0, _submission_accepted = 0;
    long long _submission_rejected = 0, _submission_retrying = 0, _submission_discarded = 0;
    bool _submission_backoff = false;
    py::object _last_poll_time;
    bool _era_transition_triggered = false;
    py::object _era;
    double _sync_progress = 0.0;
    py::object _batch_tier;
    long long _t_batch = 1000;
    py::object _vocab, _search_universe_id, _signal_pool_id, _metaparameters, _max_depth, _thresholds;
    py::object _worker_threads, _worker_start_event;
    long long _worker_start_count = 0;
    py::object _supervisor_thread, _sync_thread, _era_thread, _submission_thread, _polling_thread;
};

// Module functions the supervisor reaches through the module object, so a host can replace them.
void spawn_worker(py::object handle, long long worker_id);
void restart_worker(py::object handle, long long count);

// Sleeps with the GIL released. A daemon thread that would take the GIL back while the interpreter
// finalises stays asleep instead, until the process ends: taking it would unwind this thread's C++ frames
// with no GIL to release their Python references.
void sleep_without_gil(double seconds);

// A new daemon threading.Thread(target=target, name=name, args=args).
py::object new_daemon_thread(py::object target, const std::string& name, py::tuple args = py::tuple());
// time.monotonic() and time.time() of the host.
double monotonic_now();
double wall_now();

}  // namespace quillmarsh::st
