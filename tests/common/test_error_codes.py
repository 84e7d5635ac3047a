"""The error-code table: every code with its fixed words. How a detail enters a message is seen where
search() and the handle report one."""
import pytest

import quillmarsh.search_templates as st

EXPECTED = {
    "AUTH_ERROR": ("Run register() or login(private_key) first.",
                   "Not authenticated. Run register() or login(private_key) first."),
    "RUNTIME_BOOTSTRAP_FAILED": (
        "Inspect the data sync/runtime bootstrap error, then rerun register() or login(private_key).",
        "Runtime bootstrap failed after authentication."),
    "OUT_OF_MEMORY": ("Run get_db_info() then delete_evaluations(). Reduce n_jobs if needed.",
                      "Not enough memory: requires 4.0 GB, available {} GB"),
    "DISK_FULL": ("Run get_db_info() then delete_evaluations() or delete_failed_evaluations().",
                  "Disk space critically low: {} MB remaining"),
    "DATA_DIR_REQUIRED": ("Set quillmarsh.agent_onboarding._config['data_dir'] before calling search().",
                          "data_dir is required to start a search."),
    "VALID_UNIVERSE_UNAVAILABLE": (
        "Configure valid_universe_id before searching.",
        "search() requires a target valid_universe_id so vocabulary lookup is scoped to one universe."),
    "SEARCH_TRACKER_UNAVAILABLE": (
        "Run get_db_info() and reinitialize the database before searching.",
        "SearchTracker unavailable: runtime did not provide a tracker. Run get_db_info() and reinitialize "
        "the database before searching."),
    "ERA_CONFIG_UNAVAILABLE": ("Run register() or login(private_key) again after data sync completes.",
                               "search() requires synced era config before expressions can be generated."),
    "VOCABULARY_UNAVAILABLE": (
        "Vocabulary data not found. Run search() after data sync completes, or ensure the per-universe "
        "vocabulary.json exists in your data directory.",
        "search() requires vocabulary data to validate and generate expressions."),
    "BACKTESTER_UNAVAILABLE": ("Run register() or login(private_key) again after data sync completes.",
                               "search() requires a usable private evaluation runtime/backtester."),
    "NO_ACTIVE_SEARCH": ("Call quillmarsh.search(template) first to start one.",
                         "No active search. Call quillmarsh.search(template) first to start one."),
    "INFRASTRUCTURE_FAILURE": ("register()", "Background infrastructure failed permanently"),
    "DATABASE_ERROR": ("Run get_db_info() to check database state. Consider restarting the search.",
                       "Database write failed after retry: "),
}


def test_table_holds_every_code_with_its_words():
    assert {code: (advice, msg) for code, advice, msg in st._helpers.error_codes()} == EXPECTED


def test_raising_by_code_keeps_a_given_status_and_unknown_codes_are_refused():
    status = st.SearchStatus(running=True, error_code="NO_ACTIVE_SEARCH")
    with pytest.raises(st.SearchError) as info:
        st._helpers.raise_search_error("NO_ACTIVE_SEARCH", status)
    assert info.value.status is status
    with pytest.raises(ValueError, match="unknown error code"):
        st._helpers.error_message("NOPE")
