"""What a run of processes leaves behind, found by the runtime folder that they share."""
import pathlib
import time


def living(folder):
    """Processes that have this runtime folder, and are no zombies."""
    mark = f"XDG_RUNTIME_DIR={folder}".encode()
    found = []
    for process in pathlib.Path("/proc").iterdir():
        try:
            if process.name.isdigit() and mark in (process / "environ").read_bytes().split(b"\0"):
                if (process / "stat").read_text().rsplit(")", 1)[1].split()[0] != "Z":
                    found.append(int(process.name))
        except OSError:
            pass
    return found


def what_is_left(folder):
    """What a run has left behind after two seconds."""
    deadline = time.monotonic() + 2
    while True:
        left = ["process"] * len(living(folder))
        left += ["socket file" for path in pathlib.Path(folder).rglob("*") if path.is_socket()]
        if not left or time.monotonic() > deadline:
            return left
        time.sleep(0.05)
