"""Mistakes that the stubs must make mypy report, one a line (see the test)."""
from __future__ import annotations

import quillmarsh.search_templates as st

handle = st.search(st.random_weighted, n_jobs="two")
count: str = handle.status().total_evaluated
st.search(42)
handle.stop(join_timeout="soon")
st.status().no_such_field
