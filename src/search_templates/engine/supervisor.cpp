// The supervisor thread, the era thread and the era callback.
#include "common/constants.hpp"
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

bool event_is_set(const py::object& event) { return truthy(event.attr("is_set")()); }
bool is_alive(const py::object& thread) { return truthy(thread.attr("is_alive")()); }

// An interval constant as the module holds it now, so a host can tune it while a search runs.
double module_interval(const char* name, double fallback) {
    py::object value = module_attr_or_none(name);
    return value.is_none() ? fallback : value.cast<double>();
}

}  // namespace

py::object SearchHandle::build_era_thread() {
    py::object factory = module_attr_or_none("_era_thread_factory");
    if (is_callable(factory)) return factory();
    return new_daemon_thread(self().attr("_era_loop"), "era_thread");
}

void SearchHandle::era_loop() {
    try {
        py::object era_id = _era_config.is_none() ? py::object(py::int_(1)) : attr_or(_era_config, "era_id", py::int_(1));
        py::object me = self();
        while (!event_is_set(_stop_event) && _running) {
            if (interruptible_wait(_stop_event, module_interval("ERA_POLL_INTERVAL", ERA_POLL_INTERVAL))) break;
            if (event_is_set(_stop_event) || _stopped) break;
            py::object transition =
                _sync_mgr.is_none() ? py::object(py::none()) : attr_or(_sync_mgr, "run_handle_era_transition");
            if (!is_callable(transition) || _era_transition_triggered) continue;
            try {
                py::cpp_function kill([me, era_id] { me.attr("_on_era_change")("kill", era_id); });
                py::cpp_function restart([me, era_id] { me.attr("_on_era_change")("restart", era_id); });
                transition(era_id, kill, restart);
                _era_transition_triggered = true;
            } catch (py::error_already_set& e) {
                if (!is_general_exception(e)) throw;
                log_warning("Era transition failed: %s", e.value());
            }
        }
    } catch (const std::exception& e) {
        if (dynamic_cast<const py::error_already_set*>(&e)) throw;
        log_error("era_loop_crashed: %s", e.what());
    }
}

void SearchHandle::on_era_change(py::object event_type, py::object /*era_id*/) {
    if (py_equal(event_type, py::str("kill"))) {
        for (auto t : new_list(_worker_threads)) {
            py::object thread = py::reinterpret_borrow<py::object>(t);
            if (is_alive(thread)) thread.attr("join")(5.0);
        }
        _worker_threads = py::list();
        return;
    }
    if (py_equal(event_type, py::str("restart")) || py_equal(event_type, py::str("abort"))) {
        if (_stopped) return;
        _worker_threads = py::list();
        _worker_start_event = py::module_::import("threading").attr("Event")();
        _worker_start_count = 0;
        py::object worker_loop = self().attr("_worker_loop");
        for (long long i = 0; i < _n_jobs; ++i) {
            py::object t = new_daemon_thread(worker_loop, "worker_" + std::to_string(i), py::make_tuple(i));
            t.attr("start")();
            _worker_threads.attr("append")(t);
        }
    }
}

void SearchHandle::supervisor_loop() {
    try {
        supervisor_loop_inner();
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        log_exception("supervisor_loop_crashed", e);
    } catch (const std::exception& e) {
        log_error("supervisor_loop_crashed: %s", e.what());
    }
}

void SearchHandle::supervisor_loop_inner() {
    int consecutive_failures = 0;
    py::object me = self();
    auto turn_fatal = [this] {
        set_fatal_error(py::str("INFRASTRUCTURE_FAILURE"), py::str("register()"),
                        py::str("Background infrastructure failed permanently"));
    };
    while (!event_is_set(_stop_event) && _running) {
        if (interruptible_wait(_stop_event,
                               module_interval("SUPERVISOR_HEALTH_CHECK_INTERVAL", SUPERVISOR_HEALTH_CHECK_INTERVAL)) ||
            event_is_set(_stop_event))
            break;

        // Workers: any that ended is replaced; a healthy cycle is shown to the spawn hook as a probe.
        long long alive = 0;
        for (auto t : new_list(_worker_threads))
            if (is_alive(py::reinterpret_borrow<py::object>(t))) ++alive;
        long long dead_count = _n_jobs - alive;
        try {
            if (dead_count > 0)
                module_attr("_restart_worker")(me, dead_count);
            else
                module_attr("_spawn_worker")(me, -1);
            consecutive_failures = 0;
        } catch (py::error_already_set& e) {
            if (!is_general_exception(e)) throw;
            if (++consecutive_failures >= INFRASTRUCTURE_FAILURE_THRESHOLD) return turn_fatal();
        }

        if (!_era_thread.is_none()) {
            try {
                if (!is_alive(_era_thread)) {
                    _era_thread = build_era_thread();
                    _era_thread.attr("start")();
                    _era_failures = 0;
                }
            } catch (py::error_already_set& e) {
                if (!is_general_exception(e)) throw;
                if (++_era_failures >= INFRASTRUCTURE_FAILURE_THRESHOLD) return turn_fatal();
            }
        }

        if (!_sync_mgr.is_none()) {
            try {
                if (!truthy(_sync_mgr.attr("is_alive")())) {
                    py::object restart_sync = attr_or(_sync_mgr, "start");
                    if (is_callable(restart_sync))
                        restart_sync();
                    else
                        _sync_mgr.attr("_start_internal")();
                    _sync_failures = 0;
                }
            } catch (py::error_already_set& e) {
                if (!is_general_exception(e)) throw;
                if (++_sync_failures >= INFRASTRUCTURE_FAILURE_THRESHOLD) return turn_fatal();
            }
        }

        // Submission and polling threads degrade instead of ending the search.
        struct Background {
            py::object SearchHandle::*thread;
            bool SearchHandle::*degraded;
            const char* component;
            const char* target;
            const char* exited;
            const char* name;
        };
        static const Background kBackground[] = {
            {&SearchHandle::_submission_thread, &SearchHandle::_submission_degraded, "submission", "_submission_loop",
             "submission_thread exited", "submission_thread"},
            {&SearchHandle::_polling_thread, &SearchHandle::_polling_degraded, "polling", "_polling_loop",
             "polling_thread exited", "polling_thread"},
        };
        for (const Background& b : kBackground) {
            if ((this->*b.thread).is_none() || this->*b.degraded) continue;
            try {
                if (!is_alive(this->*b.thread)) {
                    py::object exited = py::reinterpret_borrow<py::object>(PyExc_RuntimeError)(b.exited);
                    record_background_failure(py::str(b.component), py::str("thread restart"), exited, true);
                    if (!(this->*b.degraded)) {
                        this->*b.thread = new_daemon_thread(me.attr(b.target), b.name);
                        (this->*b.thread).attr("start")();
                    }
                }
            } catch (py::error_already_set& e) {
                if (!is_general_exception(e)) throw;
                record_background_failure(py::str(b.component), py::str("thread restart"), e.value(), true);
            }
        }
    }
}

}  // namespace quillmarsh::st
