// quillmarsh.search_templates: search orchestration, templates, submission pipeline.
#include "common/py_helpers.hpp"
#include "host/bindings.hpp"

PYBIND11_MODULE(search_templates, m) {
    using namespace quillmarsh::st;
    m.doc() = "Search templates subcomponent -- search orchestration, templates, submission pipeline.";
    set_module(m);
    bind_common(m);
    bind_host_runtime(m);
    bind_era(m);
    bind_evaluation(m);
    bind_submission(m);
    bind_templates(m);
    bind_engine(m);
    bind_submission_loops(m);
}
