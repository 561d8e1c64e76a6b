"""Waiting for what comes by and by."""

import time


def until(is_so, what, patience=120):
    """Returns the first value that is true; for something that comes soon unless it is broken."""
    deadline = time.monotonic() + patience
    while not (value := is_so()):
        if time.monotonic() > deadline:
            raise AssertionError(f"{what() if callable(what) else what}: in vain")
        time.sleep(0.02)
    return value
