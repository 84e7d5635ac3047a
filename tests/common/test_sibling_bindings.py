"""Names bound at load from the sibling modules. Each case loads the module in a fresh interpreter,
after putting fake siblings (or a sibling with a missing dependency) in place."""
import os
import subprocess
import sys
import textwrap
import types

import pytest

import quillmarsh.search_templates as st

PRELUDE = textwrap.dedent(
    """
    import sys, types
    sys.path.insert(0, %r)
    from common.conftest import BrokenDependencyFinder

    def fake(name, **attrs):
        module = types.ModuleType(name)
        module.__dict__.update(attrs)
        sys.modules[name] = module
        return module

    class NotReady(Exception):
        pass
    """ % os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
)


def run(body):
    code = PRELUDE + textwrap.dedent(body)
    return subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)


def test_siblings_present_are_bound_and_the_resolvers_fall_back():
    result = run(
        """
        fake("quillmarsh.errors", SdkRuntimeNotReadyError=NotReady)
        sys.modules["quillmarsh.simulate_primitives"] = None
        fallback = fake("quillmarsh._simulate_primitives", canonicalize=len, resolve_metaparameters=min,
                        resolve_metaparameters_per_pool=max)
        sys.modules["quillmarsh.sync"] = None
        import quillmarsh.search_templates as st
        assert st.SdkRuntimeNotReadyError is NotReady
        assert (st._canonicalize_metaparameters, st._resolve_metaparameters,
                st._resolve_metaparameters_per_pool) == (len, min, max)
        assert not hasattr(st, "SyncManager")
        try:
            st._derive_search_universe_id(None)
        except NotReady as exc:
            print("raised:", exc)
        """
    )
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == "raised: search era config does not define a universe id"


def test_a_sibling_missing_a_dependency_stops_the_load():
    result = run(
        """
        sys.meta_path.insert(0, BrokenDependencyFinder("quillmarsh.sync", "qm_dep"))
        try:
            import quillmarsh.search_templates
        except ImportError as exc:
            missing = exc if isinstance(exc, ModuleNotFoundError) else exc.__cause__
            print("missing:", missing.name)
        """
    )
    assert result.returncode == 0, result.stderr
    assert result.stdout.strip() == "missing: qm_dep"


def test_an_unbound_sibling_name_is_imported_at_the_moment_of_use(monkeypatch):
    class Imported(Exception):
        pass

    monkeypatch.delattr(st, "SdkRuntimeNotReadyError", raising=False)
    monkeypatch.setitem(sys.modules, "quillmarsh.errors", types.SimpleNamespace(SdkRuntimeNotReadyError=Imported))
    with pytest.raises(Imported):
        st._derive_search_universe_id(None)
