"""Kernels of OpenBLAS by what the processor has, for those that are newer than its release."""

from __future__ import annotations

import contextlib
import os
import pathlib
from collections.abc import Iterator

_VARIABLE = "OPENBLAS_CORETYPE"
_KERNELS = {  # the best first, and what a processor needs for them
    "SkylakeX": {"avx512f", "avx512dq", "avx512bw", "avx512vl"},
    "Haswell": {"avx2", "fma"},
}


def _kernels_of_processor() -> str | None:
    try:
        lines = pathlib.Path("/proc/cpuinfo").read_text().splitlines()
    except OSError:
        return None
    flags = set(next((line for line in lines if line.startswith("flags")), "").split())
    return next((name for name, needed in _KERNELS.items() if needed <= flags), None)


@contextlib.contextmanager
def kernels_of_processor() -> Iterator[None]:
    """Lets an OpenBLAS that is loaded meanwhile take the kernels for this processor.

    It picks them by the model number when it is loaded; for one that its release does not know it
    falls back on those of 2004, which take several times as long.  What has been picked can be seen
    only afterwards, so they are named by the instructions that there are, on known processors,
    too.  What ``OPENBLAS_CORETYPE`` says counts; else the variable is set for as long as the
    loading takes.
    """
    kernels = None if _VARIABLE in os.environ else _kernels_of_processor()
    if kernels is None:
        yield
        return
    os.environ[_VARIABLE] = kernels
    try:
        yield
    finally:
        del os.environ[_VARIABLE]
