"""quillmarsh: client library of a service that collects quantitative trading signals."""
