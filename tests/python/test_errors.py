"""Host errors in Python: their exception types and the host error they carry."""

import unittest

import kest
import kest.cpython
import kest.demo
from kest.demo import Shape, Vector


def raised_by(call):
    try:
        call()
    except BaseException as error:
        return error
    raise AssertionError("the call raised nothing")


class DemoErrors(unittest.TestCase):
    def test_explode_raises_demo_error(self):
        with self.assertRaises(RuntimeError) as caught:
            Shape("square", 1.0, "box").explode()
        error = caught.exception
        self.assertEqual(type(error).__name__, "DemoError")
        self.assertEqual(type(error).__module__, "kest.demo")
        self.assertEqual(error.kest.message, "The shape 'box' exploded.")

    def test_fail_raises_demo_error(self):
        with self.assertRaises(RuntimeError) as caught:
            kest.demo.fail("x")
        self.assertEqual(type(caught.exception).__name__, "DemoError")
        self.assertEqual(caught.exception.kest.message, "x")

    def test_both_raise_the_same_type(self):
        self.assertIs(type(raised_by(lambda: kest.demo.fail("x"))),
                      type(raised_by(lambda: Shape("square", 1.0).explode())))

    def test_exception_type_derives_from_runtime_error(self):
        error_type = type(raised_by(lambda: kest.demo.fail("x")))
        self.assertTrue(issubclass(error_type, RuntimeError))
        self.assertTrue(issubclass(error_type, Exception))
        self.assertIs(error_type.__mro__[1], RuntimeError)

    def test_exception_type_has_the_class_attribute_kest(self):
        error_type = type(raised_by(lambda: kest.demo.fail("x")))
        self.assertIn("kest", error_type.__dict__)
        self.assertIsNone(error_type.kest)

    def test_instance_carries_the_host_error(self):
        error = raised_by(lambda: kest.demo.fail("carried"))
        self.assertIsNotNone(error.kest)
        self.assertIn("message", dir(error.kest))
        self.assertEqual(str(error.kest), "carried")
        self.assertFalse(error.kest.hasCause)

    def test_the_type_found_on_an_instance_catches_later_errors(self):
        error_type = type(raised_by(lambda: kest.demo.fail("first")))
        with self.assertRaises(error_type) as caught:
            kest.demo.fail("second")
        self.assertEqual(caught.exception.kest.message, "second")

    def test_demo_error_is_not_caught_as_an_unrelated_exception(self):
        with self.assertRaises(RuntimeError):
            try:
                kest.demo.fail("x")
            except (ValueError, TypeError, KeyError, AttributeError):
                self.fail("caught by an unrelated exception class")

    def test_demo_error_goes_through_python_frames(self):
        def inner():
            kest.demo.fail("deep")

        def outer():
            inner()

        error = raised_by(outer)
        self.assertEqual(error.kest.message, "deep")
        self.assertIsNotNone(error.__traceback__)

    def test_demo_error_can_be_raised_again(self):
        with self.assertRaises(RuntimeError) as caught:
            try:
                kest.demo.fail("again")
            except RuntimeError as error:
                raise error
        self.assertEqual(caught.exception.kest.message, "again")

    def test_demo_error_as_cause(self):
        with self.assertRaises(ValueError) as caught:
            try:
                kest.demo.fail("inner")
            except RuntimeError as error:
                raise ValueError("outer") from error
        self.assertEqual(caught.exception.__cause__.kest.message, "inner")

    def test_module_exports_demo_error(self):
        self.assertIn("DemoError", dir(kest.demo))
        self.assertEqual(kest.demo.DemoError.__name__, "DemoError")
        self.assertEqual(kest.demo.DemoError.__module__, "kest.demo")

    def test_catching_the_exception_class_exported_by_the_module(self):
        try:
            kest.demo.fail("x")
        except kest.demo.DemoError as error:
            self.assertIs(type(error), kest.demo.DemoError)
            self.assertEqual(error.kest.message, "x")
        else:
            self.fail("fail() raised nothing")
        try:
            Shape("square", 1.0, "box").explode()
        except kest.demo.DemoError as error:
            self.assertEqual(error.kest.message, "The shape 'box' exploded.")
        else:
            self.fail("explode() raised nothing")

    def test_exported_exception_class_derives_from_runtime_error(self):
        self.assertTrue(issubclass(kest.demo.DemoError, RuntimeError))
        self.assertIn("kest", kest.demo.DemoError.__dict__)

    def test_catching_bad_argument_by_the_class_exported_by_kest(self):
        with self.assertRaises(kest.BadArgument) as caught:
            kest.demo.greet(1)
        self.assertEqual(caught.exception.kest.message, "Argument 1 (name) must be kest.String, not kest.Integer.")
        with self.assertRaises(kest.BadArgument):
            Shape("hexagon", 1.0)
        with self.assertRaises(kest.demo.DemoError):
            try:
                kest.demo.fail("x")
            except kest.BadArgument:
                self.fail("a DemoError is no BadArgument")

    # The host message is the exception's one argument, as Python code reads
    # any exception's; the host error itself travels in the attribute "kest".
    def test_the_message_is_the_argument_and_the_error_travels_in_kest(self):
        error = raised_by(lambda: kest.demo.fail("x"))
        self.assertEqual(error.args, ("x",))
        self.assertEqual(str(error), "x")
        self.assertEqual(repr(error), "DemoError('x')")
        self.assertEqual(error.kest.message, "x")

    def test_a_traceback_ends_with_the_type_and_the_message(self):
        import traceback
        error = raised_by(lambda: kest.demo.fail("boom"))
        last = traceback.format_exception_only(type(error), error)[-1]
        self.assertEqual(last, "kest.demo.DemoError: boom\n")

    def test_a_host_error_without_a_message_still_says_something(self):
        error = raised_by(lambda: kest.demo.fail(""))
        self.assertIn("DemoError", str(error))
        self.assertIn("no message", str(error))


class OtherHostErrors(unittest.TestCase):
    def test_bad_argument(self):
        error = raised_by(lambda: kest.demo.greet(1))
        self.assertIsInstance(error, RuntimeError)
        self.assertEqual(type(error).__name__, "BadArgument")
        self.assertEqual(type(error).__module__, "kest")
        self.assertEqual(error.kest.message, "Argument 1 (name) must be kest.String, not kest.Integer.")

    def test_bad_argument_and_demo_error_are_distinct_types(self):
        bad = type(raised_by(lambda: kest.demo.greet(1)))
        demo = type(raised_by(lambda: kest.demo.fail("x")))
        self.assertIsNot(bad, demo)
        self.assertFalse(issubclass(bad, demo))
        self.assertFalse(issubclass(demo, bad))

    def test_plain_host_error_is_a_runtime_error_with_its_message(self):
        error = raised_by(lambda: Vector(1, 2) / 0)
        self.assertIs(type(error), RuntimeError)
        self.assertEqual(str(error), "Vector division by zero.")

    def test_python_error_inside_evaluate_comes_back_as_evaluation_error(self):
        error = raised_by(lambda: kest.cpython.evaluate_expr("1 / 0"))
        self.assertIsInstance(error, RuntimeError)
        self.assertEqual(type(error).__name__, "EvaluationError")
        self.assertEqual(error.kest.message, "division by zero")

    def test_host_error_inside_evaluate_keeps_its_type(self):
        error = raised_by(lambda: kest.cpython.evaluate("import kest.demo\nkest.demo.fail('inner')"))
        self.assertEqual(type(error).__name__, "DemoError")
        self.assertEqual(error.kest.message, "inner")
