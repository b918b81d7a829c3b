#!/usr/bin/env python3
"""one_command.py FROM TO: the compilation database FROM with one command for each file, as TO.

Some files are compiled for several targets, and clang-tidy looks at a file once for each command.
"""

import json
import sys


def main():
    with open(sys.argv[1], encoding="utf-8") as database:
        commands = {command["file"]: command for command in reversed(json.load(database))}
    with open(sys.argv[2], "w", encoding="utf-8") as database:
        json.dump(list(commands.values()), database, indent=1)


if __name__ == "__main__":
    main()
