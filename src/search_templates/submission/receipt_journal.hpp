// The receipt journal: one small JSON file per receipt that the service has accepted and the store has not
// yet recorded.
//
// A file lives in `submission_receipts_pending` under the data directory. It is written to a temporary
// name of its owner, flushed and fsynced, renamed over its final name and made durable by an fsync of the
// directory; only then does the store's transaction run. After the commit the file goes (and the directory
// with it once empty). A process that dies in between leaves the file, and the next flush replays it.
//
// The handle's operations (`_append_receipt_journal`, `_replay_receipt_journal`, ...) are members of
// SearchHandle; this header holds the pieces that need no handle: names, keys and the durable file steps.
// File work goes through Python's `io` and `os` (read at each call), so the GIL is released during every
// system call, fsync included.
#pragma once

#include <pybind11/pybind11.h>

#include <string>
#include <string_view>

namespace quillmarsh::st {

namespace py = pybind11;

inline constexpr const char* RECEIPT_JOURNAL_DIR_NAME = "submission_receipts_pending";

// One part of a key made safe for a file name: every character that Python does not call alphanumeric,
// other than "-", "_" or ".", becomes "_"; an empty result becomes "_".
std::string sanitize_receipt_journal_part(std::string_view part);
// "<kind>__<id>__<submission id>.json" of a key (source_kind, source_id, submission_id).
std::string receipt_journal_file_name(py::handle key);
// The key (source_kind, str(source_id), str(submission_id)) of a journal entry.
py::tuple receipt_journal_key_of_entry(py::handle entry);
// The journal text of an entry: sorted keys, values JSON can't hold as their text, a trailing newline.
py::str receipt_journal_text(py::handle entry);

// Writes `text` to `tmp_path` (UTF-8), flushes and fsyncs it, renames it over `final_path` and fsyncs
// `directory`. Errors propagate; a temporary file left by a failure is never read as an entry.
void write_receipt_journal_file(py::handle directory, py::handle final_path, py::handle tmp_path, py::handle text);
// Opens `directory` read-only, fsyncs it and closes it, closing in every case.
void fsync_directory(py::handle directory);

}  // namespace quillmarsh::st
