#!/usr/bin/env python3
"""The task "lines.py": speaks JSON Lines on the inherited socket with nothing but Python's library."""
import json
import os
import socket
import sys
import time

assert os.environ["LISTEN_FDS"] == "1" and int(os.environ["LISTEN_PID"]) == os.getpid()
listener = socket.socket(fileno=3)
connection, _ = listener.accept()
stream = connection.makefile("rwb")


def send(value):
    stream.write(json.dumps(value).encode() + b"\n")
    stream.flush()


for line in stream:
    text = json.loads(line)["data"]
    if text == "odd ones":
        send({"data": 5})
        send({})
        send({"text": "not a message"})
        send([1, 2])
        send({"data": ""})
    elif text == "arguments":
        send({"data": " ".join(sys.argv[1:])})
    elif text == "hang up":
        connection.shutdown(socket.SHUT_RDWR)
        while True:
            time.sleep(60)
    elif text.startswith("repeat "):
        send({"data": "x" * int(text.split()[1])})
    else:
        send({"data": text[::-1]})
