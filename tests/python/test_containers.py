"""Host maps, lists and sets as Python containers: collections.abc, Python's
methods with Python's edge cases, construction from Python, the collision
rule, copies and text. CPython's own generic mapping tests run with
kest.HashMap as the mapping type."""

import collections.abc as abc
import copy
import gc
import inspect
import json
import unittest
import weakref

import kest
from kest.demo import Drawing, Palette, Shape, numbers
from test import mapping_tests


class HashMapBasicProtocol(mapping_tests.BasicTestMappingProtocol):
    type2test = kest.HashMap


class HashMapProtocol(mapping_tests.TestMappingProtocol):
    type2test = kest.HashMap


def host_list(*values):
    return kest.List(values)


class Registration(unittest.TestCase):
    def test_abstract_classes(self):
        self.assertIsInstance(Palette(), abc.MutableMapping)
        self.assertIsInstance(kest.HashMap(), abc.MutableMapping)
        self.assertIsInstance(numbers(2), abc.MutableSequence)
        self.assertIsInstance(Drawing(), abc.MutableSequence)
        self.assertIsInstance(kest.HashSet(), abc.MutableSet)

    def test_a_plain_host_object_is_no_container(self):
        shape = Shape("circle", 1.0)
        for kind in (abc.Mapping, abc.Sequence, abc.Set):
            self.assertNotIsInstance(shape, kind)


class Maps(unittest.TestCase):
    def test_dict_and_json(self):
        palette = Palette()
        self.assertEqual(dict(palette), {"black": "#000000", "white": "#ffffff"})
        self.assertEqual(json.dumps(dict(palette)), '{"black": "#000000", "white": "#ffffff"}')

    def test_get_with_and_without_default(self):
        palette = Palette()
        self.assertEqual(palette.get("black"), "#000000")
        self.assertIsNone(palette.get("x"))
        self.assertEqual(palette.get("x", 0), 0)

    def test_views_follow_the_map(self):
        m = kest.HashMap({"a": 1})
        keys, values, items = m.keys(), m.values(), m.items()
        m["b"] = 2
        self.assertEqual(list(keys), ["a", "b"])
        self.assertEqual(list(values), [1, 2])
        self.assertEqual(list(items), [("a", 1), ("b", 2)])
        self.assertEqual(keys & {"b", "c"}, {"b"})

    def test_equality_against_any_mapping(self):
        self.assertEqual(kest.HashMap({"a": 1}), {"a": 1})
        self.assertNotEqual(kest.HashMap({"a": 1}), {"a": 2})
        self.assertEqual(kest.HashMap({"a": 1}), kest.HashMap({"a": 1}))
        self.assertNotEqual(kest.HashMap({"a": 1}), [("a", 1)])

    def test_mutation(self):
        m = kest.HashMap()
        m.update({"a": 1}, b=2)
        m.update([("c", 3)])
        self.assertEqual(m.setdefault("a", 9), 1)
        self.assertEqual(m.setdefault("d", 4), 4)
        self.assertEqual(m.pop("b"), 2)
        self.assertEqual(m.pop("missing", None), None)
        with self.assertRaises(KeyError):
            m.pop("missing")
        self.assertEqual(m.popitem(), ("a", 1))
        del m["c"]
        with self.assertRaises(KeyError):
            del m["c"]
        self.assertEqual(m, {"d": 4})
        m.clear()
        self.assertEqual(len(m), 0)
        with self.assertRaises(KeyError):
            m.popitem()

    def test_typed_map_refuses_a_wrong_value(self):
        m = kest.HashMap[kest.String, kest.Integer]()
        m["a"] = 1
        with self.assertRaises(RuntimeError):
            m["b"] = "one"
        self.assertEqual(m, {"a": 1})

    def test_repeated_lookups_see_every_change(self):
        # The same key object and the same stored values come back again and
        # again; each lookup still reads the map as it is now.
        m = kest.HashMap({"k": 1000, "t": "text", "f": 2.5})
        key = "k"
        for expected in (1000, 1001, "now text", 1001):
            m[key] = expected
            for _ in range(3):
                self.assertEqual(m[key], expected)
                self.assertEqual(type(m[key]), type(expected))
        del m[key]
        with self.assertRaises(KeyError):
            m[key]
        self.assertEqual((m["t"], m["f"]), ("text", 2.5))
        # Equal keys that are other objects, long keys, str subclasses.
        long_key = "x" * 1000
        m[long_key] = 7
        self.assertEqual(m["".join(["x"] * 1000)], 7)

        class Text(str):
            pass

        self.assertEqual(m[Text("t")], "text")
        for i in range(100):  # more keys than any memo has slots
            m[f"n{i}"] = i
        self.assertEqual([m[f"n{i}"] for i in range(100)], list(range(100)))


class Sequences(unittest.TestCase):
    def test_indices(self):
        n = numbers(5)
        self.assertEqual(n[0], 0)
        self.assertEqual(n[-1], 4)
        self.assertEqual(n[-5], 0)
        for index in (5, -6, 100):
            with self.assertRaises(IndexError):
                n[index]

    def test_slices_read(self):
        n = numbers(6)
        self.assertEqual(n[1:3], [1, 2])
        self.assertEqual(n[::2], [0, 2, 4])
        self.assertEqual(n[::-1], [5, 4, 3, 2, 1, 0])
        self.assertEqual(n[-2:], [4, 5])
        self.assertEqual(n[10:], [])
        self.assertEqual(n[4:1], [])
        self.assertIsInstance(n[1:3], abc.MutableSequence)

    def test_slices_assign(self):
        n = host_list(0, 1, 2, 3, 4)
        n[1:3] = [7, 8, 9]
        self.assertEqual(n, [0, 7, 8, 9, 3, 4])
        n[::2] = ["a", "b", "c"]
        self.assertEqual(n, ["a", 7, "b", 9, "c", 4])
        with self.assertRaises(ValueError):
            n[::2] = [1]
        n[:] = n  # self-assignment keeps the elements
        self.assertEqual(n, ["a", 7, "b", 9, "c", 4])
        n[len(n):] = [5]
        self.assertEqual(n[-1], 5)

    def test_slices_delete(self):
        n = host_list(0, 1, 2, 3, 4, 5)
        del n[::2]
        self.assertEqual(n, [1, 3, 5])
        del n[-1:]
        self.assertEqual(n, [1, 3])
        del n[5:9]
        self.assertEqual(n, [1, 3])
        del n[-1]
        self.assertEqual(n, [1])

    def test_methods(self):
        n = host_list(3, 1, 2, 1)
        self.assertEqual(n.index(1), 1)
        self.assertEqual(n.index(1, 2), 3)
        with self.assertRaises(ValueError):
            n.index(9)
        self.assertEqual(n.count(1), 2)
        n.insert(0, 0)
        n.insert(-1, 8)
        n.insert(100, 9)
        self.assertEqual(n, [0, 3, 1, 2, 8, 1, 9])
        n.append(4)
        n.extend(range(2))
        n.remove(8)
        with self.assertRaises(ValueError):
            n.remove(42)
        self.assertEqual(n.pop(), 1)
        self.assertEqual(n.pop(0), 0)
        with self.assertRaises(IndexError):
            n.pop(50)
        n.reverse()
        self.assertEqual(n, [0, 4, 9, 1, 2, 1, 3])
        n.sort()
        self.assertEqual(n, [0, 1, 1, 2, 3, 4, 9])
        n.sort(key=lambda v: -v, reverse=True)
        self.assertEqual(n, [0, 1, 1, 2, 3, 4, 9])
        n.sort(reverse=True)
        self.assertEqual(n, [9, 4, 3, 2, 1, 1, 0])
        c = n.copy()
        c.clear()
        self.assertEqual((len(c), len(n)), (0, 7))
        with self.assertRaises(IndexError):
            host_list().pop()

    def test_insert_into_a_sequence_that_only_appends(self):
        # Drawing has no appendAt: insert appends and moves the tail.
        drawing = Drawing()
        for name in ("a", "c"):
            drawing.append(Shape("circle", 1.0, name))
        drawing.insert(1, Shape("square", 1.0, "b"))
        drawing.insert(0, Shape("square", 1.0, "first"))
        self.assertEqual([shape.name for shape in drawing], ["first", "a", "b", "c"])

    def test_extend_with_itself(self):
        n = host_list(1, 2)
        n.extend(n)
        self.assertEqual(n, [1, 2, 1, 2])

    def test_operators(self):
        n = host_list(1, 2)
        self.assertEqual(n + [3], [1, 2, 3])
        self.assertEqual(n * 2, [1, 2, 1, 2])
        self.assertEqual(2 * n, [1, 2, 1, 2])
        self.assertEqual(n * 0, [])
        before = n
        n += [3]
        n *= 2
        self.assertIs(n, before)
        self.assertEqual(n, [1, 2, 3, 1, 2, 3])
        self.assertIn(3, n)
        self.assertNotIn(7, n)
        self.assertEqual(list(reversed(n)), [3, 2, 1, 3, 2, 1])

    def test_comparisons_against_any_sequence(self):
        self.assertEqual(numbers(5), [0, 1, 2, 3, 4])
        self.assertEqual(numbers(3), (0, 1, 2))
        self.assertNotEqual(numbers(3), [0, 1])
        self.assertNotEqual(numbers(3), "012")
        self.assertLess(numbers(2), [0, 2])
        self.assertLess(numbers(2), [0, 1, 0])
        self.assertGreater(numbers(3), [0, 1])
        self.assertLessEqual(numbers(2), [0, 1])

    def test_mutation_during_iteration(self):
        # As with Python's lists, the loop sees the elements added meanwhile.
        n = host_list(1, 2, 3)
        seen = []
        for value in n:
            seen.append(value)
            if value == 1:
                n.append(4)
        self.assertEqual(seen, [1, 2, 3, 4])

    def test_sorted_and_json(self):
        self.assertEqual(sorted(host_list(3, 1, 2)), [1, 2, 3])
        self.assertEqual(json.dumps(list(numbers(3))), "[0, 1, 2]")


class Sets(unittest.TestCase):
    def test_algebra(self):
        s = kest.HashSet([1, 2, 3])
        self.assertEqual(s | {4}, {1, 2, 3, 4})
        self.assertEqual(s & {2, 3, 9}, {2, 3})
        self.assertEqual(s - {1}, {2, 3})
        self.assertEqual(s ^ {3, 4}, {1, 2, 4})
        self.assertIsInstance(s | {4}, abc.MutableSet)
        self.assertTrue(s.isdisjoint({7}))
        self.assertFalse(s.isdisjoint({3}))

    def test_comparisons(self):
        s = kest.HashSet([1, 2])
        self.assertEqual(s, {1, 2})
        self.assertLessEqual(s, {1, 2})
        self.assertLess(s, {1, 2, 3})
        self.assertGreater(s, {1})
        self.assertNotEqual(s, {1})

    def test_mutation(self):
        s = kest.HashSet()
        s.add(1)
        s.add(1)
        s.add(2)
        self.assertEqual(len(s), 2)
        s.discard(5)
        s.discard(1)
        with self.assertRaises(KeyError):
            s.remove(1)
        self.assertEqual(s.pop(), 2)
        with self.assertRaises(KeyError):
            s.pop()
        s |= {7, 8}
        s -= {7}
        self.assertEqual(s, {8})
        s.clear()
        self.assertEqual(len(s), 0)


class Construction(unittest.TestCase):
    def test_from_python(self):
        self.assertEqual(kest.List(), [])
        self.assertEqual(kest.List(range(3)), [0, 1, 2])
        self.assertEqual(kest.HashMap(), {})
        self.assertEqual(kest.HashMap({"a": 1}, b=2), {"a": 1, "b": 2})
        self.assertEqual(kest.HashMap([("a", 1)]), {"a": 1})
        self.assertEqual(kest.HashSet("abca"), {"a", "b", "c"})

    def test_wrong_arguments(self):
        with self.assertRaises(TypeError):
            kest.List([1], [2])
        with self.assertRaises(TypeError):
            kest.List(x=1)
        with self.assertRaises(TypeError):
            kest.List(5)

    def test_typed(self):
        ints = kest.List[kest.Integer]([1, 2])
        self.assertEqual(ints, [1, 2])
        with self.assertRaises(RuntimeError) as caught:
            ints.append("three")
        self.assertIn("kest.List<kest.Integer>", str(caught.exception))
        self.assertEqual(ints, [1, 2])
        with self.assertRaises(RuntimeError):
            kest.List[kest.Integer](["x"])
        with self.assertRaises(TypeError):
            kest.List[3]
        with self.assertRaises(TypeError):
            kest.HashMap[kest.String]

    def test_python_classes_derive_from_them(self):
        class Counter(kest.HashMap):
            def add(self, key):
                self[key] = self.get(key, 0) + 1
                self.last = key

        counter = Counter()
        counter.add("a")
        counter.add("a")
        self.assertEqual(counter, {"a": 2})
        self.assertEqual(counter.last, "a")
        self.assertIsInstance(counter, abc.MutableMapping)
        self.assertIs(type(Counter.fromkeys("x")), Counter)


class CollisionRule(unittest.TestCase):
    def test_python_meaning_wins(self):
        palette = Palette()
        self.assertTrue(callable(palette.keys))
        self.assertEqual(sorted(palette.keys()), ["black", "white"])

    def test_host_members_through_kest_member(self):
        palette = Palette()
        self.assertEqual(sorted(kest.member(palette, "keys")), ["black", "white"])
        drawing = Drawing()
        kest.member(drawing, "append")(Shape("circle", 1.0))
        self.assertEqual(len(drawing), 1)
        with self.assertRaises(RuntimeError):
            kest.member(palette, "no_such_member")


class CopiesAndText(unittest.TestCase):
    def test_copies(self):
        n = kest.List([[1], 2])
        shallow = copy.copy(n)
        deep = copy.deepcopy(n)
        self.assertEqual(shallow, n)
        self.assertEqual(deep, n)
        self.assertIsNot(shallow, n)
        m = kest.HashMap({"a": kest.List([1])})
        deep_map = copy.deepcopy(m)
        deep_map["a"].append(2)
        self.assertEqual(m["a"], [1])

    def test_a_container_that_holds_itself_shows_as_pythons_do(self):
        items = kest.List()
        items.append(items)
        items.append(1)
        self.assertEqual(repr(items), "[[...], 1]")
        table = kest.HashMap()
        table["me"] = table
        self.assertEqual(repr(table), "{'me': {...}}")
        items.clear()
        table.clear()  # the host values held themselves

    def test_the_protocols_primitives_refuse_what_is_no_host_object(self):
        primitives = type(kest.List()).__init_subclass__.__func__.__globals__
        with self.assertRaises(TypeError):
            primitives["_register_subclass"](int)  # an int read as a host object would crash
        with self.assertRaises(TypeError):
            primitives["_host_call"]([], "append", 1)
        with self.assertRaises(TypeError):
            primitives["_new_instance"](int, (), {})
        self.assertEqual(int("5"), 5)

    def test_repr_as_python_shows_it(self):
        self.assertEqual(repr(numbers(3)), "[0, 1, 2]")
        self.assertEqual(repr(kest.HashMap({"a": "b"})), "{'a': 'b'}")
        self.assertEqual(repr(kest.HashSet([1])), "{1}")
        self.assertEqual(str(kest.List(["x"])), "['x']")


class WhatAnyObjectHas(unittest.TestCase):
    def test_signatures(self):
        self.assertEqual(str(inspect.signature(kest.demo.greet)), "(name: str, greeting: str = 'Hello') -> str")
        shape = Shape("circle", 1.0)
        self.assertEqual(str(inspect.signature(shape.moved)), "(dx: float, dy: float = 0.0)")
        self.assertEqual(str(inspect.signature(Shape.moved)), "(self, dx: float, dy: float = 0.0)")
        parameters = inspect.signature(Shape).parameters
        self.assertEqual(list(parameters), ["kind", "size", "name"])
        self.assertIs(parameters["size"].annotation, float)
        bound = inspect.signature(kest.demo.greet).bind("Ada")
        self.assertEqual(bound.arguments, {"name": "Ada"})
        with self.assertRaises(TypeError):
            inspect.signature(kest.demo.greet).bind()

    def test_help_shows_signature_and_documentation(self):
        import pydoc

        text = pydoc.render_doc(kest.demo.greet, renderer=pydoc.plaintext)
        self.assertIn("greet(name: str, greeting: str = 'Hello') -> str", text)
        self.assertIn("A greeting; greeting defaults to 'Hello'.", text)
        self.assertIn("Shape(kind: str, size: float, name: str)", pydoc.render_doc(Shape, renderer=pydoc.plaintext))

        class Holder:
            greet = kest.demo.greet  # a host function stays itself as a class attribute

        self.assertEqual(Holder().greet("Ada"), "Hello, Ada!")

    def test_weak_references(self):
        shape = Shape("circle", 1.0)
        ref = weakref.ref(shape)
        self.assertIs(ref(), shape)
        del shape
        gc.collect()
        self.assertIsNone(ref())
        cache = weakref.WeakValueDictionary()
        numbers_list = kest.List([1])
        cache["n"] = numbers_list
        self.assertEqual(list(cache), ["n"])
        del numbers_list
        gc.collect()
        self.assertEqual(list(cache), [])

    def test_dir_lists_what_attribute_access_reaches(self):
        palette = Palette()
        listed = dir(palette)
        for name in ("keys", "items", "pop", "set", "contains", "__getitem__", "__len__"):
            self.assertIn(name, listed)
        self.assertEqual(listed, sorted(set(listed)))
        for name in listed:
            if not name.startswith("_"):
                self.assertTrue(hasattr(palette, name), name)


if __name__ == "__main__":
    unittest.main()
