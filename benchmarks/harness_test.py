"""What bench.py makes of samples, of contenders that fail, and of results."""

import json
import sys
import unittest
from pathlib import Path
from tempfile import TemporaryDirectory

from harness import plots, report
from harness.figures import compare, quantile, sum_up
from harness.processes import Child, ContenderFailed, NotInstalled

CASE = {"servers": 1, "fsync": False, "candidates": 3}
MACHINE = {"processor": "p", "cores": 2, "memory_gib": 1.0, "kernel": "k", "load_before": 0.0, "disk": "ext2/ext3",
           "java": "j", "packages": {}}
# Enough for the rarest quantile that is shown.
MANY = 200


def python(code: str) -> Child:
    return Child([sys.executable, "-c", code])


def result(recipe: list[float]) -> dict:
    figures = [
        sum_up("handover", CASE, name, "us", samples * MANY)
        for name, samples in (("floor", [100.0, 101.0, 102.0]), ("recipe", recipe), ("kazoo-lock", [150.0, 151.0, 152.0]),
                              ("etcdctl", [10.0, 11.0, 12.0]))
    ]
    compare(figures, "floor")
    return {
        "date": "2026-01-01", "command": "script/bench", "revision": "abc", "machine": MACHINE,
        "figures": [figure.as_json() for figure in figures], "micro": [], "left_out": {}, "failures": [],
    }


class Figures(unittest.TestCase):
    def test_quantiles_lie_between_samples(self) -> None:
        self.assertEqual(quantile([10.0, 20.0, 30.0, 40.0, 50.0], 0.5), 30.0)
        self.assertEqual(quantile([10.0, 20.0], 0.25), 12.5)
        self.assertEqual(quantile([7.0], 0.99), 7.0)

    def test_what_stands_on_too_few_samples_is_not_shown(self) -> None:
        few = sum_up("m", {}, "c", "us", [1.0] * 99)
        more = sum_up("m", {}, "c", "us", [1.0] * 499)
        self.assertEqual((few.p95, few.p99), (None, None))
        self.assertEqual((more.p95, more.p99), (1.0, None))

    def test_order_of_samples_does_not_matter(self) -> None:
        self.assertEqual(sum_up("m", {}, "c", "us", [3.0, 1.0, 2.0]), sum_up("m", {}, "c", "us", [1.0, 2.0, 3.0]))

    def test_ratio_is_to_the_floor_of_the_same_case(self) -> None:
        floor = sum_up("m", {"k": 1}, "floor", "us", [10.0])
        other_floor = sum_up("m", {"k": 2}, "floor", "us", [1000.0])
        ours = sum_up("m", {"k": 1}, "recipe", "us", [11.0])
        alone = sum_up("m", {"k": 3}, "recipe", "us", [11.0])
        compare([floor, other_floor, ours, alone], "floor")
        assert ours.ratio is not None
        self.assertAlmostEqual(ours.ratio["median"], 1.1)
        self.assertIsNone(alone.ratio)


class Report(unittest.TestCase):
    def targets(self, recipe: list[float]) -> list[str]:
        return [line for line in report.as_text(result(recipe)).splitlines() if "at most" in line]

    def test_says_which_targets_are_met(self) -> None:
        self.assertTrue(all("met" in line for line in self.targets([105.0, 106.0, 107.0])))

    def test_says_which_targets_are_missed(self) -> None:
        lines = self.targets([160.0, 161.0, 162.0])
        self.assertEqual(len(lines), 5)
        self.assertTrue(all("missed" in line for line in lines))

    def test_says_who_was_left_out_and_who_failed(self) -> None:
        shown = report.as_text({**result([105.0]), "left_out": {"etcdctl": "needs etcd-client"}, "failures": ["turn: x"]})
        self.assertIn("Left out: etcdctl: needs etcd-client", shown)
        self.assertIn("Failed: turn: x", shown)

    def test_plots_are_drawn_where_there_is_something_to_draw(self) -> None:
        with TemporaryDirectory() as directory:
            for plot in plots.draw(result([105.0, 106.0]), Path(directory) / "today"):
                self.assertIn("<svg", plot.read_text())


class Children(unittest.TestCase):
    def test_answer_is_the_number(self) -> None:
        child = python("print(input(), 42, flush=True)")
        self.assertEqual(child.ask("handover"), 42.0)
        child.end()

    def test_who_ends_has_time_to_leave(self) -> None:
        with TemporaryDirectory() as directory:
            left = Path(directory) / "left"
            child = python(f"import sys, time; sys.stdin.read(); time.sleep(0.3); open({str(left)!r}, 'w')")
            child.end()
            self.assertTrue(left.exists())

    def test_who_ends_badly_is_told_of(self) -> None:
        child = python("import sys; sys.stdin.read(); print('the reason', file=sys.stderr); sys.exit(1)")
        with self.assertRaisesRegex(ContenderFailed, "status 1.*the reason"):
            child.end()

    def test_who_does_not_end_is_ended(self) -> None:
        child = python("import time; time.sleep(1000)")
        with self.assertRaisesRegex(ContenderFailed, "did not end"):
            child.end(patience=0.2)

    def test_last_words_of_one_that_fails_are_passed_on(self) -> None:
        child = python("import sys; print('the reason', file=sys.stderr); sys.exit(1)")
        with self.assertRaisesRegex(ContenderFailed, "the reason"):
            child.read_line()

    def test_who_is_not_installed_says_what_is_missing(self) -> None:
        child = python("import sys; print('needs python3-kazoo', file=sys.stderr); sys.exit(3)")
        with self.assertRaisesRegex(NotInstalled, "needs python3-kazoo"):
            child.read_line()

    def test_one_that_does_not_answer_is_given_up(self) -> None:
        child = python("import time; time.sleep(1000)")
        with self.assertRaisesRegex(ContenderFailed, "no answer"):
            child.read_line(patience=0.2)

    def test_one_that_talks_much_to_standard_error_is_not_held_up(self) -> None:
        child = python("import sys; sys.stderr.write('x' * 1_000_000); print('ready', flush=True)")
        self.assertEqual(child.read_line(), "ready")
        child.end()


if __name__ == "__main__":
    unittest.main()
