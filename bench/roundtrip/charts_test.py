"""The charts say what the figures say."""
import os
import tempfile
import unittest
import xml.etree.ElementTree as xml

import charts

SVG = "{http://www.w3.org/2000/svg}"


def row(peer, best, metric="median", unit="us"):
    return {"section": "C", "case": "1 MiB, all on one CPU", "peer": peer, "metric": metric,
            "unit": unit, "best": best}


def drawn(rows):
    return xml.fromstring(charts.chart("A large payload", "1 MiB", rows))


def bars(picture):
    return [(b.get("class"), float(b.get("width"))) for b in picture.iter(SVG + "rect")]


def texts(picture):
    return [t.text for t in picture.iter(SVG + "text")]


class Charts(unittest.TestCase):
    def test_a_bar_is_as_long_as_its_figure(self):
        kinds, widths = zip(*bars(drawn([row("1 raw socketpair", 100), row("6 gRPC", 300),
                                         row("tarv, the whole road", 200)])))
        self.assertEqual(kinds, ("floor", "peer", "ours"))
        self.assertAlmostEqual(widths[1] / widths[0], 3, places=1)
        self.assertAlmostEqual(widths[2] / widths[0], 2, places=1)

    def test_a_bar_over_four_times_ours_is_cut_and_says_so(self):
        picture = drawn([row("slow & steady", 100_000), row("tarv", 10)])
        widths = [width for _, width in bars(picture)]
        self.assertAlmostEqual(widths[0] / widths[1], 4, places=1)
        self.assertEqual(len(list(picture.iter(SVG + "path"))), 1)
        self.assertIn("100,000", texts(picture))
        self.assertIn("slow & steady", texts(picture))

    def test_says_which_direction_is_better(self):
        self.assertIn("less is better", texts(drawn([row("tarv", 1)]))[1])
        self.assertIn("more is better", texts(drawn([row("tarv", 1, "rate", "req/s")]))[1])

    def test_a_file_for_each_case_with_the_first_figure_alone(self):
        rows = [row("tarv", 1), row("tarv", 7, "cpu"), row("gRPC", 2),
                {**row("tarv", 3), "section": "B", "case": "x64"}]
        with tempfile.TemporaryDirectory() as folder:
            names = charts.draw_all(os.path.join(folder, "new"), {"C": "c", "B": "b"}, rows)
            self.assertEqual(names, ["c-1-mib-all-on-one-cpu.svg", "b-x64.svg"])
            picture = xml.parse(os.path.join(folder, "new", names[0]))
            self.assertEqual(len(bars(picture)), 2)


if __name__ == "__main__":
    unittest.main()
