"""The local platform's backtester: a synthetic market, its vocabulary and era, and a fast evaluator."""
