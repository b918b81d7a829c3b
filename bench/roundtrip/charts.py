"""Draws the tables of run.py as bar charts: one SVG file a case, readable on light and dark pages.

A bar is the best round of the case's first figure. All bars of a chart share one linear scale that
ends at four times our own bar, so that ours is never a stub beside a slow neighbour: what is longer
is cut there, shown with a torn end, and its number stands beside it as everywhere."""
import os
import re
from xml.sax.saxutils import escape

WIDTH = 760
LABEL = 330  # the column of names
NUMBER = 90  # the room behind a bar for its number
ROW = 26
BAR = 16
TOP = 62
AXIS_OF_OURS = 4

STYLE = """
  text { font: 13px system-ui, sans-serif; fill: #1f2328 }
  .title { font-weight: 600; font-size: 15px }
  .note { font-size: 11px; fill: #59636e }
  .ours { fill: #0969da } .floor { fill: #c8d1da } .peer { fill: #8c959f }
  .torn { fill: none; stroke: #ffffff; stroke-width: 2 }
  @media (prefers-color-scheme: dark) {
    text { fill: #e6edf3 } .note { fill: #9198a1 }
    .ours { fill: #4493f8 } .floor { fill: #3d444d } .peer { fill: #6e7681 }
    .torn { stroke: #0d1117 }
  }"""


def kind_of(peer):
    """Ours, a floor (the rows 1 to 3 of a table, or bare Qt), or another system."""
    if peer.startswith("tarv"):
        return "ours"
    return "floor" if re.match(r"[123]b? |Qt (Core|Network)", peer) else "peer"


def number(value):
    return f"{value:,.0f}" if value >= 1000 else f"{value:.3g}"


def scale_end(rows):
    """The value at which the longest bar ends."""
    longest = max(row["best"] for row in rows)
    ours = [row["best"] for row in rows if kind_of(row["peer"]) == "ours"]
    return min(longest, AXIS_OF_OURS * max(ours)) if ours and max(ours) > 0 else longest


def bar(row, y, end):
    room = WIDTH - LABEL - NUMBER
    length = max(1.0, room * min(row["best"], end) / end)
    parts = [f'<text x="{LABEL - 10}" y="{y + 13}" text-anchor="end">{escape(row["peer"])}</text>',
             f'<rect class="{kind_of(row["peer"])}" x="{LABEL}" y="{y}" width="{length:.1f}" '
             f'height="{BAR}" rx="2"/>']
    if row["best"] > end:
        x = LABEL + length - 12
        parts.append(f'<path class="torn" d="M{x:.1f} {y - 1} l5 6 l-5 6 l5 6"/>')
    parts.append(f'<text x="{LABEL + length + 8:.1f}" y="{y + 13}">{number(row["best"])}</text>')
    return parts


def chart(title, kase, rows):
    """The SVG text of one case; `rows` are those of its first metric."""
    first = rows[0]
    better = "more" if first["unit"].endswith("/s") else "less"
    height = TOP + ROW * len(rows) + 10
    lines = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}" '
             f'width="{WIDTH}" height="{height}" role="img" aria-label="{escape(kase)}">',
             f"<style>{STYLE}\n</style>",
             f'<text class="title" x="10" y="22">{escape(title)}: {escape(kase)}</text>',
             f'<text class="note" x="10" y="42">{escape(first["metric"])}, {escape(first["unit"])}; '
             f"best round; {better} is better</text>"]
    end = scale_end(rows)
    for index, row in enumerate(rows):
        lines += bar(row, TOP + ROW * index, end)
    return "\n".join(lines + ["</svg>", ""])


def file_name(section, kase):
    return f"{section.lower()}-{re.sub('[^a-z0-9]+', '-', kase.lower()).strip('-')}.svg"


def draw_all(folder, titles, rows):
    """Writes a chart for each case of `rows` into `folder` and returns the files' names."""
    os.makedirs(folder, exist_ok=True)
    names = []
    for section, kase in dict.fromkeys((row["section"], row["case"]) for row in rows):
        of_case = [row for row in rows if row["section"] == section and row["case"] == kase]
        shown = [row for row in of_case if row["metric"] == of_case[0]["metric"]]
        names.append(file_name(section, kase))
        with open(os.path.join(folder, names[-1]), "w", encoding="utf-8") as out:
            out.write(chart(titles[section], kase, shown))
    return names
