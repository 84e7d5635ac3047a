"""Settings of the local signal service: review, verdict thresholds, quotas, token lifetime and faults."""
from __future__ import annotations

import dataclasses
import math

def _is_number(value) -> bool:
    return isinstance(value, (int, float)) and not isinstance(value, bool) and math.isfinite(value)


DEFAULT_TOKEN_TTL_SECONDS = 3600.0
DEFAULT_QUOTA_PER_HOUR = 10_000
DEFAULT_REVIEW_DELAY_SECONDS = 2.0
DEFAULT_OOS_SHARPE_MIN = 0.5
DEFAULT_OOS_FITNESS_MIN = 0.0
DEFAULT_CORRELATION_MAX = 0.7


@dataclasses.dataclass(frozen=True)
class Faults:
    """Faults served on purpose: a share of answers that are 500s, a share of connections dropped after the
    request has been handled (its answer lost), and latency added to each request. ``seed`` makes the
    draws repeatable."""

    error_rate: float = 0.0
    drop_rate: float = 0.0
    latency_seconds: float = 0.0
    seed: int | None = None

    def __post_init__(self):
        for name in ("error_rate", "drop_rate"):
            value = getattr(self, name)
            if not _is_number(value) or not 0.0 <= value <= 1.0:
                raise ValueError(f"{name} must be a number in [0, 1], got {value!r}")
        if not _is_number(self.latency_seconds) or not 0.0 <= self.latency_seconds < 3600.0:
            raise ValueError(f"latency_seconds must be a non-negative number of seconds, got {self.latency_seconds!r}")
        if self.error_rate + self.drop_rate > 1.0:
            raise ValueError("error_rate and drop_rate together must not exceed 1")

    @property
    def any(self) -> bool:
        return self.error_rate > 0 or self.drop_rate > 0 or self.latency_seconds > 0


@dataclasses.dataclass(frozen=True)
class ServiceConfig:
    """Everything the service can be told. The market arguments must be those of the platform whose
    account and data directory it shares, so that it judges signals on the same panel."""

    token_ttl_seconds: float = DEFAULT_TOKEN_TTL_SECONDS
    quota_per_hour: int = DEFAULT_QUOTA_PER_HOUR
    review_delay_seconds: float = DEFAULT_REVIEW_DELAY_SECONDS
    oos_sharpe_min: float = DEFAULT_OOS_SHARPE_MIN
    oos_fitness_min: float = DEFAULT_OOS_FITNESS_MIN
    correlation_max: float = DEFAULT_CORRELATION_MAX
    faults: Faults = Faults()
    n_instruments: int = 500
    n_days: int = 1260
    seed: int = 7
    era_id: int = 1
    durable_commits: bool = True

    def __post_init__(self):
        if not _is_number(self.token_ttl_seconds) or not self.token_ttl_seconds > 0:
            raise ValueError(f"token_ttl_seconds must be a positive number, got {self.token_ttl_seconds!r}")
        if isinstance(self.quota_per_hour, bool) or not isinstance(self.quota_per_hour, int) or self.quota_per_hour < 0:
            raise ValueError(f"quota_per_hour must be a non-negative integer, got {self.quota_per_hour!r}")
        if not _is_number(self.review_delay_seconds) or self.review_delay_seconds < 0:
            raise ValueError(f"review_delay_seconds must be a non-negative number, got {self.review_delay_seconds!r}")
        for name in ("oos_sharpe_min", "oos_fitness_min"):
            if not _is_number(getattr(self, name)):
                raise ValueError(f"{name} must be a finite number, got {getattr(self, name)!r}")
        if not _is_number(self.correlation_max) or not 0.0 <= self.correlation_max <= 1.0:
            raise ValueError(f"correlation_max must be a number in [0, 1], got {self.correlation_max!r}")
        if not isinstance(self.faults, Faults):
            raise TypeError("faults must be a Faults")
