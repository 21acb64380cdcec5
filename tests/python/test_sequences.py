"""Host sequences: a Drawing of shapes and a host list from kest.demo.numbers."""

import unittest

import kest.demo
from kest.demo import Drawing, Shape, Vector


def drawing_of(*names):
    drawing = Drawing()
    for name in names:
        drawing.append(Shape("square", 1.0, name))
    return drawing


def names(drawing):
    return [shape.name for shape in drawing]


class Iteration(unittest.TestCase):
    def test_for_loop_over_a_drawing(self):
        seen = []
        for shape in drawing_of("a", "b", "c"):
            seen.append(shape.name)
        self.assertEqual(seen, ["a", "b", "c"])

    def test_for_loop_over_an_empty_drawing(self):
        for _ in Drawing():
            self.fail("an empty drawing has no shapes")

    def test_for_loop_over_a_host_list(self):
        seen = []
        for number in kest.demo.numbers(4):
            seen.append(number)
        self.assertEqual(seen, [0, 1, 2, 3])

    def test_host_list_in_python_functions(self):
        self.assertEqual(sum(kest.demo.numbers(5)), 10)
        self.assertEqual([n * n for n in kest.demo.numbers(4)], [0, 1, 4, 9])
        self.assertEqual(list(reversed(kest.demo.numbers(3))), [2, 1, 0])
        self.assertEqual(sorted(kest.demo.numbers(3), reverse=True), [2, 1, 0])

    def test_vector_iterates_over_its_components(self):
        self.assertEqual(list(Vector(1, 2.5)), [1.0, 2.5])


class LengthAndIndexing(unittest.TestCase):
    def test_len(self):
        self.assertEqual(len(Drawing()), 0)
        self.assertEqual(len(drawing_of("a", "b", "c")), 3)
        self.assertEqual(len(kest.demo.numbers(5)), 5)
        self.assertEqual(len(Vector(1, 2)), 2)

    def test_truth_follows_the_length(self):
        self.assertFalse(Drawing())
        self.assertTrue(drawing_of("a"))

    def test_indexing(self):
        drawing = drawing_of("a", "b", "c")
        self.assertEqual(drawing[0].name, "a")
        self.assertEqual(drawing[2].name, "c")
        self.assertEqual(kest.demo.numbers(4)[3], 3)
        self.assertEqual(Vector(1, 2)[1], 2.0)

    def test_indexing_gives_the_shape_that_was_added(self):
        shape = Shape("circle", 1.0)
        drawing = Drawing()
        drawing.append(shape)
        self.assertEqual(drawing[0], shape)

    def test_index_out_of_range_raises_index_error(self):
        drawing = drawing_of("a", "b")
        with self.assertRaises(IndexError) as caught:
            drawing[2]
        self.assertEqual(str(caught.exception), "Kest sequence index out of range.")
        with self.assertRaises(IndexError):
            kest.demo.numbers(3)[3]
        with self.assertRaises(IndexError):
            Vector(1, 2)[2]

    def test_negative_index_beyond_the_start_raises_index_error(self):
        with self.assertRaises(IndexError):
            drawing_of("a", "b")[-3]

    def test_slicing_gives_a_host_list(self):
        part = drawing_of("a", "b", "c")[0:3:2]
        self.assertEqual([shape.name for shape in part], ["a", "c"])

    def test_string_index_is_not_supported(self):
        with self.assertRaises(TypeError):
            drawing_of("a")["a"]

    def test_negative_index_counts_from_the_end(self):
        drawing = drawing_of("a", "b", "c")
        self.assertEqual(drawing[-1].name, "c")
        self.assertEqual(drawing[-3].name, "a")
        self.assertEqual(kest.demo.numbers(4)[-1], 3)
        self.assertEqual(Vector(1, 2)[-2], 1.0)


class Containment(unittest.TestCase):
    def test_shape_in_drawing(self):
        shape = Shape("circle", 1.0)
        drawing = drawing_of("a")
        drawing.append(shape)
        self.assertIn(shape, drawing)
        self.assertIn(drawing[0], drawing)

    def test_other_shape_not_in_drawing(self):
        drawing = drawing_of("a")
        self.assertNotIn(Shape("square", 1.0, "z"), drawing)
        self.assertNotIn(5, drawing)
        self.assertFalse("a" in drawing)

    def test_number_in_host_list(self):
        numbers = kest.demo.numbers(3)
        self.assertIn(2, numbers)
        self.assertNotIn(3, numbers)
        self.assertNotIn(-1, numbers)

    def test_component_in_vector(self):
        self.assertIn(2, Vector(1, 2))
        self.assertIn(1.0, Vector(1, 2))
        self.assertNotIn(3, Vector(1, 2))


class ItemAssignment(unittest.TestCase):
    def test_replacing_a_shape(self):
        drawing = drawing_of("a", "b", "c")
        drawing[1] = Shape("circle", 2.0, "z")
        self.assertEqual(names(drawing), ["a", "z", "c"])
        self.assertEqual(drawing[1].kind, "circle")

    def test_replacing_the_last_shape_by_negative_index(self):
        drawing = drawing_of("a", "b", "c")
        drawing[-1] = Shape("circle", 2.0, "z")
        self.assertEqual(names(drawing), ["a", "b", "z"])

    def test_replacing_numbers_in_a_host_list(self):
        numbers = kest.demo.numbers(3)
        numbers[0] = 10
        numbers[-1] = 7
        self.assertEqual(list(numbers), [10, 1, 7])

    def test_drawing_refuses_what_is_not_a_shape(self):
        drawing = drawing_of("a")
        with self.assertRaises(RuntimeError) as caught:
            drawing[0] = 5
        self.assertEqual(str(caught.exception), "A drawing holds shapes only.")
        self.assertEqual(names(drawing), ["a"])

    def test_host_list_refuses_a_value_of_another_class(self):
        numbers = kest.demo.numbers(2)
        with self.assertRaises(RuntimeError) as caught:
            numbers[0] = "a"
        self.assertEqual(str(caught.exception), "Unable to store a value of class 'kest.String' in 'kest.List<kest.Integer>'.")
        self.assertEqual(list(numbers), [0, 1])

    def test_item_deletion_removes_the_item(self):
        drawing = drawing_of("a", "b")
        del drawing[0]
        self.assertEqual([shape.name for shape in drawing], ["b"])
        with self.assertRaises(IndexError):
            del drawing[5]
        self.assertEqual(len(drawing), 1)

    def test_assignment_out_of_range_is_refused(self):
        drawing = drawing_of("a")
        with self.assertRaises(Exception):
            drawing[5] = Shape("square", 1.0)
        self.assertEqual(names(drawing), ["a"])

    def test_immutable_vector_refuses_item_assignment(self):
        v = Vector(1, 2)
        with self.assertRaises(RuntimeError):
            v[0] = 5
        self.assertEqual(v, Vector(1, 2))

    def test_assignment_out_of_range_raises_index_error(self):
        drawing = drawing_of("a")
        with self.assertRaises(IndexError):
            drawing[5] = Shape("square", 1.0)


class Concatenation(unittest.TestCase):
    def test_plus_makes_a_new_drawing(self):
        left, right = drawing_of("a", "b"), drawing_of("c")
        both = left + right
        self.assertEqual(names(both), ["a", "b", "c"])
        self.assertIsNot(both, left)
        self.assertIsNot(both, right)
        self.assertEqual(type(both), type(left))

    def test_plus_leaves_its_operands_alone(self):
        left, right = drawing_of("a", "b"), drawing_of("c")
        left + right
        self.assertEqual(names(left), ["a", "b"])
        self.assertEqual(names(right), ["c"])

    def test_plus_refuses_what_is_not_a_drawing(self):
        drawing = drawing_of("a")
        for other in (5, [Shape("square", 1.0)], kest.demo.numbers(1)):
            with self.assertRaises(RuntimeError) as caught:
                drawing + other
            self.assertEqual(str(caught.exception), "A drawing concatenates with a drawing.")

    def test_number_plus_drawing_is_a_type_error(self):
        with self.assertRaises(TypeError):
            5 + drawing_of("a")

    def test_in_place_plus_extends_the_same_drawing(self):
        drawing, other = drawing_of("a"), drawing_of("b", "c")
        alias = drawing
        drawing += other
        self.assertIs(drawing, alias)
        self.assertEqual(names(alias), ["a", "b", "c"])
        self.assertEqual(names(other), ["b", "c"])

    def test_in_place_plus_with_itself_doubles_once(self):
        drawing = drawing_of("a", "b")
        drawing += drawing
        self.assertEqual(names(drawing), ["a", "b", "a", "b"])

    def test_in_place_plus_refuses_what_is_not_iterable(self):
        drawing = drawing_of("a")
        with self.assertRaises(RuntimeError) as caught:
            drawing += 5
        self.assertEqual(str(caught.exception), "extend() needs an iterable of shapes.")
        self.assertEqual(names(drawing), ["a"])

    def test_plus_on_host_lists(self):
        self.assertEqual(list(kest.demo.numbers(2) + kest.demo.numbers(3)), [0, 1, 0, 1, 2])

    def test_in_place_plus_on_a_host_list(self):
        numbers = kest.demo.numbers(2)
        alias = numbers
        numbers += kest.demo.numbers(2)
        self.assertIs(numbers, alias)
        self.assertEqual(list(numbers), [0, 1, 0, 1])

    def test_repeating_a_drawing_repeats_its_shapes_as_a_list_does(self):
        # A host sequence without a repeat of its own repeats as Python's lists.
        twice = drawing_of("a") * 2
        self.assertEqual([shape.name for shape in twice], ["a", "a"])


class DrawingMethods(unittest.TestCase):
    def test_total_area(self):
        drawing = Drawing()
        drawing.append(Shape("square", 2.0))
        drawing.append(Shape("square", 3.0))
        self.assertAlmostEqual(drawing.totalArea(), 13.0)

    def test_remove_at_and_clear(self):
        drawing = drawing_of("a", "b", "c")
        self.assertEqual(drawing.removeAt(1).name, "b")
        self.assertEqual(names(drawing), ["a", "c"])
        drawing.clear()
        self.assertEqual(len(drawing), 0)

    def test_append_refuses_what_is_not_a_shape(self):
        drawing = Drawing()
        with self.assertRaises(RuntimeError) as caught:
            drawing.append(Vector(1, 2))
        self.assertEqual(caught.exception.kest.message, "A drawing holds shapes only.")
        self.assertEqual(len(drawing), 0)
