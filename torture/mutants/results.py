"""What earlier runs found out, so that a run goes on where the last one ended."""
import json
import os
import threading
import time

SECONDS_BETWEEN_WRITES = 10


class Results:
    """Tables of plain values, kept in a file."""

    def __init__(self, path):
        self.path = path
        self.lock = threading.Lock()
        self.written = time.monotonic()
        self.tables = {}
        if os.path.exists(path):
            with open(path, encoding="utf-8") as file:
                self.tables = json.load(file)

    def get(self, table, key):
        with self.lock:
            return self.tables.get(table, {}).get(key)

    def put(self, table, key, value):
        with self.lock:
            self.tables.setdefault(table, {})[key] = value
            if time.monotonic() - self.written > SECONDS_BETWEEN_WRITES:
                self.write()

    def save(self):
        with self.lock:
            self.write()

    def write(self):
        """A run that is stopped while it writes leaves the former file."""
        with open(self.path + ".new", "w", encoding="utf-8") as file:
            json.dump(self.tables, file)
        os.replace(self.path + ".new", self.path)
        self.written = time.monotonic()


def read_list(path):
    """Reasons by the mutants' names: a name stands at the start of a line, its reason behind it, indented."""
    reasons, names = {}, []
    with open(path, encoding="utf-8") as file:
        for line in file:
            if line.startswith("#") or not line.strip():
                names = []
            elif line[0].isspace():
                for name in names:
                    reasons[name] = (reasons[name] + " " + line.strip()).strip()
            else:
                names = [*([one for one in names if not reasons[one]]), line.rstrip("\n")]
                reasons[line.rstrip("\n")] = ""
    return reasons
