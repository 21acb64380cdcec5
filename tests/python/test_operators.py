"""Python operators on host objects: arithmetic, comparison and hashing."""

import unittest

from kest.demo import Drawing, Shape, Vector


class Arithmetic(unittest.TestCase):
    def test_addition(self):
        self.assertEqual(Vector(1, 2) + Vector(3, 5), Vector(4, 7))

    def test_subtraction(self):
        self.assertEqual(Vector(3, 5) - Vector(1, 2), Vector(2, 3))

    def test_multiplication_by_an_integer(self):
        self.assertEqual(Vector(1, 2) * 3, Vector(3, 6))
        self.assertEqual(3 * Vector(1, 2), Vector(3, 6))

    def test_division_by_a_number(self):
        self.assertEqual(Vector(3, 5) / 2, Vector(1.5, 2.5))
        self.assertEqual(Vector(3, 6) / 1.5, Vector(2, 4))

    def test_inversion_gives_the_opposite(self):
        self.assertEqual(~Vector(1, -2), Vector(-1, 2))

    def test_results_are_new_vectors(self):
        v = Vector(1, 2)
        v + Vector(1, 1)
        v * 2
        ~v
        self.assertEqual((v.x, v.y), (1.0, 2.0))

    def test_operations_chain(self):
        self.assertEqual((Vector(1, 1) + Vector(2, 3)) * 2 - Vector(1, 1), Vector(5, 7))

    def test_division_by_zero_is_a_runtime_error(self):
        with self.assertRaises(RuntimeError) as caught:
            Vector(1, 2) / 0
        self.assertEqual(str(caught.exception), "Vector division by zero.")

    def test_division_by_a_text_is_a_runtime_error(self):
        with self.assertRaises(RuntimeError) as caught:
            Vector(1, 2) / "2"
        self.assertEqual(str(caught.exception), "A Vector scales by a number.")

    def test_addition_of_a_number_is_a_runtime_error(self):
        with self.assertRaises(RuntimeError) as caught:
            Vector(1, 2) + 1
        self.assertEqual(str(caught.exception), "Vector addition needs a Vector.")
        with self.assertRaises(RuntimeError) as caught:
            Vector(1, 2) - 1
        self.assertEqual(str(caught.exception), "Vector subtraction needs a Vector.")

    def test_number_on_the_left_is_a_type_error(self):
        with self.assertRaises(TypeError):
            1 + Vector(1, 2)
        with self.assertRaises(TypeError):
            1 - Vector(1, 2)

    def test_unsupported_operators_raise_type_error(self):
        v = Vector(1, 2)
        operations = {
            "//": lambda: v // 2,
            "%": lambda: v % 2,
            "**": lambda: v ** 2,
            "@": lambda: v @ v,
            "<<": lambda: v << 1,
            ">>": lambda: v >> 1,
            "unary -": lambda: -v,
            "unary +": lambda: +v,
            "abs": lambda: abs(v),
        }
        for name, operation in operations.items():
            with self.subTest(operator=name):
                with self.assertRaises(TypeError):
                    operation()

    def test_bitwise_operators_without_a_host_method(self):
        v = Vector(1, 2)
        for name, operation in (("and", lambda: v & v), ("or", lambda: v | v), ("xor", lambda: v ^ v)):
            with self.subTest(operator=name):
                with self.assertRaises(NotImplementedError) as caught:
                    operation()
                self.assertEqual(str(caught.exception), f"[kest_number_{name}] None method in: Vector(1.0, 2.0)")

    def test_subtraction_without_sub_raises_not_implemented_error(self):
        with self.assertRaises(NotImplementedError) as caught:
            Shape("square", 1.0, "a") - Shape("square", 1.0, "b")
        self.assertTrue(str(caught.exception).startswith("[kest_number_subtract] None method '__sub__' in: "))
        self.assertEqual(str(caught.exception), "[kest_number_subtract] None method '__sub__' in: <square a>")
        with self.assertRaises(NotImplementedError) as caught:
            Drawing() - Drawing()
        self.assertTrue(str(caught.exception).startswith("[kest_number_subtract] None method '__sub__' in: "))

    def test_other_operators_without_a_host_method(self):
        shape = Shape("square", 1.0, "a")
        with self.assertRaises(NotImplementedError) as caught:
            shape / 2
        self.assertEqual(str(caught.exception), "[kest_number_divide] None method '__div__' in: <square a>.")
        with self.assertRaises(NotImplementedError) as caught:
            ~shape
        self.assertEqual(str(caught.exception), "[kest_number_not] None method '__not__' in: <square a>")
        with self.assertRaises(NotImplementedError) as caught:
            shape + shape
        self.assertEqual(str(caught.exception), "[kest_sequence_concat] None method 'concat' in: <square a>")

    # "*" reaches the host through sequence repetition, which Python calls
    # with integers only; a float factor goes through the method itself.
    def test_multiplication_by_a_float_goes_through_the_method(self):
        with self.assertRaises(TypeError):
            Vector(1, 2) * 2.5
        self.assertEqual(Vector(1, 2) * 2, Vector(2, 4))

    def test_in_place_addition_falls_back_to_addition(self):
        v = Vector(1, 1)
        before = v
        v += Vector(1, 2)
        self.assertEqual(v, Vector(2, 3))
        self.assertEqual(before, Vector(1, 1))

    def test_in_place_subtraction_falls_back_to_subtraction(self):
        v = Vector(3, 3)
        v -= Vector(1, 2)
        self.assertEqual(v, Vector(2, 1))


class Comparison(unittest.TestCase):
    def test_equality(self):
        self.assertTrue(Vector(1, 2) == Vector(1, 2))
        self.assertTrue(Vector(1, 2) == Vector(1.0, 2.0))
        self.assertFalse(Vector(1, 2) == Vector(2, 1))

    def test_inequality(self):
        self.assertTrue(Vector(1, 2) != Vector(2, 1))
        self.assertFalse(Vector(1, 2) != Vector(1, 2))

    def test_ordering_by_x(self):
        small, big = Vector(1, 9), Vector(2, 0)
        self.assertTrue(small < big)
        self.assertTrue(small <= big)
        self.assertFalse(small > big)
        self.assertFalse(small >= big)
        self.assertTrue(big > small)
        self.assertTrue(big >= small)

    def test_ordering_by_y_when_x_ties(self):
        self.assertTrue(Vector(1, 2) < Vector(1, 3))
        self.assertTrue(Vector(1, 3) > Vector(1, 2))

    def test_equal_vectors_are_ordered_both_ways_with_or_equal(self):
        a, b = Vector(1, 2), Vector(1, 2)
        self.assertTrue(a <= b)
        self.assertTrue(a >= b)
        self.assertFalse(a < b)
        self.assertFalse(a > b)

    def test_sorting_and_max(self):
        vectors = [Vector(3, 5), Vector(1, 2), Vector(1, 1), Vector(0, 9)]
        self.assertEqual(sorted(vectors), [Vector(0, 9), Vector(1, 1), Vector(1, 2), Vector(3, 5)])
        self.assertEqual(max(vectors), Vector(3, 5))
        self.assertEqual(min(vectors), Vector(0, 9))

    def test_vector_and_other_values_are_only_unequal(self):
        self.assertFalse(Vector(1, 2) == 5)
        self.assertTrue(Vector(1, 2) != 5)
        self.assertFalse(Vector(1, 2) == "Vector(1.0, 2.0)")

    def test_shapes_compare_by_identity(self):
        shape = Shape("square", 1.0)
        self.assertTrue(shape == shape)
        self.assertFalse(shape != shape)
        self.assertFalse(Shape("square", 1.0) == Shape("square", 1.0))


class Hashing(unittest.TestCase):
    def test_equal_vectors_hash_equal(self):
        self.assertEqual(hash(Vector(1, 2)), hash(Vector(1, 2)))
        self.assertEqual(hash(Vector(1.0, 2.0)), hash(Vector(1, 2)))

    def test_different_vectors_hash_differently(self):
        self.assertNotEqual(hash(Vector(1, 2)), hash(Vector(3, 5)))

    def test_vectors_as_set_members_and_dict_keys(self):
        self.assertEqual(len({Vector(1, 2), Vector(1, 2), Vector(2, 1)}), 2)
        self.assertEqual({Vector(1, 2): "a"}[Vector(1, 2)], "a")

    def test_mutable_objects_hash_by_identity(self):
        shape = Shape("square", 1.0)
        self.assertEqual(hash(shape), hash(shape))
        self.assertEqual(len({shape, shape, Shape("square", 1.0)}), 2)
        self.assertIn(shape, {shape: 1})
