"""Tables in Markdown, as bench/peers prints them."""

import numpy as np


def significant(number):
    """Three digits, from ten thousand on two and an exponent."""
    if number >= 1e4:
        return f"{number:.1e}".replace("e+0", "e")
    return f"{number:.{max(0, 2 - int(np.floor(np.log10(number))))}f}"


def row(*cells):
    print("| " + " | ".join(str(cell) for cell in cells) + " |", flush=True)


def header(*cells):
    row(*cells)
    print("|" + "---|" * len(cells))
