"""The local platform's backtester: a synthetic market, its vocabulary and era, and a fast evaluator."""
from .era import LocalEraConfig, local_era_map
from .evaluator import LocalBacktestStats, LocalEvaluator
from .market import Market, generate_market, load_csv_market, load_market
from .vocabulary import Vocabulary, build_vocabulary

__all__ = ["LocalEraConfig", "local_era_map", "LocalBacktestStats", "LocalEvaluator", "Market",
           "generate_market", "load_csv_market", "load_market", "Vocabulary", "build_vocabulary"]
