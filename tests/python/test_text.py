"""Host objects as text (str, repr, formatting) and their members in dir()."""

import io
import unittest

import kest.demo
from kest.demo import Countdown, Drawing, Palette, Scaler, Shape, Vector


class Text(unittest.TestCase):
    def test_vector_str_and_repr(self):
        v = Vector(1, 2.5)
        self.assertEqual(str(v), "Vector(1.0, 2.5)")
        self.assertEqual(repr(v), "Vector(1.0, 2.5)")
        self.assertEqual(str(Vector(0.1, -3)), "Vector(0.1, -3.0)")

    def test_shape_text_comes_from_its_display_method(self):
        shape = Shape("circle", 1.0, "wheel")
        self.assertEqual(str(shape), "<circle wheel>")
        self.assertEqual(repr(shape), "<circle wheel>")
        shape.name = "disc"
        self.assertEqual(str(shape), "<circle disc>")

    def test_objects_without_display_method(self):
        # Containers without a display method of their own show as Python's.
        self.assertEqual(str(Drawing()), "[]")
        self.assertEqual(repr(Palette()), "{'black': '#000000', 'white': '#ffffff'}")
        self.assertEqual(str(Countdown(2)), "<kest.demo.Countdown object>")
        self.assertEqual(str(Scaler(2)), "<kest.demo.Scaler object>")

    def test_host_list(self):
        self.assertEqual(str(kest.demo.numbers(3)), "[0, 1, 2]")
        self.assertEqual(repr(kest.demo.numbers(0)), "[]")

    def test_class_function_and_method(self):
        self.assertEqual(str(Shape), "<class kest.demo.Shape>")
        self.assertEqual(repr(kest.demo.greet), "<function kest.demo.greet(name: String, greeting: String) -> String>")
        self.assertEqual(repr(Shape("square", 1.0).area), "<function kest.demo.Shape.area() -> Float>")

    def test_formatting(self):
        v = Vector(1, 2)
        self.assertEqual(f"at {v}", "at Vector(1.0, 2.0)")
        self.assertEqual("%s and %r" % (v, Shape("square", 1.0, "s")), "Vector(1.0, 2.0) and <square s>")
        self.assertEqual(format(v), "Vector(1.0, 2.0)")
        self.assertEqual("{}".format(v), "Vector(1.0, 2.0)")

    def test_print(self):
        out = io.StringIO()
        print(Vector(1, 2), Shape("square", 1.0, "s"), file=out)
        self.assertEqual(out.getvalue(), "Vector(1.0, 2.0) <square s>\n")

    def test_text_inside_python_containers(self):
        self.assertEqual(str([Vector(1, 2)]), "[Vector(1.0, 2.0)]")
        self.assertEqual(repr({"a": Shape("circle", 1.0, "c")}), "{'a': <circle c>}")


class Documentation(unittest.TestCase):
    def test_instance_doc_is_the_class_doc(self):
        self.assertEqual(Shape("square", 1.0).__doc__,
                         "A shape: Shape(kind, size, name='shape'); kind is square, circle or triangle.")
        self.assertEqual(Vector(1, 2).__doc__, "An immutable 2-D vector: Vector(x, y).")

    def test_method_and_function_docs(self):
        self.assertEqual(Shape("square", 1.0).describe.__doc__, "A sentence about the shape.")
        self.assertEqual(kest.demo.fail.__doc__, "Always fails with DemoError.")

    def test_module_doc(self):
        self.assertEqual(kest.demo.__doc__, "A small object model for trying host objects from scripts.")

    def test_class_doc(self):
        self.assertEqual(kest.demo.Shape.__doc__,
                         "A shape: Shape(kind, size, name='shape'); kind is square, circle or triangle.")


class Dir(unittest.TestCase):
    def assert_lists(self, value, names):
        listed = dir(value)
        for name in names:
            with self.subTest(name=name):
                self.assertIn(name, listed)

    def test_shape_members(self):
        self.assert_lists(Shape("square", 1.0),
                          ["kind", "name", "size", "position", "area", "describe", "moved", "explode"])

    def test_vector_members(self):
        self.assert_lists(Vector(1, 2), ["x", "y", "norm", "at", "iter", "contains"])

    def test_drawing_members(self):
        self.assert_lists(Drawing(), ["append", "extend", "concat", "removeAt", "clear", "totalArea", "at", "set"])

    def test_palette_members(self):
        self.assert_lists(Palette(), ["keys", "values", "get", "set", "contains", "remove"])

    def test_countdown_and_scaler_members(self):
        self.assert_lists(Countdown(1), ["next"])
        self.assert_lists(Scaler(1), ["call"])

    def test_dir_is_sorted_without_duplicates(self):
        listed = dir(Shape("square", 1.0))
        self.assertEqual(listed, sorted(set(listed)))

    def test_dir_lists_no_python_object_members(self):
        listed = dir(Vector(1, 2))
        self.assertNotIn("__class__", listed)
        self.assertNotIn("__eq__", listed)

    def test_dir_lists_added_properties_of_that_object(self):
        shape, other = Shape("square", 1.0), Shape("square", 1.0)
        shape.label = "mine"
        self.assertIn("label", dir(shape))
        self.assertNotIn("label", dir(other))

    def test_every_public_name_listed_is_reachable(self):
        shape = Shape("square", 1.0)
        for name in dir(shape):
            if not name.startswith("_"):
                with self.subTest(name=name):
                    self.assertTrue(hasattr(shape, name))

    def test_module_members(self):
        listed = dir(kest.demo)
        for name in ("Vector", "Shape", "Drawing", "Palette", "Countdown", "Scaler", "DemoError",
                     "greet", "fail", "numbers"):
            with self.subTest(name=name):
                self.assertIn(name, listed)
