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
import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from leftovers import living, what_is_left  # noqa: E402

OPERATIONS = ["start", "call", "notify", "release", "end manager", "open uri", "code",
              "task"]
LIMIT = 60  # seconds that a run may take

# What goes wrong inside Qt itself when its own allocation fails, whoever calls it: (the function in
# whose allocation it begins, what may come of it, why). Nothing outside can mend it.
INSIDE_QT = [
    ("QObjectPrivate::connectImpl(", ["memory leaked"],
     "QObject::connect leaks the slot object that it was handed"),
    ("QObjectPrivate::addConnection(", ["memory leaked", "crashed"],
     "QObject::connect leaves a list of connections half made, and reads it later"),
    ("QObject::startTimer(", ["memory leaked", "crashed"],
     "the timer runs, its object does not know it, and does not stop it when it dies"),
    ("QTimerInfoList::registerTimer(", ["memory leaked", "crashed"], "the same"),
    ("QSocketNotifier::event(", ["an exception left the event loop"],
     "takes memory before it emits its signal; the descriptor stays readable, and it is tried again"),
    ("QSocketNotifier::QSocketNotifier(", ["memory leaked", "crashed"],
     "the event dispatcher keeps a notifier that was not made"),
    ("QEventDispatcherUNIX::", ["an exception left the event loop", "memory leaked", "crashed"],
     "the event dispatcher's own lists"),
    ("QCoreApplicationPrivate::sendPostedEvents(", ["an exception left the event loop"],
     "posts the events again that it may not deliver yet"),
    ("QJsonObject::", ["memory leaked"], "leaks what it has copied when a member finds no room"),
    ("QCborValue::", ["memory leaked"], "the same: a value that is not made whole"),
    ("QRegularExpression::", ["memory leaked"], "leaks what it has compiled"),
    ("libQt5Core.so.5+", ["memory leaked"],
     "functions without a name, such as QUrl's parser: a QUrl that is not made whole leaks itself"),
    ("QThreadData::", ["memory leaked", "crashed"], "what Qt keeps of a thread, made once"),
]


def inside_qt(facts, what):
    """Why Qt is to blame; None when it is not."""
    frames = facts.get("who", "").split(" < ")
    inner = [frame for frame in frames if "libQt5Core" in frame][:8]
    for function, outcomes, why in INSIDE_QT:
        if what in outcomes and any(function in frame for frame in inner):
            return f"{function.rstrip('(:')}: {why}"
    return None


def last_object(output):
    for line in reversed(output.splitlines()):
        if line.startswith("{"):
            return json.loads(line)
    return {}


def play(arguments, operation, nth, kind, folder):
    environment = dict(os.environ, XDG_RUNTIME_DIR=folder, RUNTIME_MANAGER_URI_HANDLER="/bin/true",
                       QT_NO_GLIB="1",  # GLib ends the process when it gets no memory
                       RUNTIME_MANAGER_TASK_PATH=arguments.task_folder)
    process = subprocess.Popen([arguments.program, operation, str(nth), kind], env=environment,
                               stdout=subprocess.PIPE, stderr=subprocess.STDOUT, errors="replace",
                               text=True)
    try:
        output, _ = process.communicate(timeout=LIMIT)
    except subprocess.TimeoutExpired:
        process.kill()
        return {"wrong": "stuck", "output": ""}
    facts = last_object(output)
    facts["output"] = output
    if process.returncode < 0:
        facts["wrong"] = "crashed"
    elif process.returncode > 0:
        facts.setdefault("wrong", f"ended with {process.returncode}")
    return facts


def run(arguments, operation, nth, kind):
    with tempfile.TemporaryDirectory(prefix="tarv-memory-", ignore_cleanup_errors=True) as folder:
        facts = play(arguments, operation, nth, kind, folder)
        left = what_is_left(folder)
        # A process that crashed inside Qt could not clean up.
        if left and facts.get("wrong") != "crashed":
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
    if "wrong" not in facts and facts["descriptors"] != 0:
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


def torture(arguments, operation, pool):
    clean = run(arguments, operation, 0, "once")
    if "wrong" in clean:
        sys.exit(f"{operation}, with memory for all: {clean}")
    last = clean.get("of the task", clean["allocations"])
    outcomes = collections.Counter()
    for job in [pool.submit(run, arguments, operation, nth, kind)
                for nth in range(1, last + 1, arguments.every) for kind in ("once", "lasting")]:
        facts = job.result()
        outcomes[judge(facts, clean)] += 1
        if arguments.keep and ("wrong" in facts or "inside Qt" in facts):
            with open(arguments.keep, "a", encoding="utf-8") as file:
                file.write(json.dumps(facts) + "\n")
        if "wrong" in facts:
            print(f"WRONG: {facts['wrong']}: torture_memory '{operation}' {facts['nth']} "
                  f"{facts['kind']}: {facts.get('who', '')[:600]}", flush=True)
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
    # The very first start makes what the process keeps; three of its runs in thirty still crash.
    parser.add_argument("--only", choices=OPERATIONS + ["first start"])
    parser.add_argument("--jobs", type=int, default=2 * (os.cpu_count() or 1))
    parser.add_argument("--keep", help="a file for the runs that went wrong, a JSON line each")
    arguments = parser.parse_args()
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        results = [torture(arguments, operation, pool)
                   for operation in ([arguments.only] if arguments.only else OPERATIONS)]
    sys.exit(0 if all(results) else 1)


main()
