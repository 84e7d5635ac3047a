// Hand-over points between the search engine and the submission pipeline.
//
// Stop, abort and status() call the receipt operations below. Until the submission pipeline's own
// behaviour lands (claims and leases, the retry store, the receipt journal, finalisation), each body here
// does the least that keeps the engine's side of the contract. Each says which behaviour will replace it.
#include "common/constants.hpp"
#include "common/py_helpers.hpp"
#include "engine/search_handle.hpp"

namespace quillmarsh::st {

// Filled by receipt finalisation: records receipts still waiting for their transaction, then replays the
// receipt journal. Nothing can be waiting before the submission loop sends, so nothing blocks new work.
bool SearchHandle::flush_pending_receipt_finalizations() { return true; }

// Filled by receipt finalisation and counts, which will own this refresh; it is already what status()
// reports: the in-memory queue size, the pending map and the retry list.
void SearchHandle::update_submission_counts() {
    long long queued = 0;
    try {
        queued = py::int_(_submission_queue.attr("qsize")()).cast<long long>();
    } catch (py::error_already_set& e) {
        if (!is_general_exception(e)) throw;
        queued = 0;
    }
    PyLockHold hold(_lock);
    _submission_queued = queued;
    _submission_pending = static_cast<long long>(py::len(_pending_submissions));
    _submission_retrying = static_cast<long long>(py::len(_retry_queue));
}

// Filled by the receipt journal: removes the file of one completed key. No journal is written before the
// submission loop sends, so there is no file to remove.
void SearchHandle::rewrite_receipt_journal_without(py::object /*completed_key*/) {}

// Filled by queue claims: deletes the claimed queue or retry row of `payload` under its claim guards and
// reports whether exactly one row went. No row is claimed before the submission loop claims one.
bool SearchHandle::delete_claimed_submission_source(py::object /*payload*/) { return false; }

// Filled by receipt finalisation: the edge-triggered nudge when the rate of recorded submissions falls.
// With no submissions recorded by this search there is no rate to judge.
void SearchHandle::maybe_fire_discovery_rate_declining_nudge() {}

}  // namespace quillmarsh::st
