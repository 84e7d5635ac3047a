// The vocabulary of an era: the functions and features that expressions may use.
//
// A vocabulary arrives flat ({"functions": [...], "features": [...]}) or in the canonical nested
// shape, where functions are grouped by kind under "rotations", "filtrations" and "reductions" and
// entries may sit in groups of any depth. Normalisation yields the flat shape. A flat list is trusted
// as it stands; nested input is checked against the canonical contract of an entry, and a violation
// raises VocabSchemaError (a ValueError carrying source_kind, missing, unexpected and entry).
#pragma once

#include <pybind11/pybind11.h>

#include <array>
#include <string_view>

namespace quillmarsh::st {

namespace py = pybind11;

inline constexpr std::array<std::string_view, 5> ROTATION_REQUIRED_FIELDS = {
    "name", "function_type", "function_family", "function_subfamily", "param_schema"};
inline constexpr std::array<std::string_view, 4> FILTRATION_REQUIRED_FIELDS = {
    "name", "function_type", "function_family", "param_schema"};
inline constexpr std::array<std::string_view, 1> FILTRATION_FORBIDDEN_FIELDS = {"function_subfamily"};
inline constexpr std::array<std::string_view, 5> REDUCTION_REQUIRED_FIELDS = {
    "name", "function_type", "function_family", "function_subfamily", "param_schema"};
inline constexpr std::array<std::string_view, 7> FEATURE_REQUIRED_FIELDS = {
    "name", "function_type", "feature_family", "feature_subfamily", "rotation_families", "feature_hash", "stats"};
inline constexpr std::array<std::string_view, 5> FEATURE_STATS_REQUIRED_KEYS = {"mean", "std", "pct_nan", "min",
                                                                                "max"};

// The VocabSchemaError class, made once at module initialisation.
py::object create_vocab_schema_error_type();
void register_vocab_schema_error_type(py::object cls);
py::object vocab_schema_error_type();

// A frozenset of field names, as the module binds the constants above.
py::frozenset field_set(const std::string_view* begin, const std::string_view* end);
template <size_t N>
py::frozenset field_set(const std::array<std::string_view, N>& fields) {
    return field_set(fields.data(), fields.data() + N);
}

// Shallow copies of the dict entries found in lists, descending through dicts of any depth.
py::list flatten_vocabulary_entries(py::handle node);
// The flat shape of a vocabulary; the caller's value is not changed.
py::dict normalize_template_vocabulary(py::handle vocab);
// Raises VocabSchemaError for a canonical violation, ValueError for an unknown source kind.
void validate_function_entry(py::handle entry, py::handle source_kind);
void validate_feature_entry(py::handle entry);

}  // namespace quillmarsh::st
