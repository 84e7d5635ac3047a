# Generated from the built module by `make stubs` (pybind11-stubgen, then tools/refine_stubs.py).
"""
Search templates subcomponent -- search orchestration, templates, submission pipeline.
"""
from __future__ import annotations
from _sqlite3 import connect as _original_sqlite_connect
import _weakrefset
import dataclasses
from io import open as _original_open
import logging
from quillmarsh.errors import SdkRuntimeNotReadyError
from quillmarsh.obfuscation import ObfuscationManager
from quillmarsh.search_tracking import BacktestStats as _BacktestStats
from quillmarsh.search_tracking import _ensure_submission_sim_parent
from quillmarsh.search_tracking import _synthetic_submission_sim_id
from quillmarsh.simulate_primitives.metaparameters import canonicalize as _canonicalize_metaparameters
from quillmarsh.simulate_primitives.metaparameters import resolve_metaparameters as _resolve_metaparameters
from quillmarsh.simulate_primitives.metaparameters import resolve_metaparameters_per_pool as _resolve_metaparameters_per_pool
from quillmarsh.submission_status_notify import notify_submission_status
from quillmarsh.sync import SyncManager
import quillmarsh.submit
import typing
__all__: list[str] = ['BacktestResult', 'ERA_POLL_INTERVAL', 'ObfuscationManager', 'POLLING_INTERVAL', 'RowSchemaError', 'SUBMISSION_POLL_INTERVAL', 'SUBMISSION_QUEUE_LEASE_SECONDS', 'SUPERVISOR_HEALTH_CHECK_INTERVAL', 'SYNC_POLL_INTERVAL', 'SdkRuntimeNotReadyError', 'SearchContext', 'SearchError', 'SearchHandle', 'SearchStatus', 'SubmissionProtocolError', 'SyncManager', 'TemplateSandboxViolation', 'VocabSchemaError', 'adaptive_weighted', 'adaptive_weighted_learning', 'analyze_adaptive_weighted', 'analyze_random_weighted', 'delete_evaluations', 'delete_failed_evaluations', 'get_db_info', 'inject_heartbeat', 'logger', 'notify_submission_status', 'poll_status', 'random_weighted', 'search', 'status', 'submit_signal']
class SearchError(Exception):
    """Raised when a fatal error occurs during search."""
    error_code: str
    recovery_advice: str
    message: str
    status: SearchStatus
    def __init__(self, error_code: str, recovery_advice: str, message: str, status: SearchStatus) -> None: ...
class TemplateSandboxViolation(RuntimeError):
    """
    Raised when template code attempts forbidden direct system access.
    """
class SubmissionProtocolError(RuntimeError):
    """
    Raised when a successful submission response violates the client protocol.
    """
class SearchStatus:
    """Current search state snapshot (23 fields)."""
    running: bool
    n_jobs: int
    total_evaluated: int
    total_found: int
    signals_per_hour: float
    elapsed_seconds: float
    memory_usage_mb: float
    batch_tier: str
    t_batch: int
    era: str
    errors: list[str]
    crash_count: int
    sync_progress: float | None
    error_code: str | None
    recovery_advice: str | None
    submission_queued: int
    submission_pending: int
    submission_accepted: int
    submission_rejected: int
    submission_retrying: int
    submission_discarded: int
    submission_backoff: bool
    last_poll_time: float | None
    def __init__(self, running: bool = ..., n_jobs: int = ..., total_evaluated: int = ..., total_found: int = ..., signals_per_hour: float = ..., elapsed_seconds: float = ..., memory_usage_mb: float = ..., batch_tier: str = ..., t_batch: int = ..., era: str = ..., errors: list[str] = ..., crash_count: int = ..., sync_progress: float | None = ..., error_code: str | None = ..., recovery_advice: str | None = ..., submission_queued: int = ..., submission_pending: int = ..., submission_accepted: int = ..., submission_rejected: int = ..., submission_retrying: int = ..., submission_discarded: int = ..., submission_backoff: bool = ..., last_poll_time: float | None = ...) -> None: ...
class BacktestResult:
    """Result from expression evaluation."""
    expression: dict[str, typing.Any]
    passed: bool
    stats: typing.Any
    factor_pnl: typing.Any
    per_column_stats: dict[str, typing.Any] | None
    portfolio_returns: typing.Any
    processed_weights: typing.Any
    mi_score: float | None
    mi_passed: bool | None
    submitted: bool
    structural_failed: bool
    def __init__(self, expression: dict[str, typing.Any] = ..., passed: bool = ..., stats: typing.Any = ..., factor_pnl: typing.Any = ..., per_column_stats: dict[str, typing.Any] | None = ..., portfolio_returns: typing.Any = ..., processed_weights: typing.Any = ..., mi_score: float | None = ..., mi_passed: bool | None = ..., submitted: bool = ..., structural_failed: bool = ...) -> None: ...
class VocabSchemaError(ValueError):
    """
    Raised when a vocabulary entry violates the canonical contract.
    """
    @staticmethod
    def __init__(*args, **kwargs):
        ...
class SearchContext:
    """
    Context passed to template functions.
    
    A template is called with one per worker thread and reads what to build from it;
    ctx.evaluate(graph) judges an expression it built.
    
    Attributes (read-only):
        vocabulary (dict): a copy of the vocabulary: lists "functions" and "features".
        universe_id (str): the universe the expressions are evaluated in.
        metaparameters (dict): the metaparameters of the signal pool.
        max_depth (int): the largest expression depth allowed.
        analytics: the statistics of earlier evaluations, as of construction or the last
            refresh_analytics().
    """
    _analytics: typing.Any
    _analytics_engine: typing.Any
    _backtester: typing.Any
    _era_config: typing.Any
    _era_id: typing.Any
    _fatal_callback: typing.Any
    _max_depth: typing.Any
    _metaparameters: typing.Any
    _metaparams_for_db: typing.Any
    _replacement_abort_event: typing.Any
    _signal_pool_id: typing.Any
    _stop_event: typing.Any
    _submission_owner: typing.Any
    _submission_queue: typing.Any
    _submission_wakeup: typing.Any
    _sync_mgr: typing.Any
    _thresholds: typing.Any
    _tracker: typing.Any
    _tracker_write_lock: typing.Any
    _universe_id: typing.Any
    _vocabulary: typing.Any
    max_depth: int
    metaparameters: dict[str, typing.Any]
    universe_id: str
    vocabulary: dict[str, typing.Any]
    def __init__(self, vocab: typing.Any, universe: typing.Any, metaparams: typing.Any, depth: typing.Any, tracker: typing.Any, sync_mgr: typing.Any, bt: typing.Any, thresholds: typing.Any = None, era_config: typing.Any = None, fatal_callback: typing.Any = None, submission_queue: typing.Any = None, tracker_write_lock: typing.Any = None, submission_wakeup: typing.Any = None, stop_event: typing.Any = None, submission_owner: typing.Any = None, replacement_abort_event: typing.Any = None) -> None:
        """
        A context for one worker. A search builds one per worker thread; build one yourself only to
        drive a template or analyze_random_weighted outside a search.
        
        Args:
            vocab: the vocabulary map (lists "functions" and "features").
            universe: the universe id the expressions are evaluated in.
            metaparams: the metaparameters of the signal pool (a map, may be empty).
            depth: the largest expression depth allowed.
            tracker: the SearchTracker that records evaluations.
            sync_mgr: the SyncManager, or None.
            bt: the backtester (evaluator).
            thresholds: the era's thresholds; None reads them from `era_config`.
            era_config: the era configuration.
            fatal_callback, submission_queue, tracker_write_lock, submission_wakeup, stop_event,
            submission_owner, replacement_abort_event: the search's plumbing; None outside a search.
        
        Raises:
            ValueError: a required threshold is missing or not a number.
        """
    def _derive_rejection_reason(self, stats: typing.Any) -> typing.Any:
        ...
    def _safe_record(self, graph: typing.Any, passed_thresholds: bool, rejection_reason: typing.Any = None, stats: typing.Any = None, per_column_stats: typing.Any = None, expression_elapsed_seconds: typing.Any = None, tracking_metric_kwargs: typing.Any = None) -> typing.Any:
        ...
    def _submission_cancelled(self) -> bool:
        ...
    def evaluate(self, expr_graph: dict[str, typing.Any]) -> BacktestResult | None:
        """
        Judge one expression: check it, backtest it against the era's thresholds, record the outcome
        in the tracking store and, when it passes, queue it durably for submission.
        
        Args:
            expr_graph: an expression graph: a map with "type" and, as the type requires, "node"
                and "children", e.g. {"type": "rotation", "node": "cs_rank", "children": [...]}.
        
        Returns:
            BacktestResult | None: the result of a pass; None for a rejection, whose reason is
            recorded in the store.
        
        Raises:
            ValueError: the era lacks a threshold or max_expression_generation_seconds (nothing is
                recorded). A bad expression is a rejection, not an error.
        """
    def refresh_analytics(self) -> typing.Any:
        """
        Re-read the search statistics of the store, keep them as `analytics` and return them.
        
        Returns:
            SearchStatsResult: the evaluations so far: total_evaluations and the per-name rows.
        
        Raises:
            AttributeError: the context has no analytics engine (a tracker without statistics).
            Exception: an error of the statistics query passes through; `analytics` stays as it was.
        """
    @property
    def analytics(self) -> typing.Any:
        ...
class RowSchemaError(ValueError):
    """
    A stored submission row whose payload lacks what identifies it (eval_id, submission_type, era_id).
    
    Args:
        source_kind: the table of the row ("submission_queue", "submission_retry") or "tracker_item".
        missing: the keys that are missing (default: none).
        row_id: the id of the row, or None.
        message: the text to use instead of the standard one, or None.
    
    Attributes:
        source_kind, missing, row_id: as given.
    """
    @staticmethod
    def __init__(*args, **kwargs):
        ...
class _ReceiptRecord:
    """A receipt rebuilt from a journal entry."""
    submission_id: str
    def __init__(self, submission_id: str = ...) -> None: ...
class _RandomWeightedAnalyticsEntries:
    def __iter__(self) -> typing.Any:
        ...
    def __next__(self) -> tuple[typing.Any, ...]:
        ...
class _RandomWeightedGenerator:
    """
    The iterator of random_weighted(ctx): endless random SIGNAL graphs.
    """
    @staticmethod
    def close(*args, **kwargs):
        """
        close(): finish the generator.
        """
    @staticmethod
    def send(*args, **kwargs):
        """
        send(value): the next graph; the value is not used.
        """
    @staticmethod
    def throw(*args, **kwargs):
        """
        throw(type[, value[, traceback]]): finish and raise.
        """
    def __iter__(self):
        """
        Implement iter(self).
        """
    def __next__(self):
        """
        Implement next(self).
        """
class _AdaptiveWeightedGenerator:
    def __iter__(self) -> typing.Any:
        ...
    def __next__(self) -> typing.Any:
        ...
    def close(self) -> None:
        ...
class _TemplateSandboxContext:
    def __enter__(self) -> None:
        ...
    def __exit__(self, *args) -> bool:
        ...
class _InheritedSandboxTarget:
    def __call__(self, *args, **kwargs) -> typing.Any:
        ...
    @property
    def target(self) -> typing.Any:
        ...
class _SearchHandleImpl:
    """
    Concrete SearchHandle returned by search().
    """
    _auth: typing.Any
    _backtester: typing.Any
    _batch_tier: typing.Any
    _data_dir: typing.Any
    _discovery_rate_declining_nudge_active: bool
    _era: typing.Any
    _era_config: typing.Any
    _era_data_mod: typing.Any
    _era_thread: typing.Any
    _era_transition_triggered: bool
    _errors: typing.Any
    _fatal_error: typing.Any
    _finished_queue_ids: typing.Any
    _last_poll_time: typing.Any
    _lock: typing.Any
    _max_depth: typing.Any
    _metaparameters: typing.Any
    _obfuscation: typing.Any
    _pending_receipts_by_queue_id: typing.Any
    _pending_submissions: typing.Any
    _poll_start_lock: typing.Any
    _polling_degraded: bool
    _polling_thread: typing.Any
    _queue_empty: typing.Any
    _replacement_abort_event: typing.Any
    _retry_claim_columns_ready: bool
    _retry_queue: typing.Any
    _running: bool
    _search_universe_id: typing.Any
    _signal_pool_id: typing.Any
    _stop_event: typing.Any
    _stopped: bool
    _submission_backoff: bool
    _submission_claim_columns_ready: bool
    _submission_degraded: bool
    _submission_owner: typing.Any
    _submission_queue: typing.Any
    _submission_start_lock: typing.Any
    _submission_thread: typing.Any
    _submission_wakeup: typing.Any
    _supervisor_thread: typing.Any
    _sync_mgr: typing.Any
    _sync_thread: typing.Any
    _template: typing.Any
    _thresholds: typing.Any
    _tracker: typing.Any
    _tracker_uses_persistent_store: bool
    _tracker_write_lock: typing.Any
    _vocab: typing.Any
    _worker_start_event: typing.Any
    _worker_threads: typing.Any
    @staticmethod
    def _interruptible_wait(stop_event: typing.Any, timeout: typing.SupportsFloat | typing.SupportsIndex) -> bool:
        ...
    def __del__(self) -> None:
        ...
    def __init__(self, template: typing.Any, n_jobs: typing.Any, tracker: typing.Any, sync_mgr: typing.Any, bt: typing.Any, obf: typing.Any, era_cfg: typing.Any, auth_mock: typing.Any, data_dir: typing.Any = None) -> None:
        ...
    def _abort_for_replacement(self) -> None:
        ...
    def _append_error(self, message: typing.Any) -> None:
        ...
    def _append_receipt_journal(self, payload: typing.Any, receipt: typing.Any, required: bool = False) -> typing.Any:
        ...
    def _append_receipt_journal_until_durable(self, payload: typing.Any, receipt: typing.Any) -> typing.Any:
        ...
    def _apply_polled_status(self, payload: typing.Any, poll_result: typing.Any) -> None:
        ...
    def _build_era_thread(self) -> typing.Any:
        ...
    def _defer_claimed_queue_payload(self, payload: typing.Any) -> None:
        ...
    def _defer_claimed_retry_payload(self, payload: typing.Any, retry_after: typing.Any, rejection_reason: typing.Any) -> None:
        ...
    def _delete_claimed_submission_source(self, payload: typing.Any) -> bool:
        ...
    def _delete_submission_queue_item(self, queue_id: typing.Any) -> bool:
        ...
    def _delete_submission_queue_payload(self, payload: typing.Any) -> bool:
        ...
    def _delete_submission_retry_item(self, retry_id: typing.Any) -> bool:
        ...
    def _delete_submission_retry_payload(self, payload: typing.Any) -> bool:
        ...
    def _dequeue_retry_payload(self) -> typing.Any:
        ...
    def _dequeue_submission_payload(self) -> typing.Any:
        ...
    def _do_per_era_init(self) -> None:
        ...
    def _drop_replacement_aborted_payload(self, payload: typing.Any, journal_key: typing.Any = None) -> None:
        ...
    def _enqueue_retry_payload(self, payload: typing.Any, rejection_reason: typing.Any, retry_after: typing.Any = None) -> None:
        ...
    def _ensure_replacement_abort_primitives(self) -> None:
        ...
    def _ensure_retry_claim_columns(self) -> bool:
        ...
    def _ensure_submission_claim_columns(self) -> bool:
        ...
    def _ensure_submission_idempotency_key(self, payload: typing.Any) -> typing.Any:
        ...
    def _era_loop(self) -> None:
        ...
    def _finalize_pending_error(self, payload: typing.Any, status_code: typing.Any, reason: typing.Any) -> None:
        ...
    def _finalize_persisted_receipt(self, payload: typing.Any, submission_id: typing.Any) -> None:
        ...
    def _finalize_retry_exhausted_payload(self, payload: typing.Any, rejection_reason: typing.Any) -> bool:
        ...
    def _flush_pending_receipt_finalizations(self) -> bool:
        ...
    def _handle_submission_success(self, payload: typing.Any, receipt: typing.Any) -> None:
        ...
    def _has_in_memory_submission_work(self) -> bool:
        ...
    def _journal_source_still_matches(self, payload: typing.Any) -> bool:
        ...
    def _maybe_fire_discovery_rate_declining_nudge(self) -> None:
        ...
    def _move_claimed_queue_to_retry(self, payload: typing.Any, payload_json: typing.Any, rejection_reason: typing.Any, retry_after: typing.Any) -> typing.Any:
        ...
    def _on_era_change(self, event_type: typing.Any, era_id: typing.Any) -> None:
        ...
    def _payload_from_tracker_item(self, tracker_item: typing.Any) -> typing.Any:
        ...
    def _payload_has_persistent_submission_source(self, payload: typing.Any) -> bool:
        ...
    def _peek_retry_payload(self) -> typing.Any:
        ...
    def _peek_submission_payload(self) -> typing.Any:
        ...
    def _pending_payloads(self) -> list[typing.Any]:
        ...
    def _persistent_table_columns(self, table_name: str) -> set[typing.Any]:
        ...
    def _poll_start_guard(self) -> typing.Any:
        ...
    def _polling_loop(self) -> None:
        ...
    def _polling_loop_inner(self) -> None:
        ...
    def _read_receipt_journal(self) -> list[typing.Any]:
        ...
    def _receipt_journal_entry(self, payload: typing.Any, receipt: typing.Any) -> typing.Any:
        ...
    def _receipt_journal_file_path(self, key: typing.Any) -> typing.Any:
        ...
    def _receipt_journal_key(self, entry: typing.Any) -> typing.Any:
        ...
    def _receipt_journal_key_for_payload(self, payload: typing.Any, submission_id: typing.Any) -> typing.Any:
        ...
    def _receipt_journal_path(self) -> typing.Any:
        ...
    def _record_background_failure(self, component: typing.Any, operation: typing.Any, exc: typing.Any, backoff: bool = True) -> None:
        ...
    def _record_submission_and_delete_queue(self, payload: typing.Any, receipt: typing.Any) -> None:
        ...
    def _record_submission_attempt_started(self, payload: typing.Any) -> None:
        ...
    def _replacement_abort_event_handle(self) -> typing.Any:
        ...
    def _replacement_abort_requested(self) -> bool:
        ...
    def _replay_receipt_journal(self) -> bool:
        ...
    def _reset_background_failures(self, component: typing.Any) -> None:
        ...
    def _retry_exhausted_submission_id(self, payload: typing.Any) -> typing.Any:
        ...
    def _rewrite_receipt_journal_without(self, completed_key: typing.Any) -> None:
        ...
    def _set_fatal_error(self, error_code: typing.Any, recovery_advice: typing.Any, message: typing.Any) -> None:
        ...
    def _source_sql_predicates(self, payload: typing.Any, id_name: typing.Any, source_id: typing.Any, require_owner: bool = False) -> tuple[typing.Any, ...]:
        ...
    def _start_all_threads(self) -> None:
        ...
    def _submission_loop(self) -> None:
        ...
    def _submission_loop_inner(self) -> None:
        ...
    def _submission_start_guard(self) -> typing.Any:
        ...
    def _submission_status_exists(self, submission_id: typing.Any) -> bool:
        ...
    def _submit_payload(self, payload: typing.Any) -> None:
        ...
    def _supervisor_loop(self) -> None:
        ...
    def _supervisor_loop_inner(self) -> None:
        ...
    def _update_claimed_retry_payload(self, payload: typing.Any, payload_json: typing.Any, rejection_reason: typing.Any, retry_count: typing.Any, retry_after: typing.Any) -> None:
        ...
    def _update_submission_counts(self) -> None:
        ...
    def _worker_loop(self, worker_id: typing.Any) -> None:
        ...
    def _worker_loop_inner(self, worker_id: typing.Any) -> None:
        ...
    def status(self) -> SearchStatus:
        """
        The state of this search now.
        
        Returns:
            SearchStatus: a snapshot: running flag, evaluations (counting those stored by earlier runs),
            rate, memory, era, background errors, and the submission counts (queued, pending,
            accepted, rejected, retrying, discarded).
        
        Raises:
            SearchError: the search ended in a fatal error; its error_code and recovery_advice say what
                to do, and its status holds the counts at that moment. Raised anew on every call.
        """
    def stop(self, join_timeout: float = 2.0) -> None:
        """
        Stop the search in order: finish the receipts in hand, stop and join the threads, release the
        data sync. Queued submissions stay in the store for a later search. A second call does nothing.
        
        Args:
            join_timeout: seconds to wait for each background thread (workers get 5.0 each, to
                finish the evaluation in hand).
        
        Returns:
            None.
        
        Raises:
            Nothing of its own: failures while releasing are logged.
        """
    @property
    def _crash_count(self) -> int:
        ...
    @_crash_count.setter
    def _crash_count(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _era_failures(self) -> int:
        ...
    @_era_failures.setter
    def _era_failures(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _n_jobs(self) -> int:
        ...
    @_n_jobs.setter
    def _n_jobs(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _polling_backoff_seconds(self) -> float:
        ...
    @_polling_backoff_seconds.setter
    def _polling_backoff_seconds(self, arg0: typing.SupportsFloat | typing.SupportsIndex) -> None:
        ...
    @property
    def _polling_backoff_until(self) -> float:
        ...
    @_polling_backoff_until.setter
    def _polling_backoff_until(self, arg0: typing.SupportsFloat | typing.SupportsIndex) -> None:
        ...
    @property
    def _polling_failures(self) -> int:
        ...
    @_polling_failures.setter
    def _polling_failures(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _start_time(self) -> float:
        ...
    @_start_time.setter
    def _start_time(self, arg0: typing.SupportsFloat | typing.SupportsIndex) -> None:
        ...
    @property
    def _submission_accepted(self) -> int:
        ...
    @_submission_accepted.setter
    def _submission_accepted(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _submission_backoff_seconds(self) -> float:
        ...
    @_submission_backoff_seconds.setter
    def _submission_backoff_seconds(self, arg0: typing.SupportsFloat | typing.SupportsIndex) -> None:
        ...
    @property
    def _submission_backoff_until(self) -> float:
        ...
    @_submission_backoff_until.setter
    def _submission_backoff_until(self, arg0: typing.SupportsFloat | typing.SupportsIndex) -> None:
        ...
    @property
    def _submission_discarded(self) -> int:
        ...
    @_submission_discarded.setter
    def _submission_discarded(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _submission_failures(self) -> int:
        ...
    @_submission_failures.setter
    def _submission_failures(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _submission_pending(self) -> int:
        ...
    @_submission_pending.setter
    def _submission_pending(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _submission_queued(self) -> int:
        ...
    @_submission_queued.setter
    def _submission_queued(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _submission_rejected(self) -> int:
        ...
    @_submission_rejected.setter
    def _submission_rejected(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _submission_retrying(self) -> int:
        ...
    @_submission_retrying.setter
    def _submission_retrying(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _sync_failures(self) -> int:
        ...
    @_sync_failures.setter
    def _sync_failures(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _sync_progress(self) -> float:
        ...
    @_sync_progress.setter
    def _sync_progress(self, arg0: typing.SupportsFloat | typing.SupportsIndex) -> None:
        ...
    @property
    def _t_batch(self) -> int:
        ...
    @_t_batch.setter
    def _t_batch(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _total_evaluated(self) -> int:
        ...
    @_total_evaluated.setter
    def _total_evaluated(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _total_found(self) -> int:
        ...
    @_total_found.setter
    def _total_found(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
    @property
    def _worker_start_count(self) -> int:
        ...
    @_worker_start_count.setter
    def _worker_start_count(self, arg0: typing.SupportsInt | typing.SupportsIndex) -> None:
        ...
def _adaptive_weighted_graph_hash(graph: typing.Any) -> int:
    ...
def _agent_onboarding_data_dir(default: typing.Any = None) -> typing.Any:
    ...
def _backtest_metric_value(bt_stats: typing.Any, attr: str, era_config: typing.Any) -> typing.Any:
    ...
def _backtest_per_column_metric_value(bt_stats: typing.Any, attr: str, era_config: typing.Any) -> typing.Any:
    ...
def _bootstrap_runtime_from_cached_auth(mod: typing.Any) -> typing.Any:
    ...
def _build_random_signal_expression(func_names: typing.Any, func_specs: typing.Any, func_weights: typing.Any, feat_names: typing.Any, feat_weights: typing.Any, target_depth: typing.Any) -> typing.Any:
    ...
def _build_search_analytics_from_era_config(tracker: typing.Any, era_config: typing.Any) -> typing.Any:
    ...
def _build_signal_service_client(timeout: typing.Any = 30.0) -> typing.Any:
    ...
def _call_backtester_with_transform_context(backtester: typing.Any, method_name: typing.Any, expr_graph: typing.Any, metaparameters: typing.Any, transform_pipeline: typing.Any, universe_id: typing.Any) -> typing.Any:
    ...
def _call_management_tracker(method_name: typing.Any, *args, **kwargs) -> typing.Any:
    ...
def _check_disk() -> None:
    ...
def _check_memory() -> None:
    ...
def _coerce_search_rule_id(value: typing.Any) -> typing.Any:
    ...
def _collect_required_backtest_stats(bt_stats: typing.Any, era_config: typing.Any = None) -> tuple[typing.Any, typing.Any]:
    ...
def _configured_tracking_data_dir() -> typing.Any:
    ...
def _derive_search_universe_id(era_config: typing.Any, configured_valid_universe_id: typing.Any = None) -> typing.Any:
    ...
def _details_from_body(body: typing.Any) -> typing.Any:
    ...
def _era_config_field(era_config: typing.Any, name: typing.Any, default: typing.Any = None) -> typing.Any:
    ...
def _era_config_lookup(era_config: typing.Any, name: typing.Any, default: typing.Any = None) -> typing.Any:
    ...
def _era_config_raw_dict(era_config: typing.Any) -> typing.Any:
    ...
def _era_transform_pipeline_config(era_config: typing.Any) -> list[typing.Any]:
    ...
def _finite_number_or_default(value: typing.Any, default: typing.Any = 0.0) -> float:
    ...
def _finite_optional_number(value: typing.Any) -> typing.Any:
    ...
def _first_signal_pool_id_from_era_config(era_config: typing.Any) -> typing.Any:
    ...
def _flatten_vocabulary_entries(node: typing.Any) -> list[typing.Any]:
    ...
def _get_submission_token() -> typing.Any:
    ...
def _harden_template_sandbox() -> None:
    ...
def _has_disallowed_mi_contract_field(value: typing.Any) -> bool:
    ...
def _has_non_finite_number(value: typing.Any) -> bool:
    ...
def _install_template_sandbox_hooks() -> None:
    ...
def _invalid_backtest_metric_reason(attr: str) -> str:
    ...
def _is_authed(mod: typing.Any) -> bool:
    ...
def _is_finite_number(value: typing.Any) -> bool:
    ...
def _is_pnl_mi_from_backtest_stats(bt_stats: typing.Any) -> float:
    ...
def _load_submission_payload(payload_json: typing.Any) -> typing.Any:
    ...
def _method_transform_context_kwargs(method: typing.Any, metaparameters: typing.Any, transform_pipeline: typing.Any, universe_id: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _new_management_tracker() -> typing.Any:
    ...
def _normalize_factor_pnl(value: typing.Any) -> list[typing.Any]:
    ...
def _normalize_per_column_stats(value: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _normalize_template_vocabulary(vocab: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _pipeline_has_per_pool_default(transform_pipeline: typing.Any) -> bool:
    ...
def _poll_status_internal(submission_id: typing.Any) -> typing.Any:
    ...
def _pool_field(pool: typing.Any, name: typing.Any, default: typing.Any = None) -> typing.Any:
    ...
def _pool_id_from_config_entry(pool: typing.Any) -> typing.Any:
    ...
def _primary_evaluation_pnl_column(era_config: typing.Any) -> typing.Any:
    ...
def _raise_if_management_blocked() -> None:
    ...
def _raise_template_sandbox_violation(operation: str) -> None:
    ...
def _random_weighted_add_stat(stats: typing.Any, name: typing.Any, yield_rate: typing.Any, evaluation_count: typing.Any) -> None:
    ...
def _random_weighted_allowed_name_set(names: typing.Any) -> typing.Any:
    ...
def _random_weighted_analytics_entries(analytics: typing.Any) -> _RandomWeightedAnalyticsEntries:
    """
    A lazy iterator of (1, function names, feature names, yield rate, evaluation count) entries.
    """
def _random_weighted_analytics_stats(analytics: typing.Any, allowed_function_names: typing.Any = None, allowed_feature_names: typing.Any = None) -> tuple[typing.Any, ...]:
    ...
def _random_weighted_buffer_duration_limit(ctx: typing.Any) -> typing.Any:
    ...
def _random_weighted_config_child(function_name: typing.Any, param: typing.Any, window_limit: typing.Any = None) -> tuple[typing.Any, ...]:
    ...
def _random_weighted_config_value_reason(param_name: typing.Any, value: typing.Any, integer: typing.Any) -> typing.Any:
    ...
def _random_weighted_cum_weights(names: typing.Any, yield_map: typing.Any) -> list[typing.Any]:
    ...
def _random_weighted_declared_arity(fn: typing.Any) -> tuple[typing.Any, ...]:
    ...
def _random_weighted_era_value(ctx: typing.Any, name: str, default: typing.Any) -> typing.Any:
    ...
def _random_weighted_feature_names(features: typing.Any) -> list[typing.Any]:
    ...
def _random_weighted_feature_specs(features: typing.Any) -> list[typing.Any]:
    ...
def _random_weighted_feature_weight_report(feature_specs: typing.Any, normalized_weights: typing.Any, stats: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _random_weighted_finalize_stats(stats: typing.Any) -> None:
    ...
def _random_weighted_first_choice(param: typing.Any) -> typing.Any:
    ...
def _random_weighted_float(value: typing.Any, default: typing.Any) -> typing.Any:
    ...
def _random_weighted_function_safety(functions: typing.Any, log_reasons: typing.Any, window_limit: typing.Any = None, node_limit: typing.Any = None, registry: typing.Any = None) -> tuple[typing.Any, ...]:
    ...
def _random_weighted_function_weight_report(safe_rotations: typing.Any, normalized_weights: typing.Any, stats: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _random_weighted_int(value: typing.Any, default: typing.Any) -> typing.Any:
    ...
def _random_weighted_is_finite_number(value: typing.Any) -> bool:
    ...
def _random_weighted_max_depth_within_node_budget(rotations: typing.Any, requested_depth: typing.SupportsInt | typing.SupportsIndex, node_limit: typing.SupportsInt | typing.SupportsIndex) -> int:
    ...
def _random_weighted_min_node_count(rotation: typing.Any) -> int:
    ...
def _random_weighted_node_limit(ctx: typing.Any) -> int:
    ...
def _random_weighted_normalized_weights(names: typing.Any, stats: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _random_weighted_numeric_bounds(param: typing.Any) -> tuple[typing.Any, ...]:
    ...
def _random_weighted_numeric_bounds_reason(param: typing.Any, value: typing.Any) -> typing.Any:
    ...
def _random_weighted_numeric_default(param: typing.Any, integer: typing.Any) -> typing.Any:
    ...
def _random_weighted_numeric_range_label(has_min: typing.Any, min_value: typing.Any, has_max: typing.Any, max_value: typing.Any) -> str:
    ...
def _random_weighted_param_dict(raw_param: typing.Any, default_name: typing.Any) -> typing.Any:
    ...
def _random_weighted_positive_int(value: typing.Any, default: typing.Any) -> typing.Any:
    ...
def _random_weighted_registry_function_metadata(fn: typing.Any, registry: typing.Any) -> typing.Any:
    ...
def _random_weighted_registry_safety_reason(name: typing.Any, registry: typing.Any) -> typing.Any:
    ...
def _random_weighted_rotation_schema(fn: typing.Any, window_limit: typing.Any = None, node_limit: typing.Any = None) -> dict[typing.Any, typing.Any]:
    ...
def _random_weighted_rotations_within_node_budget(rotations: typing.Any, node_limit: typing.Any) -> list[typing.Any]:
    ...
def _random_weighted_runtime_registry(ctx: typing.Any) -> typing.Any:
    ...
def _random_weighted_safe_rotations(functions: typing.Any, window_limit: typing.Any = None, node_limit: typing.Any = None, registry: typing.Any = None) -> list[typing.Any]:
    ...
def _random_weighted_safe_yield_rate(value: typing.Any) -> float:
    ...
def _random_weighted_schema_params(schema: typing.Any, node_limit: typing.Any = None) -> tuple[typing.Any, ...]:
    ...
def _random_weighted_skip_analytics_name(name: typing.Any, allowed_names: typing.Any, seen_names: typing.Any) -> bool:
    ...
def _random_weighted_stateful_window_default(param: typing.Any) -> typing.Any:
    ...
def _random_weighted_unsafe_function_reason(function_type: typing.Any, schema_reason: typing.Any) -> str:
    ...
def _random_weighted_valid_names(names: typing.Any) -> list[typing.Any]:
    ...
def _random_weighted_weight_entry(normalized_weights: typing.Any, stats: typing.Any, name: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _random_weighted_window_bounded_param(param: typing.Any, window_limit: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _random_weighted_window_budget_reason(param_name: typing.Any, value: typing.Any, window_limit: typing.Any) -> typing.Any:
    ...
def _random_weighted_window_limit(ctx: typing.Any, max_depth: typing.Any) -> typing.Any:
    ...
def _random_weighted_worst_case_node_count(rotations: typing.Any, depth: typing.SupportsInt | typing.SupportsIndex, node_limit: typing.SupportsInt | typing.SupportsIndex) -> int:
    ...
def _random_weighted_yield_maps(analytics: typing.Any, function_names: typing.Any = None, feature_names: typing.Any = None) -> tuple[typing.Any, ...]:
    ...
def _rejection_stats_from_backtest(bt_stats: typing.Any, tracking_stats: typing.Any, stats_dict: typing.Any) -> typing.Any:
    ...
def _require_payload_typed_keys(payload: typing.Any, source_kind: typing.Any, row_id: typing.Any) -> None:
    ...
def _require_search_threshold(thresholds: typing.Any, name: typing.Any) -> typing.Any:
    ...
def _required_backtest_metric_value(bt_stats: typing.Any, attr: str, era_config: typing.Any = None) -> tuple[typing.Any, typing.Any]:
    ...
def _resolve_search_metaparameters_from_era_config(era_config: typing.Any, signal_pool_id: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _resolve_search_thresholds(thresholds: typing.Any, era_config: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _resolve_signal_service_url() -> typing.Any:
    ...
def _resolve_submission_pool_ids(conn: typing.Any, payload: typing.Any) -> tuple[typing.Any, ...]:
    ...
def _restart_worker(handle: typing.Any, count: typing.SupportsInt | typing.SupportsIndex) -> None:
    ...
def _result_to_receipt(result: typing.Any, submission_type: typing.Any, SubmissionReceipt: typing.Any, SubmissionRejectedError: typing.Any) -> typing.Any:
    ...
def _safe_update_nudge(trigger: typing.Any, **kwargs) -> None:
    ...
def _sandboxed_open(*args, **kwargs) -> typing.Any:
    ...
def _sandboxed_sqlite_connect(*args, **kwargs) -> typing.Any:
    ...
def _sandboxed_urllib_urlopen(*args, **kwargs) -> typing.Any:
    ...
def _search_rule_id_from_universe_entry(entry: typing.Any) -> typing.Any:
    ...
def _search_threshold_or_default(thresholds: typing.Any, name: typing.Any, default: typing.Any) -> typing.Any:
    ...
def _search_universe_candidates_from_era_config(era_config: typing.Any) -> list[typing.Any]:
    ...
def _selected_signal_pool_from_era_config(era_config: typing.Any, signal_pool_id: typing.Any) -> typing.Any:
    ...
def _serialize_submission_payload(payload: typing.Any) -> str:
    ...
def _signal_pools_from_era_config(era_config: typing.Any) -> list[typing.Any]:
    ...
def _spawn_worker(handle: typing.Any, worker_id: typing.SupportsInt | typing.SupportsIndex) -> None:
    ...
def _stage_has_default_contract(stage: typing.Any) -> bool:
    ...
def _stage_value(stage: typing.Any, name: typing.Any, default: typing.Any = None) -> typing.Any:
    ...
def _submission_auth_obj() -> typing.Any:
    ...
def _submission_backoff_sleep(seconds: typing.Any) -> None:
    ...
def _submission_payload_for_storage(payload: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _submission_pnl_mi_from_backtest_or_compute(backtester: typing.Any, bt_stats: typing.Any, era_config: typing.Any, signal_pool_id: typing.Any, thresholds: typing.Any) -> tuple[float, bool]:
    ...
def _submit_kwargs_from_payload(payload: typing.Any, allowed: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _submit_signal_payload(payload: typing.Any) -> typing.Any:
    ...
def _template_sandbox() -> typing.Any:
    ...
def _template_sandbox_active() -> bool:
    ...
def _template_sandbox_hardened() -> bool:
    ...
def _tracker_uses_persistent_store(tracker: typing.Any) -> bool:
    ...
def _tracking_metric_kwargs_from_backtest(bt_stats: typing.Any) -> dict[typing.Any, typing.Any]:
    ...
def _tracking_quality_score(bt_stats: typing.Any, stats_dict: typing.Any, per_column_stats: typing.Any, era_config: typing.Any) -> float:
    ...
def _tracking_stats_from_backtest(bt_stats: typing.Any, stats_dict: typing.Any, per_column_stats: typing.Any, era_config: typing.Any) -> typing.Any:
    ...
def _validate_feature_entry(entry: typing.Any) -> None:
    ...
def _validate_function_entry(entry: typing.Any, source_kind: typing.Any) -> None:
    ...
def _validate_submit_contract_kwargs(kwargs: typing.Any) -> None:
    ...
def _weighted_choice(items: typing.Any, cum_weights: typing.Any) -> typing.Any:
    ...
def adaptive_weighted(ctx: typing.Any, refresh_seconds: typing.Any = 5.0, refresh_evaluations: typing.Any = 500, explore_share: typing.Any = 0.05, local_share: typing.Any = 0.7, wrapper_subfamilies: typing.Any = None, mirror_function: typing.Any = 'neg') -> typing.Any:
    """
    Built-in template that learns while it runs: refreshes analytics every refresh_seconds or refresh_evaluations graphs (more often in its first minute), never yields a graph already evaluated in the era, draws a share of graphs with flat weights (explore_share) and a share by local moves around found signals (local_share), skips near-copies of found signals under wrappers of the given subfamilies, and draws mirror_function(graph) for graphs whose Sharpe was at or below minus the era's floor.
    """
def adaptive_weighted_learning() -> typing.Any:
    """
    What adaptive_weighted has learnt in the most recent search of this process, or None.
    """
def analyze_adaptive_weighted(ctx: typing.Any) -> dict[typing.Any, typing.Any]:
    """
    analyze_random_weighted's report plus what adaptive_weighted has learnt in this search ('learning').
    """
def analyze_random_weighted(ctx: SearchContext) -> dict[str, typing.Any]:
    """
    JSON-serializable diagnostics for random_weighted sampling.
    
    Draws nothing and changes nothing: it shows what random_weighted would do now.
    
    Args:
        ctx: a SearchContext (its vocabulary, max_depth, era and analytics are read).
    
    Returns:
        dict: "analytics_rows_seen" (int); "function_weights" and "feature_weights", maps of
        name to yield_rate, failure_rate, evaluation_count, cold_weight (with no analytics),
        warm_weight (with them), warm_delta and the family; "unsafe_functions", a map of name to
        the reason it is left out.
    
    Raises:
        Nothing for bad vocabulary or analytics; an error of ctx.vocabulary passes through.
    """
def delete_evaluations(eval_type: str | None = None, keep_last: int = 50000) -> dict[str, int]:
    """
    Delete all but the newest `keep_last` evaluations; not while a search runs.
    
    Evaluations that a queued or retrying submission still refers to are kept.
    
    Args:
        eval_type: "signal" or "strategy" to thin only that table; None for both.
        keep_last: how many of the newest evaluations to keep (a non-negative integer).
    
    Returns:
        dict: the deleted rows per type and in total ("deleted").
    
    Raises:
        RuntimeError: a search is running; stop it first.
        OSError: no data directory is configured.
        ValueError: a bad `eval_type` or `keep_last`.
    """
def delete_failed_evaluations(eval_type: str | None = None) -> dict[str, int]:
    """
    Delete the evaluations that failed; not while a search runs.
    
    Args:
        eval_type: "signal" or "strategy" to thin only that table; None for both.
    
    Returns:
        dict: the deleted rows per type and in total ("deleted").
    
    Raises:
        RuntimeError: a search is running; stop it first.
        OSError: no data directory is configured.
        ValueError: a bad `eval_type`.
    """
def get_db_info() -> dict[str, typing.Any]:
    """
    Describe the local tracking database.
    
    Allowed while a search runs.
    
    Returns:
        dict: the store's path, size in bytes, journal mode, row counts per table, passed and failed
        evaluations, pending submissions and whether a search is active.
    
    Raises:
        OSError: no data directory is configured.
    """
def inject_heartbeat() -> None:
    """
    Inject heartbeat during search startup.
    """
def poll_status(submission_id: str) -> quillmarsh.submit.SubmissionStatus:
    """
    The signal service's SubmissionStatus of one submission.
    """
def random_weighted(ctx: SearchContext) -> typing.Iterator[dict[str, typing.Any]]:
    """
    Built-in template: yields weighted random SIGNAL expression graphs for as long as it is asked. Nothing runs before the first request for a value.
    
    Functions and features are drawn with weights learnt from the analytics of earlier evaluations
    (those that passed more often are drawn more often); functions that cannot be used safely are
    left out (see analyze_random_weighted). Pass it to search(): search(random_weighted).
    
    Args:
        ctx: the SearchContext of the worker.
    
    Returns:
        Iterator[dict]: an endless generator of expression graphs; it ends at once when the
        vocabulary or the era leaves nothing to draw.
    
    Raises:
        Nothing for bad vocabulary, analytics or era values: those end the generator quietly.
    """
def search(template: typing.Callable[[SearchContext], typing.Iterable[dict[str, typing.Any]]], n_jobs: int = 1) -> SearchHandle:
    """
    Start a search: run `template` on `n_jobs` worker threads and return its SearchHandle.
    
    Needs a login (register() or login(private_key)) and a configured data directory. A search
    still running in this process is replaced: it is aborted before this one starts. Call
    stop() on the handle before the program exits.
    
    Args:
        template: a callable taking a SearchContext and yielding expression graphs (usually a
            generator); each is judged by ctx.evaluate. random_weighted is the built-in one.
        n_jobs: worker threads, at least 1; more than the machine's cores is cut to that count.
    
    Returns:
        SearchHandle: the running search; handle.status() reports on it, handle.stop() ends it.
    
    Raises:
        TypeError: `template` is not callable.
        ValueError: `n_jobs` is below 1.
        SearchError: the search cannot start; error_code is one of AUTH_ERROR,
            RUNTIME_BOOTSTRAP_FAILED, OUT_OF_MEMORY, DISK_FULL, DATA_DIR_REQUIRED,
            VALID_UNIVERSE_UNAVAILABLE, SEARCH_TRACKER_UNAVAILABLE, ERA_CONFIG_UNAVAILABLE,
            VOCABULARY_UNAVAILABLE, BACKTESTER_UNAVAILABLE, and recovery_advice tells what to do.
        SyncError: the data sync before the start failed.
    """
def status() -> SearchStatus:
    """
    The status of the active search.
    
    Returns:
        SearchStatus: the status of the search started last in this process (as handle.status()).
    
    Raises:
        SearchError: NO_ACTIVE_SEARCH when no search runs, or the fatal error of the active search.
    """
def submit_signal(graph: dict[str, typing.Any], universe_id: str, signal_pool_id: str, is_stats: dict[str, float], is_pnl_mi: float, expression_elapsed_seconds: float, *, metaparameters: dict[str, typing.Any] | None = None, search_state: dict[str, typing.Any] | None = None) -> quillmarsh.submit.SubmissionReceipt:
    """
    Submit one signal to the signal service; returns its SubmissionReceipt.
    """
ERA_POLL_INTERVAL: float = 1.0
POLLING_INTERVAL: float = 1.0
SUBMISSION_POLL_INTERVAL: float = 0.5
SUBMISSION_QUEUE_LEASE_SECONDS: float = 300.0
SUPERVISOR_HEALTH_CHECK_INTERVAL: float = 0.5
SYNC_POLL_INTERVAL: float = 1.0
_FEATURE_REQUIRED_FIELDS: frozenset[typing.Any]
_FEATURE_STATS_REQUIRED_KEYS: frozenset[typing.Any]
_FILTRATION_FORBIDDEN_FIELDS: frozenset[typing.Any]
_FILTRATION_REQUIRED_FIELDS: frozenset[typing.Any]
_INFRASTRUCTURE_FAILURE_THRESHOLD: int = 10
_MANAGEMENT_ACTIVE_ERROR: str = 'Cannot delete evaluations while a search is running. Call handle.stop() first.'
_MISSING_BACKTEST_METRIC: object
_NOT_AUTHENTICATED_MESSAGE: str = 'Not authenticated. Run register() or login(private_key) first.'
_RANDOM_WEIGHTED_DEFAULT_BUFFER_DURATION_MINUTES: int = 20160
_RANDOM_WEIGHTED_DEFAULT_MAX_NODE_COUNT: int = 100
_RANDOM_WEIGHTED_DEFAULT_STATEFUL_WINDOW: int = 20
_RANDOM_WEIGHTED_HARD_MAX_NODE_COUNT: int = 1000
_RANDOM_WEIGHTED_MAX_ABS_CONFIG_FLOAT: float = 1000000000.0
_RANDOM_WEIGHTED_MAX_ABS_CONFIG_INT: int = 1000000000
_RANDOM_WEIGHTED_MAX_ABS_YIELD_RATE: float = 1000.0
_RANDOM_WEIGHTED_MAX_ANALYTICS_NAMES_PER_ROW: int = 64
_RANDOM_WEIGHTED_MAX_ANALYTICS_ROWS: int = 10000
_RANDOM_WEIGHTED_MAX_ANALYTICS_UNIQUE_NAMES: int = 4096
_RANDOM_WEIGHTED_MAX_ANALYTICS_WEIGHT: int = 1000000000
_RANDOM_WEIGHTED_MAX_DEPTH: int = 6
_RANDOM_WEIGHTED_MAX_RECURSIVE_DEPTH: int = 128
_REDUCTION_REQUIRED_FIELDS: frozenset[typing.Any]
_REPLACEMENT_ABORT_BOOTSTRAP_LOCK: typing.Any
_REQUIRED_BACKTEST_METRICS: tuple[typing.Any, ...] = ('sharpe', 'fitness', 'returns', 'drawdown', 'turnover', 'margin', 'long_count', 'short_count', 'delta_exposure', 'max_weight')
_REQUIRED_ROW_PAYLOAD_KEYS: tuple[typing.Any, ...] = ('eval_id', 'submission_type', 'era_id')
_ROTATION_REQUIRED_FIELDS: frozenset[typing.Any]
_SIGNAL_SUBMIT_KWARGS: tuple[typing.Any, ...] = ('graph', 'universe_id', 'signal_pool_id', 'is_stats', 'is_pnl_mi', 'metaparameters', 'expression_elapsed_seconds', 'search_state', 'idempotency_key')
_STRATEGY_SUBMIT_KWARGS: tuple[typing.Any, ...] = ('graph', 'universe_id', 'signal_pool_id', 'is_stats', 'is_pnl_mi', 'metaparameters', 'expression_elapsed_seconds', 'search_state', 'idempotency_key', 'referenced_signal_ids')
_SUBMISSION_ACCEPTED_STATUSES: frozenset[typing.Any]
_SUBMISSION_REJECTED_STATUSES: frozenset[typing.Any]
_SUBMISSION_TERMINAL_STATUSES: frozenset[typing.Any]
_SUBMIT_KWARG_DEFAULTS: dict[typing.Any, typing.Any] = {'metaparameters': None, 'search_state': None, 'idempotency_key': None, 'referenced_signal_ids': list()}
_active_handles: _weakrefset.WeakSet[typing.Any]
_active_search_handle = None
_original_urllib_urlopen = None
_search_active: bool = False
_search_active_lock: typing.Any
_template_sandbox_hooks_installed: bool = False
_template_sandbox_lock: typing.Any
_template_sandbox_threads: set[typing.Any] = set()
logger: logging.Logger
SearchHandle = _SearchHandleImpl
