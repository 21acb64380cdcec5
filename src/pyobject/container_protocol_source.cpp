// Python's container interfaces for host maps, sequences and sets, written in
// Python on top of the C slots (item access, length, iteration, containment)
// and of `_host_call`, which calls a host method by its host name whatever
// Python names mean on the object. `install` puts the methods of a kind on a
// host class's type and registers the type with its collections.abc class.

#include "pyobject/container_protocol.hpp"

namespace sarvode {

const char *const containerProtocolSource = R"py(
__name__ = "kest"  # the module its classes and functions show

import operator
from _thread import get_ident
from _collections_abc import (Iterable, Mapping, MutableMapping, Sequence, MutableSequence, Set, MutableSet,
                              KeysView, ValuesView, ItemsView)

# _host_call(obj, name, *args), _host_has(obj, name), _host_id(obj), _new_like(obj)
# and the construction primitives are put here by the extension.


def _not_text(other):
    return not isinstance(other, (str, bytes, bytearray))


class MapMethods:
    def keys(self):
        return KeysView(self)

    def values(self):
        return ValuesView(self)

    def items(self):
        return ItemsView(self)

    get = Mapping.get
    __eq__ = Mapping.__eq__

    @classmethod
    def fromkeys(cls, keys, value=None):
        result = cls()
        for key in keys:
            result[key] = value
        return result

    def __ne__(self, other):
        equal = self.__eq__(other)
        return equal if equal is NotImplemented else not equal

    def copy(self):
        return self.__copy__()


_missing = object()


class MutableMapMethods(MapMethods):
    def pop(self, key, default=_missing):
        try:
            value = self[key]
        except KeyError:
            if default is _missing:
                raise
            return default
        del self[key]
        return value

    popitem = MutableMapping.popitem
    setdefault = MutableMapping.setdefault
    update = MutableMapping.update

    def clear(self):
        _host_call(self, "clear")


def _compare(self, other, op):
    """Python's comparison of sequences: the first unequal pair decides, else the lengths."""
    if not isinstance(other, Sequence) or not _not_text(other):
        return NotImplemented
    for a, b in zip(self, other):
        if not (a is b or a == b):
            if op in ("eq", "ne"):
                return op == "ne"
            return getattr(operator, op)(a, b)
    return getattr(operator, op)(len(self), len(other))


class SequenceMethods:
    index = Sequence.index
    count = Sequence.count
    __reversed__ = Sequence.__reversed__

    def __eq__(self, other):
        return _compare(self, other, "eq")

    def __ne__(self, other):
        return _compare(self, other, "ne")

    def __lt__(self, other):
        return _compare(self, other, "lt")

    def __le__(self, other):
        return _compare(self, other, "le")

    def __gt__(self, other):
        return _compare(self, other, "gt")

    def __ge__(self, other):
        return _compare(self, other, "ge")

    def copy(self):
        return self.__copy__()


class MutableSequenceMethods(SequenceMethods):
    def insert(self, index, value):
        size = len(self)
        index = operator.index(index)
        if index < 0:
            index = max(0, index + size)
        elif index > size:
            index = size
        if _host_has(self, "appendAt"):
            _host_call(self, "appendAt", index, value)
            return
        # A sequence that only appends: append, then move the tail up by one.
        _host_call(self, "append", value)
        for position in range(size, index, -1):
            self[position] = self[position - 1]
        self[index] = value

    def append(self, value):
        _host_call(self, "append", value)

    def extend(self, values):
        if values is self:
            values = list(values)
        for value in values:
            _host_call(self, "append", value)

    def pop(self, index=-1):
        size = len(self)
        if size == 0:
            raise IndexError("pop from empty list")
        index = operator.index(index)
        if index < 0:
            index += size
        if not 0 <= index < size:
            raise IndexError("pop index out of range")
        return _host_call(self, "removeAt", index)

    def remove(self, value):
        for index, item in enumerate(self):
            if item is value or item == value:
                _host_call(self, "removeAt", index)
                return
        raise ValueError("list.remove(x): x not in list")

    def reverse(self):
        values = list(self)
        values.reverse()
        for index, value in enumerate(values):
            self[index] = value

    def sort(self, *, key=None, reverse=False):
        values = sorted(self, key=key, reverse=reverse)
        for index, value in enumerate(values):
            self[index] = value

    def clear(self):
        _host_call(self, "clear")


class SetMethods:
    __le__ = Set.__le__
    __lt__ = Set.__lt__
    __eq__ = Set.__eq__
    __ge__ = Set.__ge__
    __gt__ = Set.__gt__
    __and__ = Set.__and__
    __rand__ = Set.__rand__
    __or__ = Set.__or__
    __ror__ = Set.__ror__
    __sub__ = Set.__sub__
    __rsub__ = Set.__rsub__
    __xor__ = Set.__xor__
    __rxor__ = Set.__rxor__
    isdisjoint = Set.isdisjoint

    def __ne__(self, other):
        equal = self.__eq__(other)
        return equal if equal is NotImplemented else not equal

    def _from_iterable(self, values):
        result = _new_like(self)
        for value in values:
            _host_call(result, "insert", value)
        return result

    def copy(self):
        return self.__copy__()


class MutableSetMethods(SetMethods):
    def add(self, value):
        _host_call(self, "insert", value)

    def discard(self, value):
        if value in self:
            _host_call(self, "remove", value)

    def remove(self, value):
        if value not in self:
            raise KeyError(value)
        _host_call(self, "remove", value)

    def pop(self):
        for value in self:
            _host_call(self, "remove", value)
            return value
        raise KeyError("pop from an empty set")

    def clear(self):
        _host_call(self, "clear")

    __ior__ = MutableSet.__ior__
    __iand__ = MutableSet.__iand__
    __ixor__ = MutableSet.__ixor__
    __isub__ = MutableSet.__isub__


class Construction:
    """What makes a host container's type (and Python classes derived from
    it) callable and derivable as Python's own containers are."""

    def __new__(cls, *args, **kwargs):
        return _new_instance(cls, args, kwargs)

    def __init__(self, *args, **kwargs):
        if _fills_from_arguments(self):
            fill(_kind_of(self), self, args, kwargs, type(self).__name__)

    def __init_subclass__(cls):
        _register_subclass(cls)


def _kind_of(self):
    if isinstance(self, Mapping):
        return "map"
    return "set" if isinstance(self, Set) else "sequence"


_KINDS = {
    ("map", False): (MapMethods, Mapping),
    ("map", True): (MutableMapMethods, MutableMapping),
    ("sequence", False): (SequenceMethods, Sequence),
    ("sequence", True): (MutableSequenceMethods, MutableSequence),
    ("set", False): (SetMethods, Set),
    ("set", True): (MutableSetMethods, MutableSet),
}


def install(cls, kind, mutable):
    """Puts the methods of a kind of container on a host class's type, and
    registers the type as that kind's abstract class."""
    methods, abstract = _KINDS[kind, mutable]
    for klass in (Construction, *reversed(methods.__mro__[:-1])):
        for name, value in vars(klass).items():
            # The host's hash stays: host containers are hashable in the host.
            if name in ("__module__", "__qualname__", "__doc__", "__dict__", "__weakref__", "__hash__"):
                continue
            setattr(cls, name, value)
    abstract.register(cls)


_in_repr = set()  # (host value id, thread) pairs whose text is being made


def repr_of(self):
    """The text Python gives its own containers, for a host container that has
    no Python text of its own; one that holds itself shows as [...] or {...}."""
    mapping, a_set = isinstance(self, Mapping), isinstance(self, Set)
    key = (_host_id(self), get_ident())
    if key in _in_repr:
        return "{...}" if mapping or a_set else "[...]"
    _in_repr.add(key)
    try:
        if mapping:
            return "{" + ", ".join(f"{key!r}: {value!r}" for key, value in self.items()) + "}"
        if a_set:
            return "{" + ", ".join(map(repr, self)) + "}" if len(self) else "kest.HashSet()"
        return "[" + ", ".join(map(repr, self)) + "]"
    finally:
        _in_repr.discard(key)


def get_slice(self, where):
    start, stop, step = where.indices(len(self))
    result = _new_like(self)
    for index in range(start, stop, step):
        _host_call(result, "append", self[index])
    return result


def set_slice(self, where, values):
    start, stop, step = where.indices(len(self))
    values = list(values)  # also when they are this sequence itself
    if step != 1:
        indices = range(start, stop, step)
        if len(values) != len(indices):
            raise ValueError(
                f"attempt to assign sequence of size {len(values)} to extended slice of size {len(indices)}")
        for index, value in zip(indices, values):
            self[index] = value
        return
    stop = max(start, stop)
    for _ in range(stop - start):
        _host_call(self, "removeAt", start)
    for offset, value in enumerate(values):
        _host_call(self, "appendAt", start + offset, value)


def del_slice(self, where):
    indices = range(*where.indices(len(self)))
    for index in sorted(indices, reverse=True):
        _host_call(self, "removeAt", index)


def repeat(self, count, in_place):
    values = list(self)
    result = self if in_place else _new_like(self)
    if in_place:
        _host_call(result, "clear")
    for _ in range(count):
        for value in values:
            _host_call(result, "append", value)
    return result


def copy_of(self, deep, memo):
    """A new container like self (same element types) with its elements."""
    if deep:
        from copy import deepcopy

        if memo is None:
            memo = {}
        element = lambda value: deepcopy(value, memo)
    else:
        element = lambda value: value
    result = _new_like(self)
    if deep:
        memo[id(self)] = result
    if isinstance(self, Mapping):
        for key in self:
            result[element(key)] = element(self[key])
        return result
    operation = "insert" if isinstance(self, Set) else "append"
    for value in self:
        _host_call(result, operation, element(value))
    return result


def fill(kind, result, args, kwargs, name):
    """The constructor of a host container: `result` is new and empty."""
    if len(args) > 1:
        raise TypeError(f"{name} expected at most 1 argument, got {len(args)}")
    if kind == "map":
        MutableMapping.update(result, *args, **kwargs)
        return result
    if kwargs:
        raise TypeError(f"{name}() takes no keyword arguments")
    if args:
        operation = "append" if kind == "sequence" else "insert"
        for value in args[0]:
            _host_call(result, operation, value)
    return result
)py";

} // namespace sarvode
