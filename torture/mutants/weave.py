"""Puts mutants into a source file, each behind the switch that turns it on."""


def remove_comments(text):
    """What is changed stands on one line, so that all others keep theirs."""
    lines = [line.split("//")[0] if '"' not in line else line for line in text.splitlines()]
    return " ".join(line.strip() for line in lines)


LINES_AT_THE_HEAD = 3


def weave(source, mutants, switch):
    """The text of a file with all mutants. A header says that it is the system's, which spares those who
    include it the warnings about them."""
    ordered = sorted(mutants, key=lambda one: (one.start, -one.end, one.form != "statement",
                                               one.form != "condition", one.number))
    head = f'#include "{switch}"\n#pragma GCC system_header\n#line 1\n'.encode()
    return head + Weaver(source).emit(0, len(source), ordered)


class Weaver:
    def __init__(self, source):
        self.source = source

    def emit(self, start, end, mutants):
        pieces = []
        at = start
        while mutants:
            first = mutants[0]
            group = [one for one in mutants if same_place(one, first)]
            inside = [one for one in mutants if one not in group and one.start < first.end]
            mutants = [one for one in mutants if one.start >= first.end]
            pieces.append(self.source[at:first.start])
            pieces.append(self.switch(group, self.emit(first.start, first.end, inside)))
            at = first.end
        pieces.append(self.source[at:end])
        return b"".join(pieces)

    def switch(self, group, original):
        if group[0].form == "statement":
            return f"if (tarv_mutants::IsOn({group[0].number})) {{}} else ".encode() + original
        changed = "".join(f"tarv_mutants::IsOn({one.number}) ? ({remove_comments(one.changed)}) : " for one in group)
        if group[0].form == "condition":
            original = b"static_cast<bool>(" + original + b")"
        return b"(" + changed.encode() + b"(" + original + b"))"


def same_place(one, other):
    return (one.start, one.end, one.form) == (other.start, other.end, other.form)
