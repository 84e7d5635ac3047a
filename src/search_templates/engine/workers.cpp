// Starting a handle's threads and the loop of a worker.
#include "common/constants.hpp"
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"
#include "engine/template_sandbox.hpp"

#include <chrono>
#include <string>
#include <thread>

namespace quillmarsh::st {

namespace {

constexpr int MAX_TEMPLATE_RESTARTS = 20;

bool event_is_set(const py::object& event) { return truthy(event.attr("is_set")()); }

}  // namespace

void SearchHandle::start_all_threads() {
    if (!_fatal_error.is_none()) return;
    if (_backtester.is_none()) {
        log_warning("Backtester unavailable during search startup; handle will remain running without worker threads.");
        return;
    }
    py::object me = self();
    _supervisor_thread = new_daemon_thread(me.attr("_supervisor_loop"), "supervisor");
    _supervisor_thread.attr("start")();

    if (!_sync_mgr.is_none()) {
        try {
            _sync_mgr.attr("acquire")();
            _sync_mgr.attr("register_era_callback")(me.attr("_on_era_change"));
        } catch (py::error_already_set& e) {
            if (!is_general_exception(e)) throw;
            log_warning("Failed to acquire sync manager: %s", e.value());
        }
    }
    try {
        _era_thread = build_era_thread();
        _era_thread.attr("start")();
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_warning("Failed to start era thread: %s", e.value());
    }

    _submission_thread = new_daemon_thread(me.attr("_submission_loop"), "submission_thread");
    _submission_thread.attr("start")();
    _polling_thread = new_daemon_thread(me.attr("_polling_loop"), "polling_thread");
    _polling_thread.attr("start")();

    py::object worker_loop = me.attr("_worker_loop");
    for (long long i = 0; i < _n_jobs; ++i) {
        py::object t = new_daemon_thread(worker_loop, "worker_" + std::to_string(i), py::make_tuple(i));
        t.attr("start")();
        _worker_threads.attr("append")(t);
    }
    if (_n_jobs > 0) _worker_start_event.attr("wait")(0.5);
}

void SearchHandle::worker_loop(py::object worker_id) {
    {
        PyLockHold hold(_lock);
        _worker_start_count += 1;
        if (_worker_start_count >= _n_jobs) _worker_start_event.attr("set")();
    }
    try {
        worker_loop_inner(worker_id);
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_exception("worker_loop_crashed", e);
    } catch (const std::exception& e) {
        log_error("worker_loop_crashed: %s", e.what());
    }
}

void SearchHandle::worker_loop_inner(py::object worker_id) {
    int restart_count = 0;
    py::object evaluate_exception = py::str("evaluate_exception");
    while (!event_is_set(_stop_event) && restart_count < MAX_TEMPLATE_RESTARTS && _running) {
        py::dict kwargs;
        kwargs["vocab"] = _vocab;
        kwargs["universe"] = _search_universe_id;
        kwargs["metaparams"] = _metaparameters;
        kwargs["depth"] = _max_depth;
        kwargs["tracker"] = _tracker;
        kwargs["sync_mgr"] = _sync_mgr;
        kwargs["bt"] = _backtester;
        kwargs["thresholds"] = _thresholds;
        kwargs["era_config"] = _era_config;
        kwargs["fatal_callback"] = self().attr("_set_fatal_error");
        kwargs["submission_queue"] = _submission_queue;
        kwargs["tracker_write_lock"] = _tracker_write_lock;
        kwargs["submission_wakeup"] = _submission_wakeup;
        kwargs["stop_event"] = _stop_event;
        kwargs["submission_owner"] = _submission_owner;
        kwargs["replacement_abort_event"] = _replacement_abort_event;
        py::object ctx = module_attr("SearchContext")(**kwargs);

        try {
            py::object gen;
            {
                TemplateSandboxScope sandbox;
                gen = _template(ctx);
            }
            // A plain function that returns nothing is a one-shot template.
            if (gen.is_none()) return;
            py::object iterator = py::reinterpret_steal<py::object>(PyObject_GetIter(gen.ptr()));
            if (!iterator) throw py::error_already_set();
            py::object evaluate = ctx.attr("evaluate");
            bool template_exhausted = false;
            while (true) {
                py::object expr;
                {
                    TemplateSandboxScope sandbox;
                    expr = py::reinterpret_steal<py::object>(PyIter_Next(iterator.ptr()));
                    if (!expr) {
                        if (PyErr_Occurred()) throw py::error_already_set();
                        template_exhausted = true;
                    }
                }
                if (template_exhausted) break;
                if (event_is_set(_stop_event)) break;
                try {
                    evaluate(expr);
                } catch (py::error_already_set& e) {
                    if (!is_general_exception(e)) throw;
                    log_warning("Expression evaluation failed: %s", e.value());
                    try {
                        py::dict metrics;
                        metrics["failure_reason"] = evaluate_exception;
                        metrics["failure_detail"] = py::str(e.value());
                        ctx.attr("_safe_record")(expr, false, py::arg("rejection_reason") = "evaluate_exception",
                                                 py::arg("tracking_metric_kwargs") = metrics);
                    } catch (py::error_already_set& record_error) {
                        if (!is_general_exception(record_error)) throw;
                        log_args(LogLevel::Warning, "Expression evaluation failure recording failed", py::tuple(),
                                 exc_info_of(record_error));
                    }
                }
                PyLockHold hold(_lock);
                _total_evaluated += 1;
            }
            if (template_exhausted && !event_is_set(_stop_event)) {
                log_info("Template exhausted in worker %s \u2014 restarting", worker_id);
                restart_count += 1;
                if (truthy(_stop_event.attr("wait")(0.05))) break;
            }
        } catch (py::error_already_set& te) {
            if (!is_general_exception(te)) throw;
            {
                PyLockHold hold(_lock);
                _crash_count += 1;
            }
            log_warning("Template sandbox violation in worker %s: %s", worker_id, te.value());
            if (event_is_set(_stop_event)) return;
            restart_count += 1;
            _stop_event.attr("wait")(0.05);
        }
    }
}

bool SearchHandle::interruptible_wait(py::object stop_event, double timeout) {
    const double end = monotonic_now() + timeout;
    py::object is_set = stop_event.attr("is_set");
    while (!truthy(is_set()) && monotonic_now() < end) sleep_without_gil(0.05);
    return truthy(is_set());
}

void sleep_without_gil(double seconds) {
    PyThreadState* state = PyEval_SaveThread();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
#if PY_VERSION_HEX >= 0x030D0000
    while (Py_IsFinalizing()) std::this_thread::sleep_for(std::chrono::seconds(1));
#else
    while (_Py_IsFinalizing()) std::this_thread::sleep_for(std::chrono::seconds(1));
#endif
    PyEval_RestoreThread(state);
}

void spawn_worker(py::object handle, long long worker_id) {
    if (worker_id < 0) return;
    py::object t = new_daemon_thread(handle.attr("_worker_loop"), "worker_" + std::to_string(worker_id),
                                     py::make_tuple(worker_id));
    t.attr("start")();
    handle.attr("_worker_threads").attr("append")(t);
}

void restart_worker(py::object handle, long long count) {
    for (long long i = 0; i < count; ++i) {
        py::object threads = handle.attr("_worker_threads");
        py::object t = new_daemon_thread(handle.attr("_worker_loop"), "worker_restart_" + std::to_string(i),
                                         py::make_tuple(static_cast<long long>(py::len(threads)) + i));
        t.attr("start")();
        handle.attr("_worker_threads").attr("append")(t);
    }
}

}  // namespace quillmarsh::st
