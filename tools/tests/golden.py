"""Records that are written out, with times that are known."""
import base64
import json
import struct


def encode(value):
    """The standard codec, as far as the tests need it."""
    if value is None:
        return b"\0"
    if value is True or value is False:
        return b"\1" if value else b"\2"
    if isinstance(value, int):
        return b"\3" + struct.pack("<i", value)
    if isinstance(value, str):
        return b"\7" + bytes([len(value.encode())]) + value.encode()
    if isinstance(value, list):
        return b"\x0c" + bytes([len(value)]) + b"".join(map(encode, value))
    return b"\x0d" + bytes([len(value)]) + b"".join(encode(k) + encode(v) for k, v in value.items())


def line(ms, pid, task, direction, message):
    data = base64.b64encode(encode(message)).decode()
    return ('{"time":%d,"pid":%d,"task":"%s","direction":"%s","envelope":{"data":"%s"}}\n'
            % (round(ms * 1000000), pid, task, direction, data))


def event(ms, pid, name, **more):
    members = {"time": round(ms * 1000000), "pid": pid, "task": "wordcount", "event": name, **more}
    return json.dumps(members, separators=(",", ":")) + "\n"


def request(id_, method, params=None):
    message = {"id": id_, "jsonrpc": "2.0", "method": method}
    return message if params is None else {**message, "params": params}


def answer(id_, **more):
    return {"id": id_, "jsonrpc": "2.0", **more}


def record():
    """The application is process 10, the task 20; both have recorded."""
    def both(ms, sender, receiver, message):
        return (line(ms, sender, "wordcount", "send", message) +
                line(ms + 0.2, receiver, "wordcount", "receive", message))
    return "".join([
        event(100, 10, "start", process=20, program="/x/wordcount", starter="app"),
        event(100.5, 10, "connection"),
        event(101, 20, "connection", process=10),
        both(101.5, 10, 20, request("id1_1", "vorpc.connected")),
        both(102, 20, 10, answer("id1_1", result=None)),
        both(103, 10, 20, request("id1_2", "count", {"texts": ["a b"]})),
        both(105, 20, 10, answer("id1_2", result={"total": 2})),
        both(105.5, 10, 20, request("id1_3", "fail")),
        both(106, 20, 10, answer("id1_3", error={"code": 4711, "message": "no luck"})),
        both(106.5, 20, 10, {"jsonrpc": "2.0", "method": "tick", "params": {"n": 1}}),
        both(107, 10, 20, request("id1_4", "sleep")),
        '{"time":107500000,"pid":10,"task":"wordcount","direction":"send","fault":"drop"}\n',
        event(108, 10, "end", process=20, reason="exited with status 7 after 8 ms"),
    ])


SHOWN = """\
    0.000000 app starts wordcount, process 20
    0.000500 app is connected with wordcount
    0.001000 wordcount is connected with app
    0.001500 app → wordcount  id1_1 vorpc.connected(null)
    0.002000 wordcount → app  id1_1 vorpc.connected 0.500 ms null
    0.003000 app → wordcount  id1_2 count({"texts": ["a b"]})
    0.005000 wordcount → app  id1_2 count 2.000 ms {"total": 2}
    0.005500 app → wordcount  id1_3 fail(null)
    0.006000 wordcount → app  id1_3 fail 0.500 ms error {"code": 4711, "message": "no luck"}
    0.006500 wordcount → app  tick({"n": 1})
    0.007000 app → wordcount  id1_4 sleep(null)
    0.007500 fault between app and wordcount: drop
    0.008000 wordcount exited with status 7 after 8 ms
never answered: id1_4 sleep of wordcount, sent at 0.007000
task                 method                       count  errors unanswered   median ms     99 % ms        bytes
wordcount            count                            1       0          0       2.000       2.000          156
wordcount            fail                             1       1          0       0.500       0.500          144
wordcount            sleep                            1       0          1       0.000       0.000           56
wordcount            tick                             1       0          0       0.000       0.000           64
wordcount            vorpc.connected                  1       0          0       0.500       0.500          120
"""


def many_blocks(pairs, block=5000):
    """Requests and answers of 200 bytes each, in texts of many lines."""
    text = "x" * 110
    for begin in range(0, pairs, block):
        lines = []
        for number in range(begin, min(begin + block, pairs)):
            id_ = "id123456_%d" % number
            lines.append(line(number, 10, "many", "send", request(id_, "work", {"text": text})))
            lines.append(line(number, 20, "many", "send", answer(id_, result={"text": text})))
        yield "".join(lines)


def many(pairs):
    return "".join(many_blocks(pairs))
