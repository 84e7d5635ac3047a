#include "submission/receipt_journal.hpp"

#include "common/py_helpers.hpp"

#include <string>

namespace quillmarsh::st {

namespace {

py::object os_module() {
    static PyObject* os = py::module_::import("os").release().ptr();
    return py::reinterpret_borrow<py::object>(os);
}

py::object io_module() {
    static PyObject* io = py::module_::import("io").release().ptr();
    return py::reinterpret_borrow<py::object>(io);
}

py::object json_module() {
    static PyObject* json = py::module_::import("json").release().ptr();
    return py::reinterpret_borrow<py::object>(json);
}

}  // namespace

std::string sanitize_receipt_journal_part(std::string_view part) {
    // Alphanumeric as Python's str.isalnum() sees it, one character at a time.
    py::str text(part.data(), part.size());
    std::string out;
    for (auto ch : text) {
        py::str c = py::reinterpret_borrow<py::str>(ch);
        std::string s = c.cast<std::string>();
        if (s == "-" || s == "_" || s == "." || truthy(c.attr("isalnum")()))
            out += s;
        else
            out += "_";
    }
    return out.empty() ? std::string("_") : out;
}

std::string receipt_journal_file_name(py::handle key) {
    std::string name;
    for (size_t i = 0; i < 3; ++i) {
        if (i) name += "__";
        name += sanitize_receipt_journal_part(str(key[py::int_(i)]));
    }
    return name + ".json";
}

py::tuple receipt_journal_key_of_entry(py::handle entry) {
    py::object e = py::reinterpret_borrow<py::object>(entry);
    return py::make_tuple(e.attr("get")("source_kind"), py::str(e.attr("get")("source_id")),
                          py::str(e.attr("get")("submission_id")));
}

py::str receipt_journal_text(py::handle entry) {
    static PyObject* builtin_str = reinterpret_cast<PyObject*>(&PyUnicode_Type);
    py::str text = json_module().attr("dumps")(entry, py::arg("sort_keys") = true,
                                               py::arg("default") = py::handle(builtin_str));
    return py::str(text + py::str("\n"));
}

void fsync_directory(py::handle directory) {
    py::object os = os_module();
    py::object fd = os.attr("open")(directory, os.attr("O_RDONLY"));
    try {
        os.attr("fsync")(fd);
    } catch (...) {
        os.attr("close")(fd);
        throw;
    }
    os.attr("close")(fd);
}

void write_receipt_journal_file(py::handle directory, py::handle final_path, py::handle tmp_path, py::handle text) {
    py::object os = os_module();
    py::object f = io_module().attr("open")(tmp_path, "w", py::arg("encoding") = "utf-8");
    try {
        f.attr("write")(text);
        f.attr("flush")();
        os.attr("fsync")(f.attr("fileno")());
    } catch (...) {
        f.attr("close")();
        throw;
    }
    f.attr("close")();
    os.attr("replace")(tmp_path, final_path);
    fsync_directory(directory);
}

}  // namespace quillmarsh::st
