// The value records of the search component: `SearchStatus` (a snapshot of a search, 23 fields) and
// `BacktestResult` (the outcome of evaluating one expression). Both are real dataclasses made at module
// initialisation, so `dataclasses.fields`, equality, repr and keyword construction behave as in Python.
#pragma once

#include <pybind11/pybind11.h>

namespace quillmarsh::st {

namespace py = pybind11;

py::object create_search_status_type();
py::object create_backtest_result_type();
void register_record_types(py::object search_status, py::object backtest_result);

py::object search_status_type();
py::object backtest_result_type();

// SearchStatus(**fields)
py::object new_search_status(const py::dict& fields = py::dict());
// SearchStatus(running=False): the status carried by errors raised before a search runs.
py::object stopped_search_status();
// BacktestResult(**fields)
py::object new_backtest_result(const py::dict& fields = py::dict());

}  // namespace quillmarsh::st
