"""Refine a stub that pybind11-stubgen generated from a built native module, and write it into the package.

A binding whose arguments are Python objects shows up in the generated stub as `typing.Any` everywhere; the
table below gives the public API the types a user's checker should see. Records made at module load
(dataclasses) get their fields from the live classes. A signature in the table for a name the module does
not have (yet, or any more) is reported on stderr and otherwise left out.

    python tools/refine_stubs.py GENERATED.pyi TARGET.pyi MODULE
"""
from __future__ import annotations

import ast
import dataclasses
import importlib
import re
import sys
import typing

HEADER = "# Generated from the built module by `make stubs` (pybind11-stubgen, then tools/refine_stubs.py).\n"

# Typed signatures of the public API, by qualified name. Only the `def` line is replaced; the docstring that
# the module carries stays as it was generated.
SIGNATURES = {
    "quillmarsh.search_templates": {
        "search": "def search(template: typing.Callable[[SearchContext], typing.Iterable[dict[str, typing.Any]]], "
                  "n_jobs: int = 1) -> SearchHandle:",
        "status": "def status() -> SearchStatus:",
        "delete_evaluations": "def delete_evaluations(eval_type: str | None = None, keep_last: int = 50000) "
                              "-> dict[str, int]:",
        "delete_failed_evaluations": "def delete_failed_evaluations(eval_type: str | None = None) -> dict[str, int]:",
        "get_db_info": "def get_db_info() -> dict[str, typing.Any]:",
        "submit_signal": "def submit_signal(graph: dict[str, typing.Any], universe_id: str, signal_pool_id: str, "
                         "is_stats: dict[str, float], is_pnl_mi: float, expression_elapsed_seconds: float, *, "
                         "metaparameters: dict[str, typing.Any] | None = None, "
                         "search_state: dict[str, typing.Any] | None = None) -> quillmarsh.submit.SubmissionReceipt:",
        "poll_status": "def poll_status(submission_id: str) -> quillmarsh.submit.SubmissionStatus:",
        "inject_heartbeat": "def inject_heartbeat() -> None:",
        "random_weighted": "def random_weighted(ctx: SearchContext) -> typing.Iterator[dict[str, typing.Any]]:",
        "analyze_random_weighted": "def analyze_random_weighted(ctx: SearchContext) -> dict[str, typing.Any]:",
        "_SearchHandleImpl.status": "def status(self) -> SearchStatus:",
        "_SearchHandleImpl.stop": "def stop(self, join_timeout: float = 2.0) -> None:",
        "SearchContext.evaluate": "def evaluate(self, expr_graph: dict[str, typing.Any]) -> BacktestResult | None:",
        "SearchContext.refresh_analytics": "def refresh_analytics(self) -> typing.Any:",
        "SearchContext.analytics": "def analytics(self) -> typing.Any:",
        # read-only properties that the generator shows as attributes
        "SearchContext.vocabulary": "vocabulary: dict[str, typing.Any]",
        "SearchContext.universe_id": "universe_id: str",
        "SearchContext.metaparameters": "metaparameters: dict[str, typing.Any]",
        "SearchContext.max_depth": "max_depth: int",
    },
    "quillmarsh.local._evaluator": {},
}

# Lines of the generated text that name what a checker cannot resolve, and what they become.
REPLACE_LINES = {
    "from . import _helpers": None,     # a private submodule: the stub is one file
}
REPLACE_TEXT = {
    "_thread.lock": "typing.Any",       # lock objects; the type has no importable name
    "_weakrefset.WeakSet": "_weakrefset.WeakSet[typing.Any]",
}

_GENERIC_ANY = {"dict": "dict[typing.Any, typing.Any]", "list": "list[typing.Any]", "set": "set[typing.Any]",
                "frozenset": "frozenset[typing.Any]", "tuple": "tuple[typing.Any, ...]"}
_BARE_GENERIC = re.compile(r"((?::|->|\|) )(dict|list|tuple|set|frozenset)(?![\w\[.(])")

# Fields of the exception classes, which the generator cannot see (they are set by the constructor).
EXCEPTION_FIELDS = {
    "quillmarsh.search_templates": {
        "SearchError": ["error_code: str", "recovery_advice: str", "message: str", "status: SearchStatus",
                        "def __init__(self, error_code: str, recovery_advice: str, message: str, "
                        "status: SearchStatus) -> None: ..."],
    },
}


def _annotation(tp: typing.Any) -> str:
    """A field type as stub text, with the type parameters that a strict checker wants."""
    if tp is bool or tp is int or tp is float or tp is str:
        return tp.__name__
    if tp is list:
        return "list[str]"
    if tp is dict:
        return "dict[str, typing.Any]"
    origin, args = typing.get_origin(tp), typing.get_args(tp)
    if origin in (list, set, frozenset, tuple) and args:
        return f"{origin.__name__}[{', '.join(_annotation(a) for a in args)}]"
    if origin is typing.Union and type(None) in args:
        rest = [a for a in args if a is not type(None)]
        return " | ".join(_annotation(a) for a in rest) + " | None"
    return "typing.Any"


def _dataclass_body(cls: type, indent: str) -> list[str]:
    lines = []
    for f in dataclasses.fields(cls):
        lines.append(f"{indent}{f.name}: {_annotation(f.type)}")
    params = ", ".join(f"{f.name}: {_annotation(f.type)} = ..." for f in dataclasses.fields(cls))
    lines.append(f"{indent}def __init__(self, {params}) -> None: ...")
    return lines


def refine(text: str, module_name: str) -> str:
    module = importlib.import_module(module_name)
    tree = ast.parse(text)
    lines = text.splitlines()
    edits: list[tuple[int, int, list[str]]] = []   # (first line, last line, replacement), 0-based inclusive
    table = dict(SIGNATURES.get(module_name, {}))
    used: set[str] = set()

    def visit(body: list[ast.stmt], prefix: str, indent: str) -> None:
        for node in body:
            if isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)):
                name = prefix + node.name
                if name in table:
                    first = node.lineno - 1
                    last = node.body[0].lineno - 2 if node.body else node.end_lineno - 1
                    one_line = node.body and node.body[0].lineno == node.lineno  # def f(): ...
                    new = indent + table[name] + (" ..." if one_line else "")
                    edits.append((first, node.lineno - 1 if one_line else last, [new]))
                    used.add(name)
            elif isinstance(node, ast.AnnAssign) and isinstance(node.target, ast.Name):
                name = prefix + node.target.id
                if name in table:
                    edits.append((node.lineno - 1, node.end_lineno - 1, [indent + table[name]]))
                    used.add(name)
            elif isinstance(node, ast.ClassDef):
                cls = getattr(module, node.name, None)
                if prefix == "" and dataclasses.is_dataclass(cls):
                    doc = ast.get_docstring(node)
                    body = [f'{indent}    """{doc}"""'] if doc else []
                    edits.append((node.body[0].lineno - 1, node.end_lineno - 1,
                                  body + _dataclass_body(cls, indent + "    ")))
                    continue
                extra = EXCEPTION_FIELDS.get(module_name, {}).get(node.name)
                if extra and prefix == "":
                    doc = ast.get_docstring(node)
                    body = [f'{indent}    """{doc}"""'] if doc else []
                    edits.append((node.body[0].lineno - 1, node.end_lineno - 1,
                                  body + [indent + "    " + e for e in extra]))
                    continue
                visit(node.body, prefix + node.name + ".", indent + "    ")

    visit(tree.body, "", "")
    unused = sorted(set(table) - used)
    if unused:  # said out loud, so that a renamed or removed function does not leave a dead entry unseen
        print(f"refine_stubs: not in the generated stub of {module_name} (entry unused): {', '.join(unused)}",
              file=sys.stderr)
    for first, last, new in sorted(edits, reverse=True):
        lines[first:last + 1] = new
    lines = [REPLACE_LINES.get(line.strip(), line) if line.strip() in REPLACE_LINES else line for line in lines]
    out = "\n".join(line for line in lines if line is not None) + "\n"
    for old, new in REPLACE_TEXT.items():
        out = out.replace(old, new)
    # bare containers in annotations, which a strict checker refuses: give them their parameters
    out = _BARE_GENERIC.sub(lambda m: m.group(1) + _GENERIC_ANY[m.group(2)], out)
    if "import typing" not in out:
        out = "import typing\n" + out
    if "quillmarsh.submit." in out and "import quillmarsh.submit\n" not in out:
        out = out.replace("import typing\n", "import quillmarsh.submit\nimport typing\n", 1)
    return HEADER + out


def main(argv: list[str]) -> int:
    if len(argv) != 3:
        print(__doc__, file=sys.stderr)
        return 2
    generated, target, module_name = argv
    with open(generated) as fh:
        text = refine(fh.read(), module_name)
    ast.parse(text)
    with open(target, "w") as fh:
        fh.write(text)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
