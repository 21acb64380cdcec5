"""Importing host modules: kest, kest.cpython, kest.demo and names from them."""

import importlib
import sys
import unittest


class HostModules(unittest.TestCase):
    def test_import_kest(self):
        import kest
        self.assertEqual(kest.__name__, "kest")
        self.assertEqual(kest.__doc__, "The host's object model: its classes, logger and reflection functions.")
        self.assertIs(sys.modules["kest"], kest)

    def test_host_modules_are_packages(self):
        import kest
        import kest.demo
        self.assertEqual(kest.__path__, [])
        self.assertEqual(kest.demo.__package__, "kest.demo")

    def test_import_kest_cpython(self):
        import kest.cpython
        self.assertEqual(kest.cpython.__name__, "kest.cpython")
        self.assertIs(sys.modules["kest.cpython"], kest.cpython)

    def test_import_kest_demo(self):
        import kest.demo
        self.assertEqual(kest.demo.__name__, "kest.demo")
        self.assertIs(sys.modules["kest.demo"], kest.demo)

    def test_import_as(self):
        import kest.demo as demo
        self.assertEqual(demo.greet("Ann"), "Hello, Ann!")

    def test_from_kest_demo_import_names(self):
        from kest.demo import Vector, greet
        import kest.demo
        self.assertIs(greet, kest.demo.greet)
        self.assertIs(Vector, kest.demo.Vector)
        self.assertEqual(Vector(1, 2).x, 1.0)

    def test_import_module_by_name(self):
        demo = importlib.import_module("kest.demo")
        self.assertEqual(demo.greet("Bo", greeting="Hi"), "Hi, Bo!")

    def test_importing_again_gives_the_same_module(self):
        first = importlib.import_module("kest.demo")
        second = importlib.import_module("kest.demo")
        self.assertIs(first, second)

    def test_kest_lists_its_classes_and_functions(self):
        import kest
        for name in ("Error", "BadArgument", "String", "Integer", "List", "get_logger", "display", "class_name"):
            with self.subTest(name=name):
                self.assertIn(name, dir(kest))


class NamesFromKest(unittest.TestCase):
    def test_from_kest_import_get_logger(self):
        from kest import get_logger
        self.assertEqual(get_logger.__name__, "get_logger")
        self.assertEqual(get_logger.__doc__, "The host logger.")
        logger = get_logger()
        self.assertEqual(str(logger), "<kest.Logger object>")
        self.assertIn("log", dir(logger))

    def test_reflection_functions(self):
        import kest
        from kest.demo import Vector
        self.assertEqual(kest.display(Vector(1, 2)), "Vector(1.0, 2.0)")
        self.assertEqual(kest.class_name(3), "kest.Integer")
        self.assertEqual(kest.class_name(Vector(1, 2)), "kest.demo.Vector")

    def test_missing_name_raises_import_error(self):
        with self.assertRaises(ImportError) as caught:
            from kest import no_such_name  # noqa: F401
        self.assertEqual(caught.exception.name, "kest")


class NamesThatAreNotHostModules(unittest.TestCase):
    def test_kestrel_is_not_claimed(self):
        with self.assertRaises(ModuleNotFoundError) as caught:
            import kestrel  # noqa: F401
        self.assertEqual(caught.exception.name, "kestrel")
        self.assertNotIn("kestrel", sys.modules)

    def test_missing_host_submodule(self):
        with self.assertRaises(ModuleNotFoundError) as caught:
            importlib.import_module("kest.no_such_module")
        self.assertEqual(caught.exception.name, "kest.no_such_module")

    def test_class_is_not_a_module(self):
        with self.assertRaises(ModuleNotFoundError):
            importlib.import_module("kest.demo.Vector")

    def test_python_standard_modules_still_import(self):
        json = importlib.import_module("json")
        self.assertEqual(json.dumps([1]), "[1]")


class CPythonModule(unittest.TestCase):
    def test_evaluate_and_evaluate_expr_are_reachable(self):
        import kest.cpython
        self.assertTrue(callable(kest.cpython.evaluate))
        self.assertTrue(callable(kest.cpython.evaluate_expr))
        self.assertEqual(kest.cpython.evaluate.__doc__, "Evaluates Python code.")
        self.assertEqual(kest.cpython.evaluate_expr.__doc__, "Evaluates Python expression.")
        self.assertEqual(kest.cpython.evaluate_expr.__text_signature__, "(code: String, scope: Untyped) -> Untyped")

    def test_evaluate_expr_gives_the_value(self):
        import kest.cpython
        self.assertEqual(kest.cpython.evaluate_expr("1 + 2"), 3)
        self.assertEqual(kest.cpython.evaluate_expr("'a' * 3"), "aaa")

    def test_evaluate_runs_a_function_body(self):
        import kest.cpython
        self.assertEqual(kest.cpython.evaluate("x = 6\nreturn x * 7"), 42)
        self.assertIsNone(kest.cpython.evaluate("x = 1"))

    def test_evaluate_can_use_host_modules(self):
        import kest.cpython
        self.assertEqual(kest.cpython.evaluate("from kest.demo import Vector\nreturn Vector(1, 2).y"), 2.0)

    def test_evaluate_expr_reports_a_syntax_error(self):
        import kest.cpython
        with self.assertRaises(RuntimeError) as caught:
            kest.cpython.evaluate_expr("1 +")
        self.assertEqual(type(caught.exception).__name__, "EvaluationError")
        self.assertIn("SyntaxError", caught.exception.kest.message)
