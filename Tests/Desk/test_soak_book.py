"""What the soak holds a camera to: nothing that was confirmed may be missing, and nothing else may be there."""

import os
import random
import shutil
import tempfile
import types
import unittest

from desk import changed, picture
from soak_book import Book, deleting, storing, updating
from soak_budgets import BUDGETS, read_budgets
from soak_faults import NO_FILES, UnreadPipe, displaced, plant_orphans


class BookTest(unittest.TestCase):
    """Changes are asked for by `life`; `seen` are the records that a camera would show."""

    def setUp(self):
        self.book = Book()
        disk = types.SimpleNamespace(room=True)
        self.life = types.SimpleNamespace(book=self.book, dice=random.Random(1), disk=disk)
        for custom_id in (1, 2, 3):
            self.store(custom_id)

    def store(self, custom_id):
        change = storing(self.life, picture(custom_id))
        self.book.confirm(change, custom_id)
        return change

    def ask(self, change):
        self.book.pending = change
        return change

    def seen(self, *changes, new_id=4):
        presets = self.book.presets
        for change in changes:
            presets = change.after(presets, new_id)
        return self.book.records("shown", presets)

    def assertNoticed(self, seen, what):
        with self.assertRaisesRegex(AssertionError, what):
            self.book.settle("a list", seen, "shown")


class Confirmed(BookTest):
    def test_all_of_it_is_expected_in_its_order(self):
        self.book.settle("a list", self.seen(), "shown")

    def test_a_missing_preset_is_noticed(self):
        self.assertNoticed(self.seen()[:2], "custom_ids")

    def test_a_preset_that_nobody_stored_is_noticed(self):
        self.assertNoticed(self.seen(storing(self.life)), "custom_ids")

    def test_a_changed_field_is_noticed_by_its_name(self):
        records = self.seen()
        records[1] = changed(records[1], server_id=99)
        self.assertNoticed(records, "server_id of preset 2")

    def test_an_update_that_is_not_there_is_noticed(self):
        before = self.seen()
        self.book.confirm(updating(self.life), 0)
        self.assertNoticed(before, "title of preset")

    def test_a_refused_store_that_is_there_is_noticed(self):
        change = self.ask(storing(self.life))
        self.book.refuse()
        self.assertNoticed(self.seen(change), "custom_ids")

    def test_a_custom_id_that_is_given_twice_is_noticed(self):
        with self.assertRaisesRegex(AssertionError, "that a custom_id is new"):
            self.store(3)


class Unanswered(BookTest):
    def test_a_change_may_be_done(self):
        change = self.ask(deleting(self.life))
        self.assertEqual(self.book.settle("a list", self.seen(change), "shown"), [change])

    def test_a_change_may_be_undone(self):
        self.ask(storing(self.life))
        self.assertEqual(self.book.settle("a list", self.seen(), "shown"), [])

    def test_a_change_that_was_seen_undone_may_not_be_there_later(self):
        change = self.ask(storing(self.life))
        self.book.settle("a list", self.seen(), "shown")
        self.assertNoticed(self.seen(change), "custom_ids")

    def test_a_deletion_in_half_is_noticed(self):
        first, second, third = self.book.presets
        change = self.ask(deleting(self.life))
        change.after = lambda presets, _: [preset for preset in presets if preset is third]
        self.assertNoticed(self.book.records("shown", [second, third]), "a delete not done: the custom_ids")


class InDoubt(BookTest):
    """A change of which the store has said that it cannot tell whether it was made."""

    def setUp(self):
        super().setUp()
        self.change = self.ask(storing(self.life))
        self.book.doubt()

    def test_it_may_be_done(self):
        self.assertEqual(self.book.settle("a list", self.seen(self.change), "shown"), [self.change])

    def test_it_may_be_undone_first_and_done_after_a_restart(self):
        self.book.settle("a list", self.seen(), "shown", is_final=False)
        self.book.settle("a store at rest", self.seen(self.change), "shown")

    def test_it_may_not_come_back_when_it_was_undone_after_a_restart(self):
        self.book.settle("a store at rest", self.seen(), "shown")
        self.assertNoticed(self.seen(self.change), "custom_ids")

    def test_it_must_stay_once_it_was_seen(self):
        before = self.seen()
        self.book.settle("a list", self.seen(self.change), "shown", is_final=False)
        self.assertNoticed(before, "custom_ids")

    def test_what_is_confirmed_behind_it_must_be_there_either_way(self):
        last = storing(self.life)
        self.book.confirm(last, 5)
        without = self.seen()
        alone = self.seen(last, new_id=5)
        self.assertNoticed(without, "custom_ids")
        self.book.settle("a list", alone, "shown")
        self.assertEqual([preset.custom_id for preset in self.book.presets], [1, 2, 3, 5])

    def test_both_may_be_there(self):
        last = storing(self.life)
        self.book.confirm(last, 5)
        both = self.book.records("shown", last.after(self.change.after(self.book.presets, 4), 5))
        self.book.settle("a list", both, "shown")
        self.assertEqual([preset.custom_id for preset in self.book.presets], [1, 2, 3, 4, 5])

    def test_a_further_change_that_was_not_tried_is_undone_for_good(self):
        untried = self.ask(updating(self.life))
        self.book.settle("a list", self.seen(), "shown", is_final=False, was_tried=False)
        self.assertNoticed(self.seen(untried), "title of preset|server_id of preset")


class BudgetNumbers(unittest.TestCase):
    def test_are_sums_products_and_shifts_of_numbers_and_names(self):
        budgets = read_budgets(
            "constexpr size_t one = 7; // phones\n"
            "constexpr size_t large = size_t{1} << 20;\n"
            "constexpr size_t sum =\n    2 * one + large + (one + 1) - SM_REPLY_QUEUE;\n"
        )
        self.assertEqual((budgets.one, budgets.large, budgets.sum), (7, 1048576, 14 + 1048576 + 8 - 10))

    def test_are_seconds_where_they_are_times(self):
        budgets = read_budgets("constexpr milliseconds short_time{1500};\nconstexpr seconds long_time{10};")
        self.assertEqual((budgets.short_time, budgets.long_time), (1.5, 10))

    def test_that_cannot_be_read_are_told(self):
        with self.assertRaisesRegex(ValueError, "the value of odd cannot be read"):
            read_budgets("constexpr int odd = call(1, 2);")

    def test_that_the_soak_uses_are_all_there(self):
        for name in ("descriptors", "memory_of_phones", "waiting_time", "turned_away_time", "stalled_time"):
            self.assertGreater(getattr(BUDGETS, name), 0)


class Files(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="soak-")
        self.addCleanup(shutil.rmtree, self.folder)
        self.store = os.path.join(self.folder, "store")
        os.makedirs(os.path.join(self.store, "pictures"))
        self.path = os.path.join(self.store, "pictures", "1.jpg")
        with open(self.path, "wb") as file:
            file.write(b"the picture")

    def test_are_put_back_whatever_was_in_their_place(self):
        for name, put in NO_FILES.items():
            with self.subTest(name), displaced(self.path, put):
                self.assertNotEqual(os.lstat(self.path).st_size, len(b"the picture"))
            with open(self.path, "rb") as file:
                self.assertEqual(file.read(), b"the picture")

    def test_are_put_back_when_a_phone_fails_meanwhile(self):
        with self.assertRaises(ZeroDivisionError), displaced(self.path, os.mkfifo):
            1 / 0
        self.assertTrue(os.path.isfile(self.path))

    def test_that_are_planted_have_names_that_no_preset_has(self):
        used = list(range(1, 20))
        for seed in range(50):
            names = plant_orphans(self.store, random.Random(seed), used)
            self.assertGreaterEqual(len(names), 2)
            self.assertFalse({f"{n}.jpg" for n in used} & {name.removesuffix(".new") for name in names})


class UnreadPipes(unittest.TestCase):
    def written(self, state):
        """Bytes that the pipe takes at once."""
        pipe = UnreadPipe(state)
        os.set_blocking(pipe.fileno(), False)
        self.addCleanup(pipe.close)
        return pipe.writer.write(b"x" * 100000) or 0

    def test_that_begin_empty_take_a_few_lines(self):
        self.assertTrue(100 < self.written("empty") < 100000)

    def test_that_begin_full_take_nothing(self):
        self.assertEqual(self.written("full"), 0)

    def test_without_a_reader_are_broken(self):
        with self.assertRaises(BrokenPipeError):
            self.written("broken")


if __name__ == "__main__":
    unittest.main()
