"""Host methods and properties reached through their class behave as Python's
descriptors: they apply to instances of the class and refuse anything else.

Every public member of every kest.demo class is tried with no argument, None,
an integer, an instance of another demo class and a correct instance. The
module also runs inside the read-only sandbox (a CTest test of its own)."""

import unittest

import kest
import kest.demo as demo


def samples():
    """One instance of each demo class, made fresh for each use."""
    return {
        "Vector": demo.Vector(3, 4),
        "Shape": demo.Shape("square", 2, "box"),
        "Drawing": demo.Drawing(),
        "Palette": demo.Palette(),
        "Countdown": demo.Countdown(3),
        "Scaler": demo.Scaler(2),
    }


def public_members(cls):
    return sorted(name for name in dir(cls) if not name.startswith("_"))


def is_method(member):
    return type(member).__name__ == "method_descriptor"


def is_property(member):
    return type(member).__name__ == "property_descriptor"


class EveryMemberThroughItsClass(unittest.TestCase):
    def each_member(self):
        """(class name, class, member name, descriptor) for every public member."""
        for class_name in samples():
            cls = getattr(demo, class_name)
            names = public_members(cls)
            self.assertTrue(names, f"{class_name} shows no members")
            for name in names:
                yield class_name, cls, name, getattr(cls, name)

    def test_every_member_is_a_descriptor(self):
        for class_name, _, name, member in self.each_member():
            with self.subTest(member=f"{class_name}.{name}"):
                self.assertTrue(is_method(member) or is_property(member), repr(member))

    def test_methods_without_an_instance_ask_for_one(self):
        for class_name, _, name, member in self.each_member():
            if not is_method(member):
                continue
            with self.subTest(member=f"{class_name}.{name}"):
                with self.assertRaises(TypeError) as caught:
                    member()
                self.assertEqual(str(caught.exception), f"unbound method {class_name}.{name}() needs an argument")

    def test_members_refuse_values_of_other_classes(self):
        for class_name, _, name, member in self.each_member():
            others = [(None, "NoneType"), (7, "int")]
            others += [(value, other) for other, value in samples().items() if other != class_name]
            for value, type_name in others:
                with self.subTest(member=f"{class_name}.{name}", given=type_name):
                    with self.assertRaises(TypeError) as caught:
                        if is_method(member):
                            member(value)
                        else:
                            member.__get__(value)
                    if value is None and is_property(member):
                        expected = "__get__(None, None) is invalid"  # Python's own check, as for int.real
                    else:
                        expected = f"descriptor '{name}' for '{class_name}' objects doesn't apply to a '{type_name}' object"
                    self.assertEqual(str(caught.exception), expected)

    def test_members_apply_to_an_instance(self):
        for class_name, _, name, member in self.each_member():
            instance = samples()[class_name]
            with self.subTest(member=f"{class_name}.{name}"):
                if is_property(member):
                    # Through the class, the host's member; on a container, a
                    # Python method of the same name wins (kest.member reaches the host's).
                    self.assertEqual(member.__get__(instance), kest.member(instance, name))
                    continue
                try:
                    member(instance)
                except TypeError as error:  # the descriptor accepted the instance
                    self.fail(f"{class_name}.{name}: {error}")
                except RuntimeError:
                    pass  # a host error: a missing argument, or DemoError from explode()


class Descriptors(unittest.TestCase):
    def test_method_descriptor_describes_itself(self):
        append = demo.Drawing.append
        self.assertEqual(repr(append), "<method 'append' of 'Drawing' objects>")
        self.assertEqual(append.__name__, "append")
        self.assertEqual(append.__qualname__, "Drawing.append")
        self.assertEqual(append.__doc__, "Adds a shape at the end.")
        self.assertEqual(append.__objclass__, demo.Drawing)

    def test_property_descriptor_describes_itself(self):
        x = demo.Vector.x
        self.assertEqual(repr(x), "<attribute 'x' of 'Vector' objects>")
        self.assertEqual(x.__name__, "x")
        self.assertEqual(x.__doc__, "The x component.")
        self.assertIs(x.__get__(None, demo.Vector), x)

    def test_calling_through_the_class_acts_on_the_instance(self):
        drawing = demo.Drawing()
        demo.Drawing.append(drawing, demo.Shape("circle", 1))
        self.assertEqual(len(drawing), 1)
        self.assertEqual(demo.Shape.describe(demo.Shape("square", 1, "crate"), prefix="one "), "one square crate")
        self.assertEqual(demo.Vector.norm(demo.Vector(3, 4)), 5.0)

    def test_binding_through_the_class(self):
        shape = demo.Shape("square", 3)
        self.assertEqual(demo.Shape.area.__get__(shape)(), 9.0)

    def test_writing_through_the_property_descriptor(self):
        shape = demo.Shape("square", 1, "box")
        demo.Shape.name.__set__(shape, "crate")
        self.assertEqual(shape.name, "crate")
        with self.assertRaises(AttributeError) as caught:
            demo.Shape.kind.__set__(shape, "circle")
        self.assertEqual(str(caught.exception), "attribute 'kind' of 'Shape' objects is not writable")
        with self.assertRaises(TypeError):
            demo.Shape.name.__set__(demo.Vector(1, 2), "crate")

    def test_a_derived_value_is_accepted_and_interfaces_stay_reachable(self):
        # Python-side values that convert to the host class are instances too.
        self.assertEqual(demo.Drawing.totalArea(demo.Drawing()), 0.0)


class ClassAssignment(unittest.TestCase):
    def test_assigning_class_is_refused(self):
        shape = demo.Shape("circle", 1)
        for target in (int, demo.Vector, type(shape)):
            with self.subTest(target=target):
                with self.assertRaises(TypeError) as caught:
                    shape.__class__ = target
                self.assertEqual(str(caught.exception),
                                 "__class__ assignment only supported for mutable types or ModuleType subclasses")
        self.assertEqual(shape.kind, "circle")


class DeclaredParameterTypes(unittest.TestCase):
    def test_a_float_parameter_refuses_text(self):
        with self.assertRaises(kest.BadArgument):
            demo.Vector("a", 1)

    def test_a_scaler_refuses_text_instead_of_scaling_by_zero(self):
        with self.assertRaises(kest.BadArgument) as caught:
            demo.Scaler(2)("a")
        self.assertIn("a number is expected, not kest.String", caught.exception.kest.message)

    def test_an_integer_parameter_refuses_what_does_not_fit(self):
        with self.assertRaises(kest.BadArgument) as caught:
            demo.Countdown(2**64)
        self.assertIn("must be", caught.exception.kest.message)


if __name__ == "__main__":
    unittest.main()
