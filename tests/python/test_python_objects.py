"""Python objects handed to the host: the reflection functions of the module
"kest" see dicts, lists, sets, generators, functions and plain objects as live
host wrappers, and a wrapper that comes back to Python is the object itself."""

import unittest

import kest


def gen(n):
    yield from range(n)


class Thing:
    def __init__(self, size=1):
        self.size = size

    def __repr__(self):
        return f"Thing({self.size})"


class ClassNames(unittest.TestCase):
    def test_each_kind_of_object_has_its_wrapper_class(self):
        cases = [
            ({"a": 1}, "kest.cpython.CPythonProxyMapping"),
            ([1, 2], "kest.cpython.CPythonProxySequence"),
            ((1, 2), "kest.cpython.CPythonProxySequence"),
            ({1, 2}, "kest.cpython.CPythonProxySet"),
            (frozenset({1}), "kest.cpython.CPythonProxyIterable"),
            (gen(2), "kest.cpython.CPythonProxyIterable"),
            (len, "kest.cpython.CPythonFunction"),
            (gen, "kest.cpython.CPythonFunction"),
            (Thing(), "kest.cpython.CPythonObject"),
        ]
        for value, name in cases:
            with self.subTest(value=value):
                self.assertEqual(kest.class_name(value), name)

    def test_plain_values_are_converted_not_wrapped(self):
        self.assertEqual(kest.class_name(3), "kest.Integer")
        self.assertEqual(kest.class_name("text"), "kest.String")
        self.assertEqual(kest.class_name(True), "kest.Boolean")


class Identity(unittest.TestCase):
    def test_a_wrapper_returned_to_python_is_the_object_itself(self):
        d = {"a": 1}
        items = [d, [2], {3}, gen, Thing()]
        for index, value in enumerate(items):
            with self.subTest(index=index):
                self.assertIs(kest.at(items, index), value)

    def test_a_value_stored_through_the_host_is_the_object_itself(self):
        inner = [1, 2]
        holder = {}
        kest.put(holder, "inner", inner)
        self.assertIs(holder["inner"], inner)
        self.assertIs(kest.get(holder, "inner"), inner)


class Mappings(unittest.TestCase):
    def test_put_shows_in_the_dict_at_once(self):
        d = {"a": 1}
        self.assertIsNone(kest.put(d, "b", 2))
        self.assertEqual(d, {"a": 1, "b": 2})
        kest.put(d, "a", "one")
        self.assertEqual(d["a"], "one")

    def test_a_change_in_python_shows_through_the_host_at_once(self):
        d = {"a": 1}
        self.assertEqual(kest.get(d, "a"), 1)
        d["a"] = 5
        d["z"] = 26
        self.assertEqual(kest.get(d, "a"), 5)
        self.assertEqual(kest.get(d, "z"), 26)
        self.assertEqual(kest.length(d), 2)

    def test_length_follows_put(self):
        d = {}
        self.assertEqual(kest.length(d), 0)
        kest.put(d, "k", None)
        self.assertEqual(kest.length(d), 1)

    def test_items_of_a_dict_are_its_keys_in_insertion_order(self):
        d = {}
        d["b"] = 1
        d["a"] = 2
        self.assertEqual(list(kest.items(d)), ["b", "a"])

    def test_get_of_a_missing_key_raises_with_pythons_text(self):
        with self.assertRaises(Exception) as caught:
            kest.get({"a": 1}, "missing")
        self.assertEqual(str(caught.exception), "'missing'")

    def test_put_of_an_unhashable_key_raises_and_leaves_the_dict(self):
        d = {}
        with self.assertRaises(Exception) as caught:
            kest.put(d, [1], 2)
        self.assertEqual(str(caught.exception), "unhashable type: 'list'")
        self.assertEqual(d, {})

    def test_put_into_a_list_is_refused(self):
        with self.assertRaises(Exception):
            kest.put([1], 0, 2)


class Sequences(unittest.TestCase):
    def test_length_and_at(self):
        items = [10, 20, 30]
        self.assertEqual(kest.length(items), 3)
        self.assertEqual(kest.at(items, 0), 10)
        self.assertEqual(kest.at(items, -1), 30)
        self.assertEqual(kest.length((1, 2)), 2)
        self.assertEqual(kest.at((1, 2), 1), 2)

    def test_at_past_the_end_raises_with_pythons_text(self):
        with self.assertRaises(Exception) as caught:
            kest.at([1], 1)
        self.assertEqual(str(caught.exception), "list index out of range")

    def test_a_change_in_python_shows_at_once(self):
        items = [1]
        items.append(2)
        self.assertEqual(kest.length(items), 2)
        self.assertEqual(kest.at(items, 1), 2)

    def test_items_copies_the_elements(self):
        items = [1, "a", None]
        copied = kest.items(items)
        self.assertEqual(list(copied), [1, "a", None])
        items.append(4)
        self.assertEqual(len(copied), 3)


class Sets(unittest.TestCase):
    def test_length_and_items(self):
        s = {1, 2, 3}
        self.assertEqual(kest.length(s), 3)
        self.assertEqual(sorted(kest.items(s)), [1, 2, 3])

    def test_a_frozen_set_is_only_iterable(self):
        self.assertEqual(sorted(kest.items(frozenset({4, 5}))), [4, 5])
        with self.assertRaises(Exception):
            kest.length(frozenset({4, 5}))


class Iterables(unittest.TestCase):
    def test_items_of_a_generator_in_order(self):
        self.assertEqual(list(kest.items(gen(4))), [0, 1, 2, 3])

    def test_items_spend_the_generator(self):
        g = gen(3)
        kest.items(g)
        self.assertEqual(list(g), [])

    def test_a_generator_that_raises_midway_raises_through_items(self):
        def broken():
            yield 1
            raise ValueError("broken after one")

        with self.assertRaises(Exception) as caught:
            kest.items(broken())
        self.assertEqual(str(caught.exception), "broken after one")

    def test_items_of_a_plain_object_is_refused(self):
        with self.assertRaises(Exception):
            kest.items(Thing())


class Calls(unittest.TestCase):
    def test_call_passes_the_arguments_and_returns_the_result(self):
        self.assertEqual(kest.call(lambda a, b: a * b, 6, 7), 42)
        self.assertEqual(kest.call(len, "four"), 4)
        self.assertEqual(kest.call(str.upper, "ab"), "AB")

    def test_call_passes_objects_through_as_themselves(self):
        d = {}
        self.assertIs(kest.call(lambda x: x, d), d)
        kest.call(lambda x: x.update(k=1), d)
        self.assertEqual(d, {"k": 1})

    def test_call_with_too_many_arguments_raises_pythons_type_error_text(self):
        def one(a):
            return a

        try:
            one(1, 2)
        except TypeError as e:
            expected = str(e)
        with self.assertRaises(Exception) as caught:
            kest.call(one, 1, 2)
        self.assertEqual(str(caught.exception), expected)

    def test_call_of_a_function_that_raises(self):
        def fail():
            raise KeyError("inner")

        with self.assertRaises(Exception) as caught:
            kest.call(fail)
        self.assertEqual(str(caught.exception), "'inner'")

    def test_call_of_a_callable_object(self):
        class Adder:
            def __call__(self, x):
                return x + 100

        self.assertEqual(kest.call(Adder(), 1), 101)

    def test_call_of_a_non_callable_is_refused(self):
        with self.assertRaises(Exception):
            kest.call([1, 2])


class Signatures(unittest.TestCase):
    def test_annotations_become_host_types(self):
        def f(a: int, b: str = "x") -> bool:
            return True

        self.assertEqual(kest.signature(f), "(a: Integer, b: String) -> Boolean")

    def test_no_annotations_are_untyped(self):
        def g(a, b):
            return a

        self.assertEqual(kest.signature(g), "(a: Untyped, b: Untyped) -> Untyped")

    def test_generic_and_string_annotations(self):
        def h(x: list[int], y: "int | None") -> dict[str, int]:
            return {}

        self.assertEqual(kest.signature(h), "(x: List, y: Integer) -> HashMap")

    def test_star_args_make_it_variadic(self):
        def v(a, *rest):
            return a

        self.assertTrue(kest.signature(v).endswith(", ...) -> Untyped"))


class Comparisons(unittest.TestCase):
    def test_an_object_with_itself_is_equal(self):
        t = Thing()
        self.assertEqual(kest.compare(t, t), 0)
        d = {"a": 1}
        self.assertEqual(kest.compare(d, d), 0)

    def test_lists_compare_as_python_compares_them(self):
        self.assertEqual(kest.compare([1, 2], [1, 3]), -1)
        self.assertEqual(kest.compare([1, 3], [1, 2]), 1)
        self.assertEqual(kest.compare([1, 2], [1, 2]), 0)

    def test_lists_that_python_cannot_order_are_unordered(self):
        self.assertEqual(kest.compare([1], ["a"]), 2)

    def test_two_nans_fall_through_to_equal(self):
        a = [float("nan")]
        b = [float("nan")]
        self.assertEqual(kest.compare(a, b), 0)


if __name__ == "__main__":
    unittest.main()
