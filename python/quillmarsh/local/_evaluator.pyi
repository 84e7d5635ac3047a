# Generated from the built module by `make stubs` (pybind11-stubgen, then tools/refine_stubs.py).
"""
Panel kernels of the local backtester (float64, C-contiguous, (days, instruments)).
"""
from __future__ import annotations
import numpy
import numpy.typing
import typing
__all__: list[str] = ['binary', 'book_daily', 'book_series', 'book_weights', 'cs', 'kernel_build', 'min_periods', 'ts', 'ts2', 'unary']
def binary(op: str, x: numpy.ndarray, y: numpy.ndarray) -> numpy.typing.NDArray[numpy.float64]:
    """
    Element-wise: add, sub, mul, div, min, max.
    
    Args:
        op: the operator's name.
        x, y: float64, C-contiguous (days, instruments) panels of one shape.
    
    Returns:
        numpy.ndarray: a new panel of that shape.
    
    Raises:
        TypeError: a panel is not float64.
        ValueError: an unknown `op`, a panel not 2-D or not C-contiguous, panels of different shapes,
            or a bad window.
    """
def book_daily(weights: numpy.ndarray, fwd_returns: numpy.ndarray, flag: typing.Any = None) -> tuple[typing.Any, ...]:
    """
    Daily (pnl, traded, longs, shorts, net, abs_sum, max_share, held, flagged) of a book.
    
    Args:
        weights: the book, a float64, C-contiguous (days, instruments) panel.
        fwd_returns: next-day returns, a panel of the same shape; NaN earns nothing.
        flag: None, or a bool/uint8 panel of that shape marking cells to count as flagged.
    
    Returns:
        tuple[numpy.ndarray, ...]: nine float64 arrays of one value per day, in the order above.
    
    Raises:
        TypeError: a panel is not float64, or the flag not bool/uint8.
        ValueError: panels not 2-D, not C-contiguous or of different shapes.
    """
def book_series(signal: numpy.ndarray, fwd_returns: numpy.ndarray, normalization: str, decay: typing.SupportsInt | typing.SupportsIndex, truncation: typing.SupportsFloat | typing.SupportsIndex, flag: typing.Any = None) -> tuple[typing.Any, ...]:
    """
    book_weights then book_daily in one pass, without materialising the book.
    
    Args:
        signal, fwd_returns: float64, C-contiguous (days, instruments) panels of one shape.
        normalization, decay, truncation: as for book_weights.
        flag: as for book_daily.
    
    Returns:
        tuple[numpy.ndarray, ...]: the nine daily series of book_daily.
    
    Raises:
        TypeError, ValueError: as book_weights and book_daily do.
    """
def book_weights(signal: numpy.ndarray, normalization: str, decay: typing.SupportsInt | typing.SupportsIndex, truncation: typing.SupportsFloat | typing.SupportsIndex) -> numpy.typing.NDArray[numpy.float64]:
    """
    Dollar-neutral book with unit gross from a raw signal.
    
    Args:
        signal: a float64, C-contiguous (days, instruments) panel of raw signal values.
        normalization: "none", "rank", "zscore" or "rescale", applied per day.
        decay: days of linear decay (0 or 1: none), not negative.
        truncation: the largest weight as a share of the book, in [0, 1] (0: no clip).
    
    Returns:
        numpy.ndarray: the weights, a panel of the signal's shape; each day sums to 0 with
        sum(|w|) = 1, or is all 0 without a signal.
    
    Raises:
        TypeError: the signal is not float64.
        ValueError: an unknown normalization, a negative decay, a truncation outside [0, 1], or a
            panel not 2-D or not C-contiguous.
    """
def cs(op: str, x: numpy.ndarray) -> numpy.typing.NDArray[numpy.float64]:
    """
    Cross-sectional operator: rank, zscore, demean, scale.
    
    Args:
        op: the operator's name, applied to each day's row.
        x: a float64, C-contiguous (days, instruments) panel; NaN cells are left out and stay NaN.
    
    Returns:
        numpy.ndarray: a new panel of the shape of `x`.
    
    Raises:
        TypeError: a panel is not float64.
        ValueError: an unknown `op`, a panel not 2-D or not C-contiguous, panels of different shapes,
            or a bad window.
    """
def min_periods(window: typing.SupportsInt | typing.SupportsIndex, needs_two: bool) -> int:
    """
    The fewest valid values a rolling window needs before it yields one.
    
    Args:
        window: days in the window.
        needs_two: the operator needs at least two values (std, corr, ...).
    
    Returns:
        int: the minimum count of valid values.
    """
def ts(op: str, x: numpy.ndarray, window: typing.SupportsInt | typing.SupportsIndex) -> numpy.typing.NDArray[numpy.float64]:
    """
    Rolling operator over the last `window` days: sum, mean, std, zscore, min, max, rank, decay_linear, delay, delta.
    
    Args:
        op: the operator's name.
        x: a float64, C-contiguous (days, instruments) panel; NaN marks a missing value.
        window: days in the window, at least 1.
    
    Returns:
        numpy.ndarray: a new panel of the shape of `x`; NaN where the window holds too few values.
    
    Raises:
        TypeError: a panel is not float64.
        ValueError: an unknown `op`, a panel not 2-D or not C-contiguous, panels of different shapes,
            or a bad window.
    """
def ts2(op: str, x: numpy.ndarray, y: numpy.ndarray, window: typing.SupportsInt | typing.SupportsIndex) -> numpy.typing.NDArray[numpy.float64]:
    """
    Rolling two-input operator: corr, cov.
    
    Args:
        op: "corr" or "cov".
        x, y: float64, C-contiguous (days, instruments) panels of one shape.
        window: days in the window, at least 1.
    
    Returns:
        numpy.ndarray: a new panel of that shape; NaN where the window holds too few pairs.
    
    Raises:
        TypeError: a panel is not float64.
        ValueError: an unknown `op`, a panel not 2-D or not C-contiguous, panels of different shapes,
            or a bad window.
    """
def unary(op: str, x: numpy.ndarray) -> numpy.typing.NDArray[numpy.float64]:
    """
    Element-wise: neg, abs, sign, slog, ssqrt, square, inverse.
    
    Args:
        op: the operator's name.
        x: a float64, C-contiguous (days, instruments) panel.
    
    Returns:
        numpy.ndarray: a new panel of the shape of `x`.
    
    Raises:
        TypeError: a panel is not float64.
        ValueError: an unknown `op`, a panel not 2-D or not C-contiguous, panels of different shapes,
            or a bad window.
    """
kernel_build: str = 'x86-64-v3'
