# `make test`  : create .venv if missing, (re)build and install the package with its test extras, run pytest
# `make demo`  : the same set-up, then run the main job on the embedded local platform
# `make bench` : the same set-up, then run the benchmarks under benchmarks/
PYTHON ?= python3
VENV   := .venv
VPY    := $(VENV)/bin/python
JOBS   ?= 2
export CMAKE_BUILD_PARALLEL_LEVEL := $(JOBS)

BUILD_INPUTS := CMakeLists.txt pyproject.toml \
	$(shell find src -name '*.cpp' -o -name '*.hpp' -o -name 'CMakeLists.txt' 2>/dev/null) \
	$(shell find python -name '*.py' 2>/dev/null)

.PHONY: test demo bench build clean postgres-server

test: $(VENV)/.installed postgres-server
	$(VPY) -m pytest $(PYTEST_ARGS)

build: $(VENV)/.installed

demo: $(VENV)/.installed
	$(VENV)/bin/quillmarsh demo --minutes 1 --jobs $(JOBS)

bench: $(VENV)/.installed postgres-server
	@set -e; for b in benchmarks/bench_*.py; do \
	  [ -e "$$b" ] || continue; echo "== $$b"; $(VPY) "$$b"; done

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
