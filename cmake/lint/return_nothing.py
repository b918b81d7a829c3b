#!/usr/bin/env python3
"""return_nothing.py FILE...: names each place where a function that returns nothing returns a call.

The compilers allow it and clang-tidy has no check for it. This reads no C++: it follows braces, and
takes what stands before each for a function, a lambda or a block. So it sees functions, members,
tests and lambdas with `-> void`; a lambda whose type the compiler finds passes.
"""
import re
import sys

TOKEN = re.compile(
    r'R"(?P<mark>[^()\s\\]*)\(.*?\)(?P=mark)"'  # raw strings
    r'|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])+\''  # texts and characters
    r"|//[^\n]*|/\*.*?\*/|^[ \t]*#(?:\\\n|[^\n])*"  # comments and directives
    r"|[{};]|\breturn\b",
    re.DOTALL | re.MULTILINE,
)
LAMBDA = re.compile(r"\[[^\[\]]*\]\s*(?:\([^{]*\))?[^(){}]*$", re.DOTALL)
CONTROL = re.compile(r"\b(?:if|for|while|switch|else|do|try|catch)\b\s*(?:constexpr\s*)?(?:\(.*)?$", re.DOTALL)
RETURNS_NOTHING = re.compile(r"(?:^|[\s:])(?:void\s+[\w:~<>]+|TEST(?:_[FP])?|TYPED_TEST)\s*\(", re.DOTALL)
FUNCTION = re.compile(r"\)[\w\s&]*(?:->[^;{}()]*)?$", re.DOTALL)


def kind_of(head, outer):
    """What a brace opens: "void", "value" (a function with a result), or what is around it."""
    head = head.strip()
    if LAMBDA.search(head):
        return "void" if re.search(r"->\s*void$", head) else "value"
    if CONTROL.search(head) or not FUNCTION.search(head):
        return outer
    return "void" if RETURNS_NOTHING.search(head) else "value"


def faults(text):
    """The offsets at which something is returned from a function that returns nothing."""
    kinds, head = [], ""
    position = 0
    for token in TOKEN.finditer(text):
        found = token.group()
        head += text[position : token.start()]
        position = token.end()
        if found == "{":
            kinds.append(kind_of(head, kinds[-1] if kinds else ""))
            head = ""
        elif found in "};":
            if found == "}" and kinds:
                kinds.pop()
            head = ""
        elif found == "return":
            if kinds and kinds[-1] == "void" and not re.match(r"\s*;", text[position:]):
                yield token.start()
            head += found


def main(paths):
    clean = True
    for path in paths:
        with open(path, encoding="utf-8") as file:
            text = file.read()
        for offset in faults(text):
            line = text.count("\n", 0, offset) + 1
            print(f"{path}:{line}: error: a function that returns nothing returns a call")
            clean = False
    return 0 if clean else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
