#!/usr/bin/env python3
"""Lets system calls fail under an application and its task, and says what comes of it.

    calls.py PROGRAM TASK_FOLDER [--preload FILE] [--sample] [--every N] [--only CALL] [--every-error] [--deaths]
                [--spells] [--whose qt] [--jobs N]

Each run is a whole program: three conversations with tasks, of which one call fails at one place,
once or from then on. With --deaths each conversation loses its first task to SIGKILL, so that calls
fail while that is mended. With --spells what fails from the first or second conversation on does so
no more in the third. failing_calls.cpp makes them fail, in a library that is preloaded or as part of the programs;
conversation.cpp asks that each request ends once, in time and with a text. Here it is added what one
may expect of the conversations:

- what is interrupted (EINTR) or falls short is mended without a trace: all three go well;
- a single failure spoils one conversation at most: later work succeeds;
- a lasting one ends each request in an error, and the program in time;
- when a lasting one has passed, the third conversation goes well;
- no process and no socket file is there two seconds later; a file that nobody could remove goes with
  the next run.
"""
import argparse
import collections
import concurrent.futures
import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from leftovers import living, what_is_left  # noqa: E402

RESOURCES = ["EMFILE", "ENFILE", "ENOMEM"]
PASSING = ["EAGAIN", "ENOBUFS", "ENOMEM"]
ERRORS = {
    "socket": RESOURCES + ["ENOBUFS", "EACCES"],
    "socketpair": RESOURCES + ["ENOBUFS"],
    "bind": ["ENOMEM", "ENOBUFS", "ENOSPC", "EACCES", "EIO"],
    "listen": ["EACCES", "ENOBUFS", "ENOMEM"],
    "accept4": RESOURCES + ["ENOBUFS", "EINTR", "EAGAIN", "EIO"],
    "connect": PASSING + ["EACCES", "EINTR", "EIO"],
    "getsockopt": ["ENOBUFS", "ENOMEM"],
    "vfork": ["EAGAIN", "ENOMEM"],
    "execve": ["EACCES", "ENOMEM", "EIO", "EMFILE", "EAGAIN"],
    "pidfd_open": RESOURCES,
    "pidfd_send_signal": ["EACCES", "ENOMEM"],
    "waitid": ["EINTR", "EIO"],
    "pipe2": RESOURCES,
    "dup2": ["EMFILE", "EIO"],
    "dup3": ["EMFILE", "EIO"],
    "fcntl": ["EMFILE", "ENOMEM"],
    "read": ["EIO", "EINTR", "EAGAIN", "ENOMEM", "short"],
    "recv": PASSING + ["EIO", "EINTR", "short"],
    "write": ["EIO", "ENOSPC", "EPIPE", "EINTR", "EAGAIN", "short"],
    "writev": ["EIO", "ENOSPC", "EINTR", "EAGAIN", "short"],
    "send": PASSING + ["EPIPE", "EINTR", "EIO", "short"],
    "sendmsg": PASSING + ["EPIPE", "EINTR", "EIO", "short"],
    "poll": ["EINTR", "ENOMEM"],
    "epoll_create1": RESOURCES,
    "epoll_ctl": ["ENOMEM", "ENOSPC"],
    "epoll_wait": ["EINTR", "ENOMEM"],
    "open": RESOURCES + ["EACCES", "ENOSPC", "EIO"],
    "openat": RESOURCES + ["EACCES", "EIO"],
    "unlink": ["EACCES", "EIO"],
    "renameat": ["EACCES", "ENOSPC", "EIO"],
    "mkdirat": ["EACCES", "ENOSPC", "EIO"],
    "fchmod": ["EACCES", "EIO"],
    "fchmodat": ["EACCES", "EIO"],
}
# Made only where something has failed already, or is cleared away after a death: with --deaths.
MENDING = {
    "unlinkat": ["EACCES", "EIO"],
}
# What --every-error adds: also what the call never says of itself, but a security module, a quota or
# a container may make it say.
ANY_CALLS = ["EMFILE", "ENFILE", "ENOMEM", "ENOSPC", "EIO", "EACCES", "EAGAIN", "EPIPE"]
PROGRAMS = ["torture_calls", "torture_calls_task"]
MENDED = ["EINTR", "short"]
PATIENCE = {"accept4": ERRORS["accept4"], "connect": ["EAGAIN"], "sendmsg": PASSING,
            "poll": ["ENOMEM"]}
CLEAN_RUNS = 3
STRIDE = 16  # of the places of a sample
MOST_NOT_STRUCK = 0.2  # of all runs
LIMIT = 300  # seconds that a run may take: several times the patience of its steps


def play(arguments, fault, folder):
    log = pathlib.Path(folder) / "calls"
    environment = dict(os.environ, XDG_RUNTIME_DIR=folder, RUNTIME_MANAGER_URI_HANDLER="/bin/true",
                       RUNTIME_MANAGER_TASK_PATH=arguments.task_folder,
                       RUNTIME_MANAGER_INTENT_TIMEOUT="3",
                       RUNTIME_MANAGER_TRACE=str(pathlib.Path(folder) / "record"),
                       RUNTIME_MANAGER_STDERR=str(pathlib.Path(folder) / "errors"),
                       FAIL_LOG=str(log), FAIL_ONCE=str(struck_mark(folder)), FAIL_WHOSE=arguments.whose, **fault)
    if arguments.preload:
        environment["LD_PRELOAD"] = arguments.preload
    if arguments.deaths:
        environment["TORTURE_DEATH"] = "1"
    if arguments.spells:
        environment["FAIL_UNTIL"] = str(pathlib.Path(folder) / "over")
    process = subprocess.Popen([arguments.program], env=environment, stdout=subprocess.PIPE,
                               stderr=subprocess.STDOUT, text=True, errors="replace")
    try:
        output, _ = process.communicate(timeout=LIMIT)
    except subprocess.TimeoutExpired:
        process.kill()
        output, _ = process.communicate()
        output += "\nWRONG program: no end of it\n"
    lines = log.read_text().splitlines() if log.exists() else []
    return output, process.returncode, lines


def struck_mark(folder):
    return pathlib.Path(folder) / "struck"


def counts_of(lines, program):
    """How often a process of this program made each call, at most."""
    counts = collections.Counter()
    for line in lines:
        name, *numbers = line.split()
        if name == program:
            counts |= collections.Counter({key: int(value) for key, value in
                                           (number.split("=") for number in numbers)})
    return counts


def judge(output, status, fault, spells):
    wrong = [line for line in output.splitlines() if line.startswith("WRONG")]
    if wrong:
        return wrong[0]
    # A task's, too: what it says comes through its starter.
    found = [line for line in output.splitlines() if "Sanitizer:" in line or "runtime error:" in line]
    if found:
        return f"WRONG {found[0].split('ERROR: ')[-1].strip()}"
    if status != 0:
        return f"WRONG end: {status}"
    good = output.rsplit("good: ", 1)[-1].split()[0]
    lasting = fault.get("FAIL_LASTS") == "1"
    if fault.get("FAIL_ERROR") in MENDED and good != "111":
        return f"WRONG not mended: {good}"
    if spells and not good.endswith("1"):
        return f"WRONG it has passed, and all is not well: {good}"
    if not lasting and good.count("0") > 1:
        return f"WRONG one failure spoiled more: {good}"
    return "mended without a trace" if good == "111" else "an error"


def run(arguments, fault):
    with tempfile.TemporaryDirectory(prefix="tarv-calls-", ignore_cleanup_errors=True) as folder:
        output, status, _ = play(arguments, fault, folder)
        outcome = judge(output, status, fault, arguments.spells)
        is_struck = struck_mark(folder).exists()
        if may_leave_files(fault, arguments.deaths):
            play(arguments, {}, folder)
        left = what_is_left(folder, lambda: time_of_a_clean_run(arguments))
        if left and not outcome.startswith("WRONG"):
            outcome = f"WRONG a {left[0]} is left behind"
        for process in living(folder):
            with contextlib.suppress(ProcessLookupError):
                os.kill(process, signal.SIGKILL)
    if not is_struck and not outcome.startswith("WRONG"):
        outcome = "not struck"  # another course than the counted one
    return outcome, output


def may_leave_files(fault, deaths):
    """Whether a file may not be removed, or a task ends without having time to.

    What a killed task leaves goes with the next one, which a lasting failure may keep from starting. All
    that a task writes to is the pipe that tells it to end.
    """
    call, program = fault.get("FAIL_CALL", ""), fault.get("FAIL_IN", "")
    is_kept = call.startswith("unlink") or (call, program) == ("write", "torture_calls_task")
    return is_kept or (deaths and fault.get("FAIL_LASTS") == "1")


def faults_of(arguments):
    """What is to fail, at each place at which it is called when nothing fails."""
    counts = {program: collections.Counter() for program in PROGRAMS}
    # Some are made only when a process is not there at once.
    for _ in range(CLEAN_RUNS):
        output, status, lines = play_clean(arguments)
        if status != 0:
            sys.exit(f"without any fault the program ends with {status}, and says:\n{output}")
        for program in PROGRAMS:
            counts[program] |= counts_of(lines, program)
    calls = dict(ERRORS, **MENDING) if arguments.deaths else ERRORS
    # Who calls something else in its place from now on would not be asked any more.
    uncalled = [call for call in calls if not any(count[call] for count in counts.values())]
    if uncalled and arguments.whose == "ours":
        sys.exit(f"nobody calls {', '.join(uncalled)} any more: put what is called instead into "
                 "ERRORS and into failing_calls.cpp")
    for program in PROGRAMS:
        for call, errors in calls.items():
            added = [error for error in ANY_CALLS if error not in errors]
            for nth in places(counts[program][call], arguments.spells):
                for error in errors + (added if arguments.every_error else []):
                    for lasts in lasting(error, arguments.spells):
                        yield {"FAIL_IN": program, "FAIL_CALL": call, "FAIL_ERROR": error,
                               "FAIL_AT": str(nth), "FAIL_LASTS": lasts}


def places(count, spells):
    """Where a call may fail. A spell begins in the first conversation, or in the second."""
    return sorted({1, count // 2} - {0}) if spells and count else range(1, count + 1)


def lasting(error, spells):
    """What is interrupted for ever may be tried for ever."""
    kinds = "0" if error == "EINTR" else "01"
    return kinds.replace("0", "") if spells else kinds


def sample_of(faults):
    """Of each call the first place, the last one and every 16th, each with another error."""
    choices = collections.defaultdict(list)
    last = {}
    for fault in faults:
        call, place = (fault["FAIL_IN"], fault["FAIL_CALL"]), int(fault["FAIL_AT"])
        last[call] = max(place, last.get(call, 0))
        if not takes_patience(fault):
            choices[call, place].append(fault)
    picked = [found for (call, place), found in choices.items()
              if place in (1, last[call]) or place % STRIDE == 0]
    return [found[number % len(found)] for number, found in enumerate(picked)]


def takes_patience(fault):
    """What is tried again for seconds before it is given up, in each conversation."""
    is_patient = fault["FAIL_ERROR"] in PATIENCE.get(fault["FAIL_CALL"], [])
    return is_patient and fault["FAIL_LASTS"] == "1"


def time_of_a_clean_run(arguments):
    begin = time.monotonic()
    play_clean(arguments)
    return time.monotonic() - begin


def play_clean(arguments):
    with tempfile.TemporaryDirectory(prefix="tarv-calls-") as folder:
        return play(arguments, {}, folder)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--preload", help="the library that fails, where it is no part of the programs")
    parser.add_argument("program")
    parser.add_argument("task_folder")
    parser.add_argument("--sample", action="store_true")
    parser.add_argument("--every", type=int, default=int(os.environ.get("TORTURE_EVERY", "1")))
    parser.add_argument("--every-error", action="store_true")
    parser.add_argument("--deaths", action="store_true")
    parser.add_argument("--spells", action="store_true")
    parser.add_argument("--only", choices=[*ERRORS, *MENDING])
    parser.add_argument("--whose", choices=["ours", "qt"], default="ours")
    parser.add_argument("--jobs", type=int, default=2 * (os.cpu_count() or 1))
    arguments = parser.parse_args()
    faults = [fault for fault in faults_of(arguments)
              if arguments.only in (None, fault["FAIL_CALL"])][::arguments.every]
    if arguments.sample:
        faults = sample_of(faults)
    table = collections.defaultdict(collections.Counter)
    wrong = 0
    with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
        jobs = [(fault, pool.submit(run, arguments, fault)) for fault in faults]
        for fault, job in jobs:
            outcome, output = job.result()
            table[fault["FAIL_CALL"]][outcome.split(":")[0]] += 1
            if outcome.startswith("WRONG"):
                wrong += 1
                report(fault, outcome, output)
    print_table(table)
    print(f"{len(faults)} runs, {wrong} wrong")
    not_struck = sum(outcomes["not struck"] for outcomes in table.values())
    if arguments.only is None and not_struck > MOST_NOT_STRUCK * len(faults):
        wrong += 1
        print(f"WRONG: {not_struck} runs were not struck, so they show nothing")
    # What Qt makes of its own failing calls is listed, not asked for.
    sys.exit(1 if wrong and arguments.whose == "ours" else 0)


def report(fault, outcome, output):
    print(outcome, "with", " ".join(f"{key}={value}" for key, value in fault.items()))
    print("".join(f"    {line}\n" for line in output.splitlines()[-40:]), flush=True)


def print_table(table):
    kinds = ["mended without a trace", "an error", "not struck"]
    kinds += sorted({kind for outcomes in table.values() for kind in outcomes} - set(kinds))
    print("| call | runs |", " | ".join(kinds), "|")
    print("|---|---:|" + "---:|" * len(kinds))
    for call, outcomes in table.items():
        counts = [str(outcomes[kind]) if outcomes[kind] else "" for kind in kinds]
        print(f"| `{call}` | {sum(outcomes.values())} |", " | ".join(counts), "|")


main()
