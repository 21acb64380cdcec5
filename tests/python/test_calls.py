"""Calling host functions, callable host objects and host classes."""

import unittest

import kest.demo
from kest.demo import Countdown, Scaler, Shape, Vector


class Functions(unittest.TestCase):
    def test_default_argument(self):
        self.assertEqual(kest.demo.greet("Ann"), "Hello, Ann!")

    def test_positional_arguments(self):
        self.assertEqual(kest.demo.greet("Ann", "Hi"), "Hi, Ann!")

    def test_keyword_argument_after_positional(self):
        self.assertEqual(kest.demo.greet("Ann", greeting="Hey"), "Hey, Ann!")

    def test_keyword_arguments_in_any_order(self):
        self.assertEqual(kest.demo.greet(greeting="Hey", name="Bob"), "Hey, Bob!")
        self.assertEqual(kest.demo.greet(name="Bob", greeting="Yo"), "Yo, Bob!")

    def test_keyword_argument_with_default_left_out(self):
        self.assertEqual(kest.demo.greet(name="Bob"), "Hello, Bob!")

    def test_function_returning_a_host_list(self):
        numbers = kest.demo.numbers(4)
        self.assertEqual(list(numbers), [0, 1, 2, 3])
        self.assertEqual(list(kest.demo.numbers(n=2)), [0, 1])
        self.assertEqual(list(kest.demo.numbers(0)), [])

    def test_function_describes_itself(self):
        greet = kest.demo.greet
        self.assertEqual(greet.__name__, "greet")
        self.assertEqual(greet.__module__, "kest.demo")
        self.assertEqual(greet.__doc__, "A greeting; greeting defaults to 'Hello'.")
        self.assertEqual(greet.__text_signature__, "(name: String, greeting: String) -> String")

    def test_function_is_callable(self):
        self.assertTrue(callable(kest.demo.greet))


class BadArguments(unittest.TestCase):
    def assert_bad_argument(self, call, message):
        with self.assertRaises(RuntimeError) as caught:
            call()
        error = caught.exception
        self.assertEqual(type(error).__name__, "BadArgument")
        self.assertEqual(type(error).__module__, "kest")
        self.assertEqual(error.kest.message, message)

    def test_missing_argument(self):
        self.assert_bad_argument(lambda: kest.demo.greet(), "Missing argument 'name' for kest.demo.greet.")

    def test_missing_keyword_argument(self):
        self.assert_bad_argument(lambda: kest.demo.greet(greeting="Hi"), "Missing argument 'name' for kest.demo.greet.")

    def test_too_many_arguments(self):
        self.assert_bad_argument(lambda: kest.demo.greet("a", "b", "c"),
                                 "Too many arguments for kest.demo.greet: it takes 2, 3 given.")

    def test_unknown_keyword_argument(self):
        self.assert_bad_argument(lambda: kest.demo.greet("a", nope="b"), "Unknown argument 'nope' for kest.demo.greet.")

    def test_argument_given_twice(self):
        self.assert_bad_argument(lambda: kest.demo.greet("a", name="b"),
                                 "Argument 'name' given twice for kest.demo.greet.")

    def test_argument_of_wrong_type(self):
        self.assert_bad_argument(lambda: kest.demo.greet(1), "Argument 1 (name) must be kest.String, not kest.Integer.")

    def test_method_argument_of_wrong_type(self):
        shape = Shape("square", 1.0)
        self.assert_bad_argument(lambda: shape.moved("far"), "Argument 2 (dx) must be kest.Float, not kest.String.")
        self.assert_bad_argument(lambda: shape.describe(prefix=1), "Argument 2 (prefix) must be kest.String, not kest.Integer.")

    def test_method_given_too_many_arguments(self):
        shape = Shape("square", 1.0)
        self.assert_bad_argument(lambda: shape.area(1), "Too many arguments for kest.demo.Shape.area: it takes 0, 1 given.")
        self.assert_bad_argument(lambda: shape.moved(1, 2, 3),
                                 "Too many arguments for kest.demo.Shape.moved: it takes 2, 3 given.")

    def test_method_missing_an_argument(self):
        self.assert_bad_argument(lambda: Shape("square", 1.0).moved(), "Missing argument 'dx' for kest.demo.Shape.moved.")

    def test_calling_an_object_that_is_not_callable(self):
        with self.assertRaises(RuntimeError) as caught:
            Shape("square", 1.0, "box")()
        self.assertEqual(str(caught.exception), "Non-callable object: <square box>")


class CallableObjects(unittest.TestCase):
    def test_scaler_is_callable(self):
        self.assertTrue(callable(Scaler(2)))

    def test_scaler_scales_an_integer(self):
        self.assertEqual(Scaler(2.5)(4), 10.0)

    def test_scaler_scales_a_float(self):
        self.assertEqual(Scaler(3)(0.5), 1.5)

    def test_scaler_result_is_a_float(self):
        self.assertIs(type(Scaler(2)(3)), float)

    def test_scaler_keeps_its_factor(self):
        double = Scaler(2)
        self.assertEqual([double(x) for x in (1, 2, 3)], [2.0, 4.0, 6.0])

    def test_scaler_takes_exactly_one_argument(self):
        for call in (lambda: Scaler(2)(), lambda: Scaler(2)(1, 2)):
            with self.assertRaises(RuntimeError) as caught:
                call()
            self.assertEqual(caught.exception.kest.message, "A scaler takes one number.")
            self.assertEqual(type(caught.exception).__name__, "BadArgument")


class Construction(unittest.TestCase):
    def test_positional_arguments(self):
        shape = Shape("triangle", 2.0, "tri")
        self.assertEqual((shape.kind, shape.size, shape.name), ("triangle", 2.0, "tri"))

    def test_keyword_arguments(self):
        shape = Shape(kind="circle", size=1.5, name="disc")
        self.assertEqual((shape.kind, shape.size, shape.name), ("circle", 1.5, "disc"))

    def test_keyword_arguments_with_default(self):
        shape = Shape(size=4, kind="square")
        self.assertEqual((shape.kind, shape.size, shape.name), ("square", 4.0, "shape"))

    def test_mixed_positional_and_keyword(self):
        self.assertEqual(Shape("square", 1.0, name="tile").name, "tile")

    def test_vector_with_keyword_arguments(self):
        v = Vector(y=2, x=1)
        self.assertEqual((v.x, v.y), (1.0, 2.0))

    def test_countdown_and_scaler_with_keyword_arguments(self):
        self.assertEqual(list(Countdown(n=3)), [3, 2, 1])
        self.assertEqual(Scaler(factor=3)(2), 6.0)

    def test_class_describes_itself(self):
        self.assertEqual(Shape.__name__, "Shape")
        self.assertEqual(Shape.__module__, "kest.demo")
        self.assertTrue(callable(Shape))

    def test_class_refuses_an_unknown_kind(self):
        with self.assertRaises(RuntimeError) as caught:
            Shape("hexagon", 1.0)
        self.assertEqual(type(caught.exception).__name__, "BadArgument")
        self.assertEqual(caught.exception.kest.message, "Unknown shape kind: hexagon.")

    def test_class_refuses_missing_arguments(self):
        with self.assertRaises(RuntimeError) as caught:
            Shape("square")
        self.assertEqual(caught.exception.kest.message, "Missing argument 'size' for kest.demo.Shape.__init__.")

    def test_class_refuses_arguments_of_wrong_type(self):
        with self.assertRaises(RuntimeError) as caught:
            Vector("a", 2)
        self.assertEqual(caught.exception.kest.message, "Argument 1 (x) must be kest.Float, not kest.String.")

    def test_class_refuses_unknown_keyword(self):
        with self.assertRaises(RuntimeError) as caught:
            Vector(1, z=2)
        self.assertEqual(type(caught.exception).__name__, "BadArgument")
        self.assertIn("'z'", caught.exception.kest.message)

    # A float that is a whole number crosses into the host as a 64-bit
    # integer by truncation, deliberately without a range check: values
    # beyond the range (and infinities) arrive as the smallest 64-bit integer.
    def test_whole_floats_cross_as_integers_by_truncation(self):
        self.assertEqual(Vector(3.0, 0).x, 3.0)
        self.assertEqual(Vector(1e20, 0).x, -9223372036854775808.0)
        self.assertEqual(Scaler(1)(float("inf")), -9223372036854775808.0)
