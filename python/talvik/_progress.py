"""How far a search has come, by tqdm where it is installed."""

from __future__ import annotations

from contextlib import contextmanager, suppress
from importlib import import_module
from typing import Any, Callable, Iterator


@contextmanager
def progress_bar(verbose: int) -> Iterator[Callable[[int, int], None] | None]:
    """Give what is called with the queries done and the queries in all, or None."""
    tqdm: Any = None
    with suppress(ImportError):
        tqdm = import_module("tqdm") if verbose else None
    if tqdm is None:
        yield None
        return
    with tqdm.tqdm(desc="talvik", unit="doc") as bar:

        def show(done: int, total: int) -> None:
            bar.total = total
            bar.update(done - bar.n)

        yield show
        if bar.total is not None:
            bar.update(bar.total - bar.n)
