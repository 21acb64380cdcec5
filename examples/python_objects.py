# Python objects used by host code: the host calls a Python function, iterates
# a Python generator, and fills a Python dict in place (kest.demo's apply and
# tally are written in C++ against the host's own interfaces).

import kest
from kest.demo import apply, tally


def area(side: float) -> float:
    """The area of a square."""
    return side * side


print("apply:", apply(area, [1, 2, 3]))
print("apply to a generator:", apply(str.upper, (w for w in ["a", "b"])))
print("signature seen by the host:", kest.signature(area))

counts = {"the": 10}
tally("the cat saw the other cat", counts)
print("tally filled the dict in place:", counts)
