"""Attributes of host objects: properties, fields, methods and added names."""

import unittest

from kest.demo import Shape, Vector


class ReadingAttributes(unittest.TestCase):
    def setUp(self):
        self.shape = Shape("circle", 2.0, "ball")

    def test_read_only_property_gives_the_kind(self):
        self.assertEqual(self.shape.kind, "circle")
        self.assertEqual(Shape("triangle", 1.0).kind, "triangle")

    def test_writable_property_gives_the_name(self):
        self.assertEqual(self.shape.name, "ball")

    def test_writable_property_has_its_default(self):
        self.assertEqual(Shape("square", 1.0).name, "shape")

    def test_field_gives_a_float(self):
        self.assertEqual(self.shape.size, 2.0)
        self.assertIs(type(self.shape.size), float)

    def test_integer_size_is_stored_as_float(self):
        size = Shape("square", 3).size
        self.assertEqual(size, 3.0)
        self.assertIs(type(size), float)

    def test_field_holding_a_host_object(self):
        position = self.shape.position
        self.assertEqual(position, Vector(0, 0))
        self.assertEqual((position.x, position.y), (0.0, 0.0))

    def test_method_without_arguments(self):
        self.assertAlmostEqual(Shape("square", 3.0).area(), 9.0)
        self.assertAlmostEqual(self.shape.area(), 3.141592653589793 * 4.0)
        self.assertAlmostEqual(Shape("triangle", 2.0).area(), 4 * 0.4330127018922193)

    def test_method_with_defaults_only(self):
        self.assertEqual(self.shape.describe(), "a circle ball")

    def test_method_positional_overrides_default(self):
        self.assertEqual(self.shape.describe("the "), "the circle ball")
        self.assertEqual(self.shape.describe("my ", "!"), "my circle ball!")

    def test_method_keyword_arguments(self):
        self.assertEqual(self.shape.describe(suffix="."), "a circle ball.")
        self.assertEqual(self.shape.describe(suffix="?", prefix="one "), "one circle ball?")

    def test_method_with_one_default_argument(self):
        moved = self.shape.moved(1.5)
        self.assertEqual((moved.position.x, moved.position.y), (1.5, 0.0))

    def test_method_keyword_arguments_in_any_order(self):
        moved = self.shape.moved(dy=2, dx=1)
        self.assertEqual((moved.position.x, moved.position.y), (1.0, 2.0))

    def test_moved_returns_a_copy(self):
        moved = self.shape.moved(1, 1)
        self.assertEqual(self.shape.position, Vector(0, 0))
        self.assertEqual((moved.kind, moved.name, moved.size), ("circle", "ball", 2.0))

    def test_bound_method_keeps_its_object(self):
        describe = self.shape.describe
        self.shape.name = "wheel"
        self.assertEqual(describe(), "a circle wheel")
        self.assertEqual(describe.__name__, "describe")

    def test_unknown_attribute_raises_attribute_error(self):
        with self.assertRaises(AttributeError) as caught:
            self.shape.colour
        self.assertEqual(str(caught.exception), "'<class kest.demo.Shape>' object has no attribute 'colour'")

    def test_getattr_default_and_hasattr(self):
        self.assertEqual(getattr(self.shape, "colour", "none"), "none")
        self.assertFalse(hasattr(self.shape, "colour"))
        self.assertTrue(hasattr(self.shape, "kind"))
        self.assertTrue(hasattr(self.shape, "describe"))

    def test_host_members_beginning_with_underscore_are_unreachable(self):
        with self.assertRaises(AttributeError):
            self.shape._kind
        with self.assertRaises(AttributeError):
            Vector(1, 2)._x


class WritingAttributes(unittest.TestCase):
    def setUp(self):
        self.shape = Shape("square", 2.0, "box")

    def test_writable_property_takes_a_new_value(self):
        self.shape.name = "crate"
        self.assertEqual(self.shape.name, "crate")
        self.assertEqual(self.shape.describe(), "a square crate")

    def test_writable_property_rejects_a_wrong_type(self):
        with self.assertRaises(RuntimeError) as caught:
            self.shape.name = 5
        self.assertTrue(str(caught.exception).startswith("name: Argument 2 must be kest.String, not kest.Integer."))
        self.assertEqual(self.shape.name, "box")

    def test_field_takes_a_new_value(self):
        self.shape.size = 3
        self.assertEqual(self.shape.size, 3.0)
        self.assertAlmostEqual(self.shape.area(), 9.0)

    def test_field_takes_a_host_object(self):
        self.shape.position = Vector(3, 4)
        self.assertEqual(self.shape.position, Vector(3, 4))

    def test_field_rejects_a_wrong_type(self):
        with self.assertRaises(RuntimeError) as caught:
            self.shape.size = "big"
        self.assertEqual(str(caught.exception), "size: The field 'size' takes 'kest.Float', not 'kest.String'.")
        self.assertEqual(self.shape.size, 2.0)

    def test_field_rejects_a_wrong_host_class(self):
        with self.assertRaises(RuntimeError) as caught:
            self.shape.position = 5
        self.assertEqual(str(caught.exception),
                         "position: The field 'position' takes 'kest.demo.Vector', not 'kest.Integer'.")
        self.assertEqual(self.shape.position, Vector(0, 0))

    def test_assigning_a_read_only_property_raises_runtime_error(self):
        with self.assertRaises(RuntimeError) as caught:
            self.shape.kind = "circle"
        self.assertEqual(str(caught.exception), "Read-only attribute: kind.")
        self.assertEqual(self.shape.kind, "square")

    def test_assigning_a_vector_component_raises_runtime_error(self):
        v = Vector(1, 2)
        with self.assertRaises(RuntimeError) as caught:
            v.x = 5
        self.assertEqual(str(caught.exception), "Read-only attribute: x.")
        self.assertEqual(v.x, 1.0)

    def test_assigning_an_unknown_name_adds_a_property_to_that_object_only(self):
        other = Shape("square", 2.0, "box")
        self.shape.colour = "red"
        self.assertEqual(self.shape.colour, "red")
        self.assertIn("colour", dir(self.shape))
        self.assertNotIn("colour", dir(other))
        with self.assertRaises(AttributeError):
            other.colour
        with self.assertRaises(AttributeError):
            Shape("square", 2.0).colour

    def test_added_property_keeps_any_value(self):
        v = Vector(1, 2)
        v.label = "origin"
        self.shape.tags = Vector(5, 6)
        self.assertEqual(v.label, "origin")
        self.assertEqual(self.shape.tags, Vector(5, 6))

    def test_added_property_can_be_assigned_again(self):
        self.shape.tag = "a"
        self.shape.tag = "b"
        self.assertEqual(self.shape.tag, "b")

    def test_read_only_fields_cannot_be_written_through_underscore_names(self):
        v = Vector(1, 2)
        try:
            v._x = 9
        except (AttributeError, RuntimeError, TypeError):
            pass
        try:
            self.shape._kind = "circle"
        except (AttributeError, RuntimeError, TypeError):
            pass
        self.assertEqual((v.x, self.shape.kind), (1.0, "square"))

    def test_deleting_a_field_is_refused(self):
        with self.assertRaises((AttributeError, TypeError, RuntimeError)):
            del self.shape.size
        self.assertEqual(self.shape.size, 2.0)

    # A setter's error reads "NAME: MESSAGE." with the host message as it is.
    def test_setter_error_names_the_attribute_and_the_host_message(self):
        with self.assertRaises(RuntimeError) as caught:
            self.shape.name = 5
        self.assertEqual(str(caught.exception), "name: Argument 2 must be kest.String, not kest.Integer..")
