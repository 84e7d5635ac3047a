// The two background threads of the submission pipeline, bound as methods of the search handle.
//
// The submission thread drains the in-memory queue and the store's queue and retry tables, one fresh
// signal and one due retry in turn, and sends each payload through the direct interface under the
// handle's submission start guard. It owns the meaning of each outcome of a send:
//   * a receipt is journalled and recorded by the receipt finalisation;
//   * a connection error (no answer, 5xx) puts the payload back and pauses sending with a doubling
//     back-off (5 s up to 300 s);
//   * a refusal with status 401, or 403 with a `ban_expiry`, goes to the retry table; any other refusal
//     is final and resets the back-off, the service having been reachable;
//   * anything else is a defect of the payload: final, back-off untouched.
// Failures of the store go to the handle's failure ledger, which degrades the thread after ten in a row.
//
// The polling thread asks the service about every pending submission once a second, writes each answer
// through `notify_submission_status`, and drops an id once its status is terminal. A connection error
// pauses polling with the same doubling back-off; a refusal finalises the id as rejected.
//
// Both threads hold the GIL while they work and give it up while they wait. Lock order: start guard,
// then `_tracker_write_lock`, then `_lock`; no network call runs under `_tracker_write_lock`.
#pragma once

#include <pybind11/pybind11.h>

#include <exception>

namespace quillmarsh::st {

namespace py = pybind11;

class SearchHandle;

// Sleeps for min(float(seconds), SUBMISSION_POLL_INTERVAL) with the GIL released: the real pause is kept
// by the back-off deadline, and a short sleep keeps the thread responsive to stop and abort.
void submission_backoff_sleep(py::object seconds);

// A C++ failure inside a loop, as the RuntimeError it would have been in Python.
py::object loop_runtime_error(const std::exception& ex);

// The back-off of both threads after a connection error: the value it starts from and returns to, its
// growth per failure and its ceiling, in seconds.
inline constexpr double LOOP_BACKOFF_RESET_SECONDS = 5.0;
inline constexpr double LOOP_BACKOFF_FACTOR = 2.0;
inline constexpr double LOOP_BACKOFF_CEILING_SECONDS = 300.0;

// The reason of a refusal by the service (a SubmissionRejectedError): its `reason`, else the `error`
// entry of its details, else "unknown".
py::object rejection_reason(py::handle exc);

// dict(payload): a shallow copy as a new map.
py::dict copy_of(py::handle payload);

// The outer guard of both threads: runs the handle's operation `inner` until it returns normally, while
// `keep_going(h)` holds and `degraded` is false. A failure goes to the ledger under `component` as "loop";
// the thread ends once that has degraded it, else sleeps `backoff_seconds` and starts over.
void run_guarded_loop(SearchHandle& h, const char* component, const char* inner, const bool& degraded,
                      const double& backoff_seconds, bool (*keep_going)(SearchHandle&));

// ---- the submission thread ----
void submission_loop(SearchHandle& h);
void submission_loop_inner(SearchHandle& h);
void submit_payload(SearchHandle& h, py::object payload);
// The payload's idempotency key, computed from its body and stored in it when it has none.
py::object ensure_submission_idempotency_key(py::object payload);
// The durable note that a send of this payload begins (persistent store only).
void record_submission_attempt_started(SearchHandle& h, py::object payload);
bool payload_has_persistent_submission_source(SearchHandle& h, py::handle payload);

// ---- the polling thread ----
void polling_loop(SearchHandle& h);
void polling_loop_inner(SearchHandle& h);
// The pending items: the store's view, overridden by the in-memory view for the same id.
py::list pending_payloads(SearchHandle& h);
void apply_polled_status(SearchHandle& h, py::object payload, py::object poll_result);
void finalize_pending_error(SearchHandle& h, py::object payload, py::object status_code, py::object reason);

}  // namespace quillmarsh::st
