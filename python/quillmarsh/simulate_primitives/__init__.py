"""Primitives of the signal simulation shared with the search: metaparameter resolution."""
