#!/usr/bin/env python3
"""make_pages.py ROOT TO PAGE...: the pages as Doxygen wants them, in the folder TO.

Headings get the names that links use, and links to pages and headings become references. Pictures are
copied beside the pages that are made of them. Links to other files lead to their text in the repository,
which the site does not have: they become text.
"""

import os
import pathlib
import re
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../tests/docs"))
import markdown  # noqa: E402

LINK = re.compile(r"(?<!!)\[((?:[^\]\[]|\[[^\]]*\])*)\]\(([^()\s]+)\)")
FENCE = re.compile(r"^(\s*)(`{3,})\s*([\w+-]*)\s*$")


def name_of(path):
    return "page_" + path.stem.replace("-", "_").lower()


def anchor(page, heading):
    return f"{name_of(page)}_{heading.replace('-', '_').replace('.', '_')}"


class Converter:
    def __init__(self, root, pages):
        self.root = root
        self.pages = {page.resolve() for page in pages}

    def convert(self, page):
        lines, inside, first = [], False, True
        for line in page.read_text(encoding="utf-8").split("\n"):
            fence = FENCE.match(line)
            heading = markdown.HEADING.match(line)
            if fence:
                inside = not inside
                # Words that Doxygen does not know as languages would become part of the code.
                lines.append(line if not inside or fence[3] in ("cpp", "c", "json", "sh") else f"{fence[1]}```{{.txt}}")
            elif inside or line.startswith("<!-- test:"):
                lines.append(line if inside else "")
            elif heading:
                name = name_of(page) if first else anchor(page, markdown.anchor_of(heading[1]))
                first = False
                lines.append(f"{self.convert_line(page, line)} {{#{name}}}")
            else:
                lines.append(self.convert_line(page, line))
        return "\n".join(lines)

    def convert_line(self, page, line):
        """The parts of a line outside of code."""
        parts = re.split(r"(`[^`]*`)", LINK.sub(lambda found: self.link(page, found), line))
        return "".join(self.convert_part(part) for part in parts)

    @staticmethod
    def convert_part(part):
        if not part.startswith("`"):
            return re.sub(r"(?<![\\(])@(?!ref)", r"\\@", part)
        # To Doxygen, a single quote ends what one backtick begins.
        return f"`{part}`" if "'" in part else part

    def link(self, page, found):
        text, target = found[1], found[2]
        if re.match(r"[a-z]+:", target):
            return found[0]
        file, _, heading = target.partition("#")
        path = (page.parent / file).resolve() if file else page.resolve()
        if path not in self.pages:
            return text
        return f"[{text}](@ref {anchor(path, heading) if heading else name_of(path)})"


def main():
    root, to = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    pages = [pathlib.Path(page) for page in sys.argv[3:]]
    converter = Converter(root, pages)
    to.mkdir(parents=True, exist_ok=True)
    for page in pages:
        text = converter.convert(page)
        (to / page.name).write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main()
