// One binder per subsystem; module.cpp calls them in dependency order.
#pragma once

#include <pybind11/pybind11.h>

namespace quillmarsh::st {

namespace py = pybind11;

void bind_common(py::module_& m);
void bind_host_runtime(py::module_& m);
void bind_era(py::module_& m);
void bind_evaluation(py::module_& m);
void bind_submission(py::module_& m);
void bind_templates(py::module_& m);
void bind_engine(py::module_& m);
// After bind_engine: the submission and polling threads are methods of the handle class.
void bind_submission_loops(py::module_& m);

class SearchHandle;
// The handle's operations of the submission pipeline (claims, retry store, receipt journal, finalisation),
// bound onto the handle class by bind_engine.
void bind_submission_handle(py::class_<SearchHandle>& cls);

}  // namespace quillmarsh::st
