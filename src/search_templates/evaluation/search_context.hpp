// SearchContext: what a template receives. Through it a template reads the vocabulary, the universe, the
// metaparameters, the depth limit and the analytics of earlier evaluations, and submits expressions with
// `evaluate`. It also holds what `evaluate` needs: the tracker, the backtester, the era configuration, the
// thresholds and the hand-over points of the submission pipeline (in-memory queue, wakeup event, stop and
// replacement-abort events, the tracker's write lock).
//
// Every field is a Python object kept under its documented name, so the handle, the worker and tests can
// read and set them as attributes; the public properties are read-only.
#pragma once

#include <pybind11/pybind11.h>

namespace quillmarsh::st {

namespace py = pybind11;

class SearchContext {
public:
    SearchContext(py::object vocab, py::object universe, py::object metaparams, py::object depth, py::object tracker,
                  py::object sync_mgr, py::object bt, py::object thresholds, py::object era_config,
                  py::object fatal_callback, py::object submission_queue, py::object tracker_write_lock,
                  py::object submission_wakeup, py::object stop_event, py::object submission_owner,
                  py::object replacement_abort_event);

    // The life of one expression: checked, timed, backtested, judged, recorded once, and for a pass stored
    // in the queue table, handed to the in-memory queue and the submission thread woken.
    py::object evaluate(py::object expr_graph);
    py::object refresh_analytics();
    bool submission_cancelled() const;
    // The one road to the tracker for evaluations; an OSError of the store turns fatal through the callback.
    py::object safe_record(py::object graph, bool passed_thresholds, py::object rejection_reason = py::none(),
                           py::object stats = py::none(), py::object per_column_stats = py::none(),
                           py::object expression_elapsed_seconds = py::none(),
                           py::object tracking_metric_kwargs = py::none());
    py::object derive_rejection_reason(py::object stats) const;

    py::object vocabulary_copy() const;

    py::object _vocabulary, _universe_id, _metaparameters, _max_depth, _tracker, _sync_mgr, _backtester;
    py::object _thresholds, _era_config, _fatal_callback, _submission_queue, _tracker_write_lock;
    py::object _submission_wakeup, _stop_event, _submission_owner, _replacement_abort_event;
    py::object _analytics_engine, _analytics, _signal_pool_id, _metaparams_for_db, _era_id;
};

// The record that stands for analytics when no real statistics exist (total_evaluations, rows).
py::object create_analytics_snapshot_type();
void register_analytics_snapshot_type(py::object type);

}  // namespace quillmarsh::st
