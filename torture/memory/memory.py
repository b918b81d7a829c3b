#!/usr/bin/env python3
"""Lets memory fail at the allocations of every operation, and says what comes of it.

    memory.py PROGRAM TASK_FOLDER [--every N] [--only OPERATION] [--jobs N] [--keep FILE]

Each run is a process of its own, in which one allocation of one operation fails, or all from that
one on. application.cpp asks what must hold then: each request ends once, nothing aborts, what lives
still works, what does not can be let go, and a new conversation goes well. Here it is added that no
memory and no descriptor is missing afterwards, that the process ends in time, and that it leaves no
process and no socket file behind.

With --every N (or TORTURE_EVERY) only one allocation in N fails. A single run can be repeated by
hand: the lines of --keep FILE have its operation, its number and its kind.
"""
import argparse
import collections
import concurrent.futures
import functools
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from leftovers import living, what_is_left  # noqa: E402

OPERATIONS = ["values", "messages", "json", "vorpc", "first start", "start", "call", "notify",
              "release", "end manager", "open uri", "task", "task alone", "tables", "server's tables",
              "register intent", "invoke intent", "timers", "service", "calls", "steps of a call",
              "ends of calls", "late answers", "answer of a thread", "call of a thread", "pending calls",
              "kept task"]
# Blocks that a life with memory for all leaves: the facts, what the program itself notes in it, and
# the intent, which stays registered as long as the process lives.
FACTS = 3
LEFT = {"start": 7, "call": 11, "notify": 8, "release": 7, "end manager": 7, "open uri": 9, "task": 14,
        "register intent": 41}
NO_MATTER = 1_000_000_000  # blocks that a run may leave, as far as it looks itself
LIMIT = 120  # seconds that a run may take

# What goes wrong inside Qt itself when its own allocation fails, whoever calls it; nothing outside can
# mend it. (The functions of Qt from the one that asks for the memory up to the one that we call, as
# a regular expression; what may come of it; why.) A crash is Qt's only in the very function that
# got no memory.
INSIDE_QT = [
    (r"^QObjectPrivate::addConnection < QObjectPrivate::connectImpl < QObject::connectImpl$",
     "crashed", "QObject::connect writes to the list of signals that it got no memory for"),
    (r"^operator new < QObjectPrivate::connectImpl < QObject::connectImpl$", "memory leaked",
     "QObject::connect leaks the slot object that it was handed"),
    (r"< ExternalRefCountData::getAndRef < QSocketNotifier::event < .*processEvents$",
     "an exception left the event loop",
     "QSocketNotifier takes memory before it emits; the descriptor stays readable, and it tries again"),
    (r"< QEventDispatcherUNIX::processEvents$", "an exception left the event loop",
     "the event dispatcher's own lists; what it has not told it tells in the next turn"),
    (r"< QCborValue::QCborValue < ", "memory leaked",
     "a text in a JSON value leaks its container when it finds no room"),
    (r"< QFileInfo::canonicalPath$", "memory leaked",
     "QFileInfo leaks the path that the C library has found"),
    (r"< QRegularExpression::match$", "memory leaked",
     "QRegularExpression leaks what it has found"),
    (r"^operator new < QObject::event < QCoreApplication::notifyInternal2 < "
     r"QCoreApplicationPrivate::sendPostedEvents < ", "the task crashed",
     "takes memory for the first queued call of an object; nobody catches what leaves a task's loop"),
]


def inside_qt(facts, what):
    """Why Qt is to blame; None when it is not."""
    chain = qt_chain(facts["escape"] if what == "an exception left the event loop" else facts["who"])
    crashing = qt_chain(facts["crash"]).split(" < ")[0]
    if what == "crashed" and crashing != chain.split(" < ")[0]:
        return None
    for functions, outcome, why in INSIDE_QT:
        if what == outcome and re.search(functions, chain):
            return why
    return None


def qt_chain(stack):
    """From the one that asks for memory up to the function of Qt that another library calls."""
    chain = []
    for frame in stack.split(" < "):
        if not re.search(r"libQt5Core|libstdc\+\+|libc\.so", frame):
            break
        chain.append(re.sub(r"\(.*$", "", frame.rpartition(".so")[2].partition(":")[2]) or "?")
    return " < ".join(chain) if any("Q" in frame for frame in chain) else ""


def last_line(output, start):
    """The rest of the last line that starts so; "" when none does."""
    lines = [line for line in output.splitlines() if line.startswith(start)]
    return lines[-1][len(start):] if lines else ""


def without_the_teller(stack):
    """A stack without the frames of failing_memory.cpp, and of the signal that told it."""
    frames = stack.split(" < ")
    while len(frames) > 1 and ("torture_memory" in frames[0] or "/libc.so.6+" in frames[0]):
        frames.pop(0)
    return " < ".join(frames)


@functools.lru_cache(maxsize=None)
def function_at(library, offset):
    """The function at a place of a library, which has no name outside it."""
    place = f"{library}+{offset:#x}"
    try:
        told = subprocess.run(["addr2line", "-Cfs", "-e", library, hex(offset - 1)], text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=False).stdout
    except FileNotFoundError:
        return place
    name, _, line = told.strip().partition("\n")
    return place if name in ("", "??") else f"{os.path.basename(library)}:{name} ({line})"


def readable(stack):
    """The stack with the names that only the debugger's tables know, and without arguments."""
    named = re.sub(r"(/\S+)\+(0x[0-9a-f]+)", lambda found: function_at(found[1], int(found[2], 16)),
                   stack)
    return " < ".join(re.sub(r"\(.*\) const$|\(.*\)$", "", frame) if "0x" in frame or ".cpp:" not in
                      frame else frame for frame in named.split(" < "))


def environment_of(arguments, operation, folder):
    """The same on every machine: the processes take memory for each variable."""
    kept = {name: os.environ[name] for name in ("LD_LIBRARY_PATH", "TORTURE_ORIGINS")
            if name in os.environ}
    if operation == "task":
        # A number that is none makes the host warn once, and so makes what Qt keeps for its log.
        kept["RUNTIME_MANAGER_MAX_QUEUE"] = "many"
    return dict(kept, PATH="/usr/bin:/bin", LANG="C.UTF-8", XDG_RUNTIME_DIR=folder,
                RUNTIME_MANAGER_URI_HANDLER="/bin/true",
                QT_NO_GLIB="1",  # GLib ends the process when it gets no memory
                RUNTIME_MANAGER_TASK_PATH=arguments.task_folder)


def play(arguments, operation, nth, kind, blocks, folder):
    process = subprocess.Popen([arguments.program, operation, str(nth), kind, str(blocks)],
                               env=environment_of(arguments, operation, folder),
                               errors="replace", text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    stuck = False
    try:
        output, _ = process.communicate(timeout=LIMIT)
    except subprocess.TimeoutExpired:
        stuck = True
        process.send_signal(signal.SIGABRT)  # it tells where
        output, _ = process.communicate()
    facts = json.loads("{" + (last_line(output, "{") or "}"))
    facts["output"] = output
    facts["who"] = without_the_teller(last_line(output, "memory fails: "))
    facts["crash"] = without_the_teller(last_line(output, "it crashed: "))
    facts["escape"] = without_the_teller(last_line(output, "its exception escapes: "))
    if stuck:
        facts["wrong"] = "stuck"
    elif process.returncode < 0:
        name = signal.Signals(-process.returncode).name
        facts["wrong"] = {"SIGSEGV": "crashed", "SIGABRT": "aborted"}.get(name, f"ended by {name}")
    elif facts["crash"]:
        facts["wrong"] = "the task crashed"
    elif process.returncode > 0:
        facts.setdefault("wrong", f"ended with {process.returncode}")
    return facts


def run(arguments, operation, nth, kind, blocks):
    with tempfile.TemporaryDirectory(prefix="tarv-memory-", ignore_cleanup_errors=True) as folder:
        facts = play(arguments, operation, nth, kind, blocks, folder)
        left = what_is_left(folder)
        # A process that crashed inside Qt could not clean up.
        if left and not facts["crash"]:
            facts.setdefault("wrong", f"a {left[0]} is left behind")
        for process in living(folder):
            os.kill(process, signal.SIGKILL)
    facts.update(operation=operation, nth=nth, kind=kind)
    return facts


def judge(facts, clean):
    """Writes down as "wrong" what a run itself cannot see; returns the outcome."""
    # The first start makes what the process keeps, whenever it comes to it.
    if ("wrong" not in facts and facts["blocks"] > clean["blocks"]
            and facts["operation"] != "first start"):
        facts["wrong"] = "memory leaked"
    if "wrong" not in facts and facts["descriptors"] not in (0, clean["descriptors"]):
        facts["wrong"] = "descriptors leaked"
    if "wrong" not in facts and facts["escaped"]:
        facts["wrong"] = "an exception left the event loop"
    if "wrong" in facts:
        why = inside_qt(facts, facts["wrong"])
        if why is None:
            return facts["wrong"]
        facts["inside Qt"] = why
        return "inside Qt: " + facts.pop("wrong")
    if facts["refusals"]:
        return "std::bad_alloc to the caller"
    return "done all the same" if facts.get("goes on") and not facts["errors"] else "an error"


def tell(facts):
    print(f"WRONG: {facts['wrong']}: torture_memory '{facts['operation']}' {facts['nth']} "
          f"{facts['kind']}\n    memory fails in {readable(facts['who'])}", flush=True)
    if facts["crash"]:
        print(f"    it crashes in {readable(facts['crash'])}", flush=True)
    if facts["escape"]:
        print(f"    what escapes comes from {readable(facts['escape'])}", flush=True)


def torture(arguments, operation, pool):
    clean = run(arguments, operation, 0, "once", NO_MATTER)
    if "wrong" in clean:
        sys.exit(f"{operation}, with memory for all: {clean}")
    if operation != "first start" and clean["blocks"] > LEFT.get(operation, FACTS):
        sys.exit(f"{operation}, with memory for all: it leaves {clean['blocks']} blocks")
    last = clean.get("of the task", clean["allocations"])
    outcomes = collections.Counter()
    for job in [pool.submit(run, arguments, operation, nth, kind, clean["blocks"])
                for nth in range(1, last + 1, arguments.every) for kind in ("once", "lasting")]:
        facts = job.result()
        outcomes[judge(facts, clean)] += 1
        if arguments.keep and ("wrong" in facts or "inside Qt" in facts):
            with open(arguments.keep, "a", encoding="utf-8") as file:
                file.write(json.dumps(facts) + "\n")
        if "wrong" in facts:
            tell(facts)
            outcomes["WRONG"] += 1
    print(f"{operation}: " + ", ".join(f"{count} {what}" for what, count in outcomes.most_common()),
          flush=True)
    return outcomes["WRONG"] == 0


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("program")
    parser.add_argument("task_folder")
    parser.add_argument("--every", type=int, default=int(os.environ.get("TORTURE_EVERY", "1")))
    parser.add_argument("--only", choices=OPERATIONS)
    parser.add_argument("--jobs", type=int, default=2 * (os.cpu_count() or 1))
    parser.add_argument("--keep", help="a file for the runs that went wrong, a JSON line each")
    arguments = parser.parse_args()
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        results = [torture(arguments, operation, pool)
                   for operation in ([arguments.only] if arguments.only else OPERATIONS)]
    sys.exit(0 if all(results) else 1)


main()
