# `make test`  : create .venv if missing, (re)build and install the package with its test extras, run pytest
# `make demo`  : the same set-up, then run the main job on the embedded local platform
# `make bench` : the same set-up, then run the benchmarks under benchmarks/
# `make stubs` : regenerate the type stubs of the native modules from the built modules (kept in git)
# `make chaos` : the same set-up, then the kill-injection crash harness (50 trials)
PYTHON ?= python3
VENV   := .venv
VPY    := $(VENV)/bin/python
JOBS   ?= 2
export CMAKE_BUILD_PARALLEL_LEVEL := $(JOBS)

BUILD_INPUTS := CMakeLists.txt pyproject.toml \
	$(shell find src -name '*.cpp' -o -name '*.hpp' -o -name 'CMakeLists.txt' 2>/dev/null) \
	$(shell find python -name '*.py' 2>/dev/null)

.PHONY: test demo bench chaos build clean stubs postgres-server

test: $(VENV)/.installed postgres-server
	$(VPY) -m pytest $(PYTEST_ARGS)

build: $(VENV)/.installed

demo: $(VENV)/.installed
	$(VENV)/bin/quillmarsh demo --minutes 1 --jobs $(JOBS)

# Kill the search and the signal service at random, 50 times, and count what was lost (several minutes).
chaos: $(VENV)/.installed
	$(VPY) benchmarks/crash_harness.py --trials 50

bench: $(VENV)/.installed postgres-server
	@set -e; for b in benchmarks/bench_*.py; do \
	  [ -e "$$b" ] || continue; echo "== $$b"; $(VPY) "$$b"; done

# The stubs are generated from the built modules, then kept in the repository beside them; a test fails when
# a public name of a module is missing from its stub, so regenerate after adding one.
STUB_OUT := build/stubs
stubs: $(VENV)/.installed
	rm -rf $(STUB_OUT)
	$(VPY) -m pybind11_stubgen --output-dir $(STUB_OUT) --exit-code \
	  --ignore-unresolved-names '^(_thread\.|quillmarsh\.search_templates\._helpers\.)' \
	  quillmarsh.search_templates quillmarsh.local._evaluator
	$(VPY) tools/refine_stubs.py $(STUB_OUT)/quillmarsh/search_templates/__init__.pyi python/quillmarsh/search_templates.pyi \
	  quillmarsh.search_templates
	$(VPY) tools/refine_stubs.py $(STUB_OUT)/quillmarsh/local/_evaluator.pyi python/quillmarsh/local/_evaluator.pyi \
	  quillmarsh.local._evaluator

$(VPY):
	$(PYTHON) -m venv $(VENV)
	$(VPY) -m pip install -q --upgrade pip

# Build requirements live in the venv so that rebuilds reuse build/ incrementally.
$(VENV)/.build-deps: pyproject.toml | $(VPY)
	$(VPY) -m pip install -q "scikit-build-core>=0.10" "pybind11>=2.12" "cmake>=3.21" ninja
	touch $@

$(VENV)/.installed: $(BUILD_INPUTS) $(VENV)/.build-deps
	$(VPY) -m pip install -q --no-build-isolation -e '.[test]'
	touch $@

# The tests and benchmarks start a PostgreSQL server of their own; install its binaries only when absent.
postgres-server:
	@if ! command -v initdb >/dev/null 2>&1 && ! ls /usr/lib/postgresql/*/bin/initdb >/dev/null 2>&1; then \
	  if [ "$$(id -u)" = 0 ] && command -v apt-get >/dev/null 2>&1; then \
	    echo "installing the PostgreSQL server binaries for the tests"; \
	    (apt-get update -q && DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends \
	      postgresql) || echo "PostgreSQL could not be installed: the tests on a Postgres store will be skipped"; \
	  else echo "no PostgreSQL server binaries: the tests on a Postgres store will be skipped"; fi; fi

clean:
	rm -rf build $(VENV)
