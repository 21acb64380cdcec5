"""A host iterator, kest.demo.Countdown, and the host's end of iteration."""

import unittest

import kest.demo
from kest.demo import Countdown, Drawing, Shape


class CountdownInPython(unittest.TestCase):
    def test_for_loop(self):
        seen = []
        for n in Countdown(3):
            seen.append(n)
        self.assertEqual(seen, [3, 2, 1])

    def test_for_loop_ends_normally(self):
        ended = False
        for _ in Countdown(2):
            pass
        else:
            ended = True
        self.assertTrue(ended)

    def test_list(self):
        self.assertEqual(list(Countdown(4)), [4, 3, 2, 1])

    def test_nothing_to_count(self):
        self.assertEqual(list(Countdown(0)), [])
        self.assertEqual(list(Countdown(-2)), [])

    def test_python_functions_consume_it(self):
        self.assertEqual(sum(Countdown(4)), 10)
        self.assertEqual(list(zip(Countdown(3), "abc")), [(3, "a"), (2, "b"), (1, "c")])
        self.assertEqual(sorted(Countdown(3)), [1, 2, 3])

    def test_iterator_is_its_own_iterable(self):
        countdown = Countdown(1)
        self.assertIs(iter(countdown), countdown)

    def test_next_until_stop_iteration(self):
        countdown = Countdown(3)
        self.assertEqual(next(countdown), 3)
        self.assertEqual(next(countdown), 2)
        self.assertEqual(next(countdown), 1)
        with self.assertRaises(StopIteration):
            next(countdown)
        with self.assertRaises(StopIteration):
            next(countdown)

    def test_next_with_a_default(self):
        countdown = Countdown(1)
        self.assertEqual(next(countdown, "end"), 1)
        self.assertEqual(next(countdown, "end"), "end")

    def test_partly_consumed_iterator_goes_on(self):
        countdown = Countdown(5)
        self.assertEqual([next(countdown), next(countdown)], [5, 4])
        self.assertEqual(list(countdown), [3, 2, 1])

    def test_exhausted_iterator_stays_exhausted(self):
        countdown = Countdown(2)
        self.assertEqual(list(countdown), [2, 1])
        self.assertEqual(list(countdown), [])

    def test_membership_consumes_it(self):
        countdown = Countdown(5)
        self.assertIn(4, countdown)
        self.assertEqual(list(countdown), [3, 2, 1])

    def test_has_no_length(self):
        with self.assertRaises(TypeError):
            len(Countdown(2))


class HostStopIteration(unittest.TestCase):
    def test_next_method_raises_stop_iteration_at_the_end(self):
        countdown = Countdown(1)
        self.assertEqual(countdown.next(), 1)
        with self.assertRaises(StopIteration) as caught:
            countdown.next()
        self.assertIs(type(caught.exception), StopIteration)
        self.assertEqual(caught.exception.kest.message, "Stop iteration.")

    def test_host_stop_iteration_ends_a_python_for_loop_normally(self):
        class Steps:
            def __init__(self, n):
                self.countdown = Countdown(n)

            def __iter__(self):
                return self

            def __next__(self):
                return self.countdown.next()

        seen = []
        for n in Steps(3):
            seen.append(n)
        else:
            seen.append("end")
        self.assertEqual(seen, [3, 2, 1, "end"])

    def test_host_stop_iteration_ends_a_callable_iterator(self):
        self.assertEqual(list(iter(Countdown(3).next, None)), [3, 2, 1])

    def test_host_stop_iteration_inside_a_generator_is_a_runtime_error(self):
        def generator():
            yield 1
            Countdown(0).next()
            yield 2

        with self.assertRaises(RuntimeError) as caught:
            list(generator())
        self.assertIsInstance(caught.exception.__cause__, StopIteration)


class IteratorsOfIterables(unittest.TestCase):
    def test_iter_of_a_drawing(self):
        drawing = Drawing()
        drawing.append(Shape("square", 1.0, "a"))
        drawing.append(Shape("square", 1.0, "b"))
        iterator = iter(drawing)
        self.assertIsNot(iterator, drawing)
        self.assertEqual(next(iterator).name, "a")
        self.assertEqual(next(iterator).name, "b")
        with self.assertRaises(StopIteration):
            next(iterator)

    def test_iter_of_a_host_list(self):
        iterator = iter(kest.demo.numbers(2))
        self.assertEqual(list(iterator), [0, 1])

    def test_two_iterators_are_independent(self):
        numbers = kest.demo.numbers(3)
        first, second = iter(numbers), iter(numbers)
        self.assertEqual(next(first), 0)
        self.assertEqual(next(first), 1)
        self.assertEqual(next(second), 0)

    def test_next_of_an_iterable_that_is_no_iterator(self):
        with self.assertRaises(TypeError) as caught:
            next(Drawing())
        self.assertEqual(str(caught.exception), "'<class kest.demo.Drawing>' object is not an iterator.")

    def test_iter_of_an_object_that_is_not_iterable(self):
        with self.assertRaises(TypeError) as caught:
            iter(Shape("square", 1.0))
        self.assertEqual(str(caught.exception), "'<class kest.demo.Shape>' object is not iterable.")
