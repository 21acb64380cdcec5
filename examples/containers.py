# Host containers used as Python's own: a host map is a dict-like Mapping, a
# host list a MutableSequence, and Python code can make host containers.
import collections.abc
import json

import kest
import kest.demo

palette = kest.demo.Palette()  # a host map from colour names to '#rrggbb'
palette["red"] = "#ff0000"
print("palette:", palette)
print("as a dict:", dict(palette))
print("as JSON:", json.dumps(dict(palette), sort_keys=True))
print("a Mapping?", isinstance(palette, collections.abc.Mapping))
print("get with a default:", palette.get("green", "#00ff00"))
print("the host's own keys property:", kest.member(palette, "keys"))

numbers = kest.demo.numbers(10)  # a host list of ints
print("slices:", numbers[2:5], numbers[::3], numbers[::-1][:3])
print("sorted descending:", sorted(numbers, reverse=True)[:4])
print("equal to a Python list?", numbers[:3] == [0, 1, 2])

ints = kest.List[kest.Integer]([3, 1, 2])  # a typed host list, made in Python
ints.sort()
ints += [4]
print("typed host list:", ints, kest.class_name(ints))
try:
    ints.append("five")  # type: ignore[arg-type]  # refused on purpose
except RuntimeError as error:
    print("refused:", error)

colours = kest.HashSet(["red", "green"]) | {"blue"}
print("host set algebra:", sorted(colours))
