#!/usr/bin/env python3
"""check_errors.py ROOT: every text that the library logs, or writes to standard error, is on docs/errors.md."""

import pathlib
import re
import sys

STATEMENT = re.compile(r"(?<!#define )QUARN_LOG_(?:ERROR|WARN|INFO|FATAL)(?:_AT)?\([^;]*?;"
                       r"|\bWriteDiagnostic\(\s*\"[^;]*?;")
LITERAL = re.compile(r'"((?:[^"\\]|\\.)*)"')
FOLDERS = ("src", "wrapper", "vorpc", "vorpc_qt", "cw", "quarn", "calls")


def texts_of(source):
    """Of each statement the longest piece of text: numbers and names stand between the pieces."""
    for statement in STATEMENT.finditer(source):
        pieces = [re.sub(r"\\n$", "", piece) for piece in LITERAL.findall(statement[0])
                  if not piece.endswith(".h")]
        first = next((piece for piece in pieces if len(piece) > 8), None)
        if first:
            yield first.replace('\\"', '"')


def main():
    root = pathlib.Path(sys.argv[1])
    page = (root / "docs/errors.md").read_text(encoding="utf-8").replace('\\"', '"')
    missing, found = [], 0
    for folder in FOLDERS:
        for path in sorted((root / folder).rglob("*")):
            if path.suffix not in (".cpp", ".h") or "tests" in path.parts:
                continue
            source = re.sub(r"^\s*//.*$", "", path.read_text(encoding="utf-8"), flags=re.MULTILINE)
            for text in texts_of(source):
                found += 1
                if text.rstrip(" ,'\"") not in page:
                    missing.append(f'{path.relative_to(root)}: docs/errors.md does not explain "{text}"')
    for line in missing:
        print(line, file=sys.stderr)
    print(f"{found} texts")
    return 1 if missing or found < 50 else 0


if __name__ == "__main__":
    sys.exit(main())
