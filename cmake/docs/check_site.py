#!/usr/bin/env python3
"""check_site.py FOLDER: every link of every page in FOLDER leads to a file there, and to an anchor in it."""

import html.parser
import pathlib
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.links, self.anchors = [], set()
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attributes):
        for name, value in attributes:
            if name in ("href", "src") and value:
                self.links.append(value)
            elif name in ("id", "name") and value:
                self.anchors.add(value)


def main():
    folder = pathlib.Path(sys.argv[1]).resolve()
    pages = {path: Page(path) for path in folder.rglob("*.html")}
    broken, count = set(), 0
    for path, page in pages.items():
        for link in page.links:
            parts = urllib.parse.urlsplit(link)
            if parts.scheme or link.startswith("javascript"):
                continue
            count += 1
            target = (path.parent / urllib.parse.unquote(parts.path)).resolve() if parts.path else path
            if not target.exists():
                broken.add(f"{path.name}: {link}: there is no such file")
            elif parts.fragment and target in pages and \
                    urllib.parse.unquote(parts.fragment) not in pages[target].anchors:
                broken.add(f"{path.name}: {link}: there is no such anchor")
    for line in sorted(broken):
        print(line, file=sys.stderr)
    print(f"{len(pages)} pages, {count} links")
    return 1 if broken or not pages else 0


if __name__ == "__main__":
    sys.exit(main())
