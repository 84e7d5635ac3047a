// Timing constants, limits and the submission status sets shared by every subsystem.
// The host binds each of them under the same name; C++ code reads them from here.
#pragma once

#include <array>
#include <string_view>

namespace quillmarsh::st {

// Seconds, as floats.
inline constexpr double SUPERVISOR_HEALTH_CHECK_INTERVAL = 0.5;  // one supervisor cycle
inline constexpr double SYNC_POLL_INTERVAL = 1.0;                // declared; start-up retries do not wait
inline constexpr double ERA_POLL_INTERVAL = 1.0;                 // one era thread cycle
inline constexpr double SUBMISSION_POLL_INTERVAL = 0.5;          // the submission thread
inline constexpr double POLLING_INTERVAL = 1.0;                  // the polling thread
inline constexpr double SUBMISSION_QUEUE_LEASE_SECONDS = 300.0;  // lease on a claimed queue row

// Consecutive failures at which a background capability degrades or the search turns fatal.
inline constexpr int INFRASTRUCTURE_FAILURE_THRESHOLD = 10;

inline constexpr std::string_view NOT_AUTHENTICATED_MESSAGE =
    "Not authenticated. Run register() or login(private_key) first.";
inline constexpr std::string_view MANAGEMENT_ACTIVE_ERROR =
    "Cannot delete evaluations while a search is running. Call handle.stop() first.";

// Final statuses of a submission at the signal service.
inline constexpr std::array<std::string_view, 2> SUBMISSION_ACCEPTED_STATUSES = {"found", "useful"};
inline constexpr std::array<std::string_view, 4> SUBMISSION_REJECTED_STATUSES = {
    "is_rejected", "not_useful", "os_failed", "useful_transition_failed"};

constexpr bool is_accepted_submission_status(std::string_view s) {
    for (auto v : SUBMISSION_ACCEPTED_STATUSES)
        if (v == s) return true;
    return false;
}
constexpr bool is_rejected_submission_status(std::string_view s) {
    for (auto v : SUBMISSION_REJECTED_STATUSES)
        if (v == s) return true;
    return false;
}
constexpr bool is_terminal_submission_status(std::string_view s) {
    return is_accepted_submission_status(s) || is_rejected_submission_status(s);
}

}  // namespace quillmarsh::st
