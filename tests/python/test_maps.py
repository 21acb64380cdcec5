"""A host map: kest.demo.Palette, from colour names to '#rrggbb' texts."""

import unittest

import kest
from kest.demo import Palette


class Reading(unittest.TestCase):
    def setUp(self):
        self.palette = Palette()

    def test_new_palette_holds_black_and_white(self):
        self.assertEqual(self.palette["black"], "#000000")
        self.assertEqual(self.palette["white"], "#ffffff")
        self.assertEqual(len(self.palette), 2)

    def test_in(self):
        self.assertIn("black", self.palette)
        self.assertNotIn("red", self.palette)
        self.assertNotIn("Black", self.palette)
        self.assertNotIn(5, self.palette)

    def test_missing_key_raises_key_error(self):
        with self.assertRaises(KeyError) as caught:
            self.palette["red"]
        self.assertEqual(caught.exception.args, ("red",))

    def test_missing_key_of_another_type_raises_key_error(self):
        with self.assertRaises(KeyError) as caught:
            self.palette[0]
        self.assertEqual(caught.exception.args, (0,))

    def test_mutable_key_raises_type_error(self):
        with self.assertRaises(TypeError) as caught:
            self.palette[["black"]]
        self.assertTrue(str(caught.exception).startswith("A map key must be immutable"))

    def test_get_is_pythons(self):
        # Python's meaning of a mapping's get wins over the host's own.
        self.assertEqual(self.palette.get("white"), "#ffffff")
        self.assertIsNone(self.palette.get("red"))
        self.assertEqual(self.palette.get("red", 0), 0)

    def test_the_host_get_through_kest_member(self):
        host_get = kest.member(self.palette, "get")
        self.assertEqual(host_get("white"), "#ffffff")
        with self.assertRaises(RuntimeError) as caught:
            host_get("red")
        self.assertEqual(str(caught.exception), "Key not found: red.")

    def test_truth(self):
        self.assertTrue(self.palette)


class Writing(unittest.TestCase):
    def setUp(self):
        self.palette = Palette()

    def test_assignment_adds_a_colour(self):
        self.palette["red"] = "#ff0000"
        self.assertEqual(self.palette["red"], "#ff0000")
        self.assertIn("red", self.palette)
        self.assertEqual(len(self.palette), 3)

    def test_assignment_replaces_a_colour(self):
        self.palette["black"] = "#010101"
        self.assertEqual(self.palette["black"], "#010101")
        self.assertEqual(len(self.palette), 2)

    def test_palettes_are_independent(self):
        self.palette["red"] = "#ff0000"
        self.assertNotIn("red", Palette())

    def test_assignment_refuses_a_badly_written_colour(self):
        for colour in ("red", "#fff", 5):
            with self.assertRaises(RuntimeError) as caught:
                self.palette["red"] = colour
            self.assertEqual(str(caught.exception), "A colour is written '#rrggbb'.")
        self.assertNotIn("red", self.palette)

    def test_assignment_refuses_a_key_of_another_class(self):
        with self.assertRaises(RuntimeError) as caught:
            self.palette[5] = "#000000"
        self.assertEqual(str(caught.exception),
                         "Unable to use as a key a value of class 'kest.Integer' in 'kest.HashMap<kest.String, kest.String>'.")
        self.assertEqual(len(self.palette), 2)

    def test_deletion_removes_a_colour(self):
        del self.palette["black"]
        self.assertNotIn("black", self.palette)
        self.assertEqual(len(self.palette), 1)
        with self.assertRaises(KeyError):
            self.palette["black"]

    def test_methods_set_contains_remove(self):
        self.palette.set("green", "#00ff00")
        self.assertTrue(self.palette.contains("green"))
        self.palette.remove("green")
        self.assertFalse(self.palette.contains("green"))

    def test_deleting_a_missing_key_raises_key_error(self):
        with self.assertRaises(KeyError):
            del self.palette["red"]


class Iteration(unittest.TestCase):
    def setUp(self):
        self.palette = Palette()

    def test_iteration_gives_the_keys(self):
        self.assertEqual(sorted(self.palette), ["black", "white"])

    def test_for_loop_over_keys(self):
        self.palette["red"] = "#ff0000"
        seen = set()
        for name in self.palette:
            seen.add(name)
        self.assertEqual(seen, {"black", "white", "red"})

    def test_dict_from_a_palette(self):
        self.palette["red"] = "#ff0000"
        self.assertEqual({name: self.palette[name] for name in self.palette},
                         {"black": "#000000", "white": "#ffffff", "red": "#ff0000"})

    def test_keys_and_values_are_views(self):
        self.palette["red"] = "#ff0000"
        self.assertEqual(sorted(self.palette.keys()), ["black", "red", "white"])
        self.assertEqual(sorted(self.palette.values()), ["#000000", "#ff0000", "#ffffff"])
        keys = self.palette.keys()
        self.palette["blue"] = "#0000ff"
        self.assertIn("blue", keys)  # a view follows its map

    def test_the_host_keys_and_values_properties(self):
        self.palette["red"] = "#ff0000"
        self.assertEqual(sorted(kest.member(self.palette, "keys")), ["black", "red", "white"])
        self.assertEqual(sorted(kest.member(self.palette, "values")), ["#000000", "#ff0000", "#ffffff"])

    def test_keys_and_values_match(self):
        self.palette["red"] = "#ff0000"
        pairs = list(zip(self.palette.keys(), self.palette.values()))
        self.assertEqual(sorted(pairs), [("black", "#000000"), ("red", "#ff0000"), ("white", "#ffffff")])
