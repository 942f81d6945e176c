"""What the judgement of a soak says about samples that are made up."""

import random
import unittest
import xml.dom.minidom

import fit
import plot

SPREAD = 40   # KiB by which the memory moves up and down


def samples(passes=20_000, leak=0.0, restart=0, descriptors=lambda passes: 11, growth=0.0):
    """Every 250 passes; `leak` is in bytes a pass, a new daemon comes every `restart` passes."""
    chosen = random.Random(1)
    found = []
    for at in range(0, passes, 250):
        life = at // restart if restart else 0
        since = at % restart if restart else at
        memory = 3300 + 200 * (since >= 250) + chosen.uniform(-SPREAD, SPREAD) + leak * since / 1024
        process = {"life": life, "memory": memory, "descriptors": descriptors(at), "threads": 9}
        found.append({"passes": at, "daemon": process, "properties": {**process, "memory": 1300},
                      "store": {"size": 50 + at % 1000 // 250 + growth * at, "files": 6}})
    return found


def failed(*phones):
    return [(slope.where, slope.measure) for slope in fit.slopes(phones) if not slope.held]


class Fit(unittest.TestCase):
    def test_flat_lines(self):
        self.assertEqual(failed(samples()), [])
        self.assertEqual(failed(samples(), samples(restart=2000)), [])
        self.assertEqual(len(fit.slopes([samples()])), len(fit.LIMITS))

    def test_a_leak_of_a_few_bytes_a_pass(self):
        self.assertEqual(failed(samples(leak=16)), [("daemon", "memory")])

    def test_a_leak_behind_a_step(self):
        stepping = samples(leak=32)
        for sample in stepping[:8]:
            sample["daemon"]["memory"] += 700   # the heap returns what the first passes took
        self.assertEqual(failed(stepping), [("daemon", "memory")])

    def test_single_peaks_do_not_count(self):
        peaks = samples()
        for sample in peaks[60:80:3]:
            sample["daemon"]["memory"] += 300
        self.assertEqual(failed(peaks), [])

    def test_a_leak_behind_restarts(self):
        self.assertEqual(failed(samples(100_000, leak=32, restart=2000)), [("daemon", "memory")])

    def test_a_descriptor_in_five_thousand_passes(self):
        self.assertEqual(failed(samples(descriptors=lambda passes: 11 + passes // 5000)),
                         [("daemon", "descriptors"), ("properties", "descriptors")])

    def test_a_store_that_grows(self):
        self.assertEqual(failed(samples(growth=0.01)), [("store", "size")])

    def test_the_log_of_the_store_may_fill(self):
        filling = samples()
        for sample in filling:
            sample["store"]["size"] = min(30 + sample["passes"] * 1.3, 4106)
        self.assertEqual(failed(filling), [])

    def test_the_start_of_a_process_does_not_count(self):
        (points,) = fit.lives([samples()], "daemon", "memory")
        self.assertGreaterEqual(points[0][0], fit.WARM_UP)

    def test_few_passes_have_no_slope(self):
        self.assertEqual(fit.slopes([samples(1500)]), [])


class Plot(unittest.TestCase):
    def test_a_line_for_each_life(self):
        document = xml.dom.minidom.parseString(plot.picture([samples(), samples(restart=5000)], ["one", "<two>"]))
        lines = document.getElementsByTagName("polyline")
        self.assertEqual(len(lines), len(plot.PANELS) * (1 + 4))


if __name__ == "__main__":
    unittest.main()
