"""Reads pages of Markdown: their code blocks with what the comment before each says, links, headings."""

import dataclasses
import html
import re

MARK = re.compile(r"^<!-- test: (.*?) -->$")
FENCE = re.compile(r"^(\s*)(`{3,}|~{3,})\s*([\w+-]*)\s*$")
HEADING = re.compile(r"^#{1,6} (.*)$")
LINK = re.compile(r"!?\[(?:[^\]\[]|\[[^\]]*\])*\]\(([^()\s]+)\)")
HTML_LINK = re.compile(r"""<(?:a|img|source)\b[^>]*?\b(?:href|src|srcset)="([^"]+)\"""")
CODE_SPAN = re.compile(r"`+[^`]*`+")


@dataclasses.dataclass
class Block:
    page: str
    line: int  # of its first line of text
    language: str
    text: str
    mark: str  # what stands behind "test:" in the comment before it, or nothing

    @property
    def place(self):
        return f"{self.page}:{self.line}"


@dataclasses.dataclass
class Page:
    path: str
    blocks: list
    prose: list  # pairs of a line's number and its text, without code blocks

    def links(self):
        for number, line in self.prose:
            for target in LINK.findall(CODE_SPAN.sub("", line)) + HTML_LINK.findall(line):
                yield number, html.unescape(target)

    def anchors(self):
        return {anchor_of(found[1]) for _, line in self.prose if (found := HEADING.match(line))}


def anchor_of(heading):
    """The name that a heading can be linked by, as forges make it."""
    words = re.sub(r"[^\w\- ]", "", heading.replace("`", "").strip().lower())
    return words.replace(" ", "-")


def read_page(path, name):
    """The page in the file `path`; its blocks are told to lie in `name`."""
    with open(path, encoding="utf-8") as file:
        lines = file.read().split("\n")
    page = Page(name, [], [])
    mark, position = "", 0
    while position < len(lines):
        line = lines[position]
        fence = FENCE.match(line)
        if fence:
            end = _end_of_block(lines, position, fence, name)
            text = "\n".join(part[len(fence[1]):] for part in lines[position + 1:end]) + "\n"
            page.blocks.append(Block(name, position + 2, fence[3], text, mark))
            mark, position = "", end
        elif _begins_indented_block(lines, position):
            page.blocks.append(Block(name, position + 1, "", line + "\n", mark))
            while position + 1 < len(lines) and lines[position + 1].startswith("    "):
                position += 1
        else:
            page.prose.append((position + 1, line))
            found = MARK.match(line)
            mark = found[1] if found else (mark if not line.strip() else "")
        position += 1
    return page


def _end_of_block(lines, start, fence, name):
    for position in range(start + 1, len(lines)):
        if lines[position].strip() == fence[2]:
            return position
    raise SystemExit(f"{name}:{start + 1}: this code block has no end")


def _begins_indented_block(lines, position):
    """Four spaces after an empty line are code, unless a list goes on there."""
    if not lines[position].startswith("    ") or (position > 0 and lines[position - 1].strip()):
        return False
    for line in reversed(lines[:position]):
        if line.strip() and not line.startswith(" "):
            return not re.match(r"^([-*]|\d+\.) ", line)
    return True
