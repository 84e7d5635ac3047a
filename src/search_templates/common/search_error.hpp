// The exceptions of the search component and the table of error codes with their fixed words.
//
// Every SearchError the module raises is made here from its code, so the advice and the message of a
// code exist in exactly one place. A code's message is fixed but for the detail the table allows:
//   OUT_OF_MEMORY            the available figure, already formatted with one decimal
//   DISK_FULL                the remaining figure, already formatted with no decimals
//   RUNTIME_BOOTSTRAP_FAILED the bootstrap error's text; appended after a blank when not blank
//   INFRASTRUCTURE_FAILURE   the underlying error's text, after ": " (no detail: the short form)
//   DATABASE_ERROR           the underlying error's text, after the fixed prefix
#pragma once

#include <pybind11/pybind11.h>

#include <optional>
#include <string>
#include <string_view>

namespace quillmarsh::st {

namespace py = pybind11;

enum class ErrorCode {
    AuthError,
    RuntimeBootstrapFailed,
    OutOfMemory,
    DiskFull,
    DataDirRequired,
    ValidUniverseUnavailable,
    SearchTrackerUnavailable,
    EraConfigUnavailable,
    VocabularyUnavailable,
    BacktesterUnavailable,
    NoActiveSearch,
    InfrastructureFailure,
    DatabaseError,
};

struct ErrorWords {
    std::string_view code;    // e.g. "AUTH_ERROR"
    std::string_view advice;  // recovery_advice
    std::string_view message; // message, "{}" standing for the detail where the code takes one inline
};

const ErrorWords& error_words(ErrorCode code);
// Every code, in table order (for the host and the tests).
const ErrorWords* error_table_begin();
const ErrorWords* error_table_end();

// The message of `code` with its detail placed as the table above says.
std::string error_message(ErrorCode code, std::optional<std::string_view> detail = std::nullopt);

// The exception classes, made once at module initialisation.
py::object create_search_error_type();
py::object create_template_sandbox_violation_type();
py::object create_submission_protocol_error_type();
void register_exception_types(py::object search_error, py::object sandbox_violation, py::object protocol_error);
py::object search_error_type();
py::object template_sandbox_violation_type();
py::object submission_protocol_error_type();

// SearchError(code, advice, message, status); a null `status` means a stopped default SearchStatus.
py::object make_search_error(ErrorCode code, py::object status = py::object(),
                             std::optional<std::string_view> detail = std::nullopt);
[[noreturn]] void raise_search_error(ErrorCode code, py::object status = py::object(),
                                     std::optional<std::string_view> detail = std::nullopt);

}  // namespace quillmarsh::st
