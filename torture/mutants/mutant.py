"""A mutant: one small change of one place, named by its function and its text."""
import dataclasses
import hashlib

NUMBERS = 1 << 20  # as in switch.h


@dataclasses.dataclass
class Mutant:
    path: str  # from the repository's root
    function: str
    start: int  # bytes of the file: what is changed
    end: int
    changed: str  # what stands there instead; of a statement nothing
    kind: str  # operator, constant, condition, statement, swap, null
    text: str  # the expression that shows where it is
    shown: str  # the change within that expression
    form: str = "expression"  # or "condition", "statement": how the switch is put around it
    name: str = ""
    number: int = 0


def one_line(text, limit=90):
    text = " ".join(text.split())
    return text if len(text) <= limit else text[: limit - 3] + "..."


def give_names(mutants):
    """Names do not hang on lines: a line added above changes none. Equal texts are counted."""
    seen = {}
    for mutant in sorted(mutants, key=lambda one: (one.path, one.start, one.end, one.changed)):
        place = one_line(mutant.text)
        name = f"{mutant.path}: {mutant.function}: {place}: {one_line(mutant.shown)}"
        seen[name] = seen.get(name, 0) + 1
        mutant.name = name if seen[name] == 1 else f"{name} #{seen[name]}"


def digest(text):
    return int(hashlib.sha256(text.encode()).hexdigest()[:12], 16)


def give_numbers(mutants):
    """A mutant keeps its number while its name stays, so that few files are compiled anew."""
    taken = set()
    for mutant in sorted(mutants, key=lambda one: one.name):
        number = digest(mutant.name) % NUMBERS
        while number in taken or number == 0:
            number = (number + 1) % NUMBERS
        taken.add(number)
        mutant.number = number
