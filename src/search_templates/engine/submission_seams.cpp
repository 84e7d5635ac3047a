// The submission and polling threads of a handle.
//
// The engine starts both threads; until their own loops land, each waits for the search to stop and ends.
#include "common/constants.hpp"
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"

namespace quillmarsh::st {

namespace {

bool event_is_set(const py::object& event) { return truthy(event.attr("is_set")()); }

// Waits until the stop event is set, in steps of the given interval, and ends.
void wait_for_stop(SearchHandle& h, double interval) {
    while (!event_is_set(h._stop_event)) SearchHandle::interruptible_wait(h._stop_event, interval);
}

}  // namespace

// Filled by the submission loop: claim, send under the start guard, record, retry with back-off.
void SearchHandle::submission_loop() { wait_for_stop(*this, SUBMISSION_POLL_INTERVAL); }

// Filled by status polling: ask the service about each pending id until a terminal status.
void SearchHandle::polling_loop() { wait_for_stop(*this, POLLING_INTERVAL); }

}  // namespace quillmarsh::st
