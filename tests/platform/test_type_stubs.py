"""The type stubs of the native modules: every public name is in them, and mypy --strict uses them."""
import ast
import importlib
import os
import subprocess
import sys
from pathlib import Path

import pytest

PACKAGE = Path(__file__).resolve().parents[2] / "python" / "quillmarsh"
TYPED = Path(__file__).resolve().parent / "typed"
STUBS = [("quillmarsh.search_templates", PACKAGE / "search_templates.pyi"),
         ("quillmarsh.local._evaluator", PACKAGE / "local" / "_evaluator.pyi")]


def stub_names(text: str) -> tuple[set, dict]:
    """The names a stub defines at its top level, and the member names of each class it defines."""
    def defined(body) -> set:
        names = set()
        for node in body:
            if isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef, ast.ClassDef)):
                names.add(node.name)
            elif isinstance(node, ast.AnnAssign) and isinstance(node.target, ast.Name):
                names.add(node.target.id)
            elif isinstance(node, ast.Assign):
                names.update(t.id for t in node.targets if isinstance(t, ast.Name))
            elif isinstance(node, ast.ImportFrom):
                names.update(a.asname or a.name for a in node.names)
        return names

    tree = ast.parse(text)
    classes = {node.name: defined(node.body) for node in tree.body if isinstance(node, ast.ClassDef)}
    return defined(tree.body), classes


def missing_from_stub(module, text: str) -> list:
    """Public names of `module` (and public members of its public classes) that the stub lacks."""
    names, classes = stub_names(text)
    missing = []
    for name in dir(module):
        if name.startswith("_"):
            continue
        if name not in names:
            missing.append(name)
            continue
        value = getattr(module, name)
        # a public alias of a class (SearchHandle) is checked against the class it names
        if isinstance(value, type) and value.__module__ == module.__name__:
            members = classes.get(value.__name__)
            if members is None:
                missing.append(f"{name} (class {value.__name__})")
                continue
            missing.extend(f"{name}.{m}" for m in vars(value) if not m.startswith("_") and m not in members)
    return sorted(missing)


@pytest.mark.parametrize("module_name, stub", STUBS, ids=[m for m, _ in STUBS])
def test_every_public_name_of_the_module_is_in_its_stub(module_name, stub):
    module = importlib.import_module(module_name)
    text = stub.read_text()
    assert missing_from_stub(module, text) == [], f"run `make stubs`: {stub.name} is out of date"
    assert (PACKAGE / "py.typed").is_file()


def mypy(*files):
    env = dict(os.environ, MYPYPATH=str(PACKAGE.parent))
    return subprocess.run([sys.executable, "-m", "mypy", "--strict", "--follow-imports=silent",
                           "--no-incremental", "--cache-dir", os.devnull, *map(str, files)],
                          capture_output=True, text=True, env=env, timeout=600)


@pytest.mark.slow
def test_mypy_strict_accepts_a_script_that_uses_the_api_and_rejects_misuse():
    good = mypy(TYPED / "uses_the_api.py")
    assert good.returncode == 0, good.stdout + good.stderr
    bad = mypy(TYPED / "misuses_the_api.py")
    flagged = {int(line.split(":")[1]) for line in bad.stdout.splitlines() if ": error:" in line}
    lines = (TYPED / "misuses_the_api.py").read_text().splitlines()
    expected = {i for i, line in enumerate(lines, 1) if line and not line.startswith(('"', "from", "import"))}
    assert flagged == expected, bad.stdout
