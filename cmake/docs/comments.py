#!/usr/bin/env python3
"""comments.py HEADER: the header with its comments as Doxygen reads them, on standard output.

The headers are written for people who read headers: comments are plain. Here what stands above a
declaration, or behind one, becomes documentation; indented code becomes a code block; and characters
that mean something to Doxygen mean themselves.
"""

import re
import sys

LINE = re.compile(r"^(\s*)//( .*|)$")
TRAILING = re.compile(r"^(\s*\S.*?[;,{])\s+// (.*)$")
SEPARATOR = re.compile(r"^\s*/\* ----")
NO_TEXT = re.compile(r"^\s*// ?(NOLINT|clang-format)|^\s*//\s*----")


def escape(text):
    """Text outside of backticks, in which only backticks are markup."""
    parts = text.split("`")
    for i in range(0, len(parts), 2):
        parts[i] = re.sub(r"([@\\<>#&%*_])", r"\\\1", parts[i]) if i % 2 == 0 else parts[i]
        parts[i] = parts[i].replace("\\*", "*") if parts[i].strip().startswith("- ") else parts[i]
    return "`".join(parts)


def block(lines, indent, is_file):
    """The lines of one comment, without their slashes, as a comment of Doxygen's."""
    out = [f"{indent}/// @file"] if is_file else []
    inside_code = False
    for i, line in enumerate(lines):
        begins = i == 0 or not lines[i - 1].strip()
        is_code = line.startswith("   ") and (inside_code or begins)
        if is_code != inside_code and (is_code or line.strip()):
            out.append(f"{indent}/// ```" + ("{.cpp}" if is_code else ""))
            inside_code = is_code
        out.append(f"{indent}/// " + (line if inside_code else escape(line)))
    if inside_code:
        out.append(f"{indent}/// ```")
    return out


def convert_cpp(lines):
    out, position = [], 0
    seen_code = False
    while position < len(lines):
        found = LINE.match(lines[position])
        if not found or NO_TEXT.match(lines[position]):
            trailing = TRAILING.match(lines[position])
            if trailing and not re.match(r"\s*(}|#|namespace)", lines[position]) and "NOLINT" not in trailing[2]:
                out.append(f"{trailing[1]}  ///< {escape(trailing[2])}")
            else:
                out.append(lines[position])
            seen_code = seen_code or bool(lines[position].strip())
            position += 1
            continue
        end = position
        while end < len(lines) and LINE.match(lines[end]) and not NO_TEXT.match(lines[end]):
            end += 1
        text = [LINE.match(line)[2].removeprefix(" ") for line in lines[position:end]]
        # A comment that stands alone inside the code is about what follows as a whole: no declaration's.
        alone = seen_code and (end == len(lines) or not lines[end].strip())
        out += lines[position:end] if alone else block(text, found[1], not seen_code)
        if not seen_code:
            out += [""]
            seen_code = True
        position = end
    return out


def convert_c(source):
    """C comments: the first is the file's, the others belong to what follows."""
    first = True

    def replace(found):
        nonlocal first
        text = found[0]
        if SEPARATOR.match(text.split("\n")[0]) or re.search(r"#endif\s*$", source[:found.start()].split("\n")[-1]):
            return text
        body = [re.sub(r"^\s*\* ?", "", line) if line.strip().startswith("*") else line.strip()
                for line in text[2:-2].split("\n")]
        indent = ""
        lines = [indent + escape(line.rstrip()) if not line.startswith("    ") else line.rstrip() for line in body]
        start = "/** @file\n" if first else "/** "
        first = False
        return start + "\n".join(lines).strip("\n") + " */"

    return re.sub(r"/\*.*?\*/", replace, source, flags=re.DOTALL)


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        source = file.read()
    if source.startswith("/*"):
        sys.stdout.write(convert_c(source))
    else:
        sys.stdout.write("\n".join(convert_cpp(source.split("\n"))))


if __name__ == "__main__":
    main()
