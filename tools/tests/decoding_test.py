"""decode and encode, doctor, intents, invoke, open: what needs no conversation."""
import base64
import os
import re
import socket
import threading

from kit import Case, main

# {"id": 7L, "tags": ["a", true]} in the standard codec
BYTES = bytes.fromhex("0d0207026964" "04" "0700000000000000" "070474616773" "0c0207016101")


class Decode(Case):
    def test_takes_base64_and_hex(self):
        text = base64.b64encode(BYTES).decode()
        plain = '{"id":7,"tags":["a",true]}\n'
        self.expect(0, ["decode", text], plain)
        self.expect(0, ["decode", BYTES.hex()], plain)
        self.expect(0, ["decode", BYTES.hex(), "--format", "hex"], plain)
        self.expect(0, ["decode", "-"], plain, input=text + "\n")
        self.expect(0, ["decode", self.write("file", text)], plain)

    def test_shows_exact_kinds(self):
        self.expect(0, ["decode", BYTES.hex(), "--typed"], '{"id":{"int64":7},"tags":["a",true]}\n')

    def test_takes_lines_of_the_wire_and_of_a_record(self):
        data = base64.b64encode(BYTES).decode()
        self.expect(0, ["decode", '{"data":"%s"}' % data], '{"id":7,"tags":["a",true]}\n')
        line = '{"time":1,"pid":2,"task":"t","direction":"send","envelope":{"data":"%s"}}' % data
        self.expect(0, ["decode", line], '{"id":7,"tags":["a",true]}\n')

    def test_says_what_it_cannot_decode(self):
        self.expect(2, ["decode", "!"], "", "neither hex nor Base64")
        self.expect(2, ["decode", "0g", "--format", "hex"], "", "is no hex")
        self.expect(2, ["decode", '{"datum":1}'], "", 'it has no "data"')
        self.expect(2, ["decode", ""], "", "nothing to decode")
        self.expect(2, ["decode", "cf"], "", "no value: Unknown type in Standard")
        self.expect(2, ["decode", "AwcA"], "", "the bytes are no value: ")

    def test_is_the_way_back_of_encode(self):
        for value in ('{"int64":7}', '{"bytes":"AAE="}', '["x",{"double":2}]'):
            text = self.expect(0, ["encode", "--typed", value]).stdout.strip()
            self.expect(0, ["decode", "--typed", text], value + "\n")
        self.expect(0, ["encode", "--format", "hex", "7"], "0307000000\n")
        self.expect(0, ["encode", "-"], "AwcAAAA=\n", input="7")
        self.expect(2, ["encode", "{"], "", "is no JSON: unterminated object at byte 1 of 1")


class Doctor(Case):
    def test_tells_a_line_a_check(self):
        done = self.expect(0, ["doctor", "wordcount"])
        for line in ("ok    runtime folder: '%s/runtime-manager', made at the first use"
                     % self.path("run"),
                     "ok    sockets of running tasks: 0",
                     "ok    limit: RUNTIME_MANAGER_MAX_MESSAGE is 268435456 bytes, the default",
                     "ok    search path: '%s'" % self.path("tasks"),
                     "ok    libtarv.so: version ",
                     "ok    intents: none are owned",
                     "ok    program: '%s/wordcount'" % self.path("tasks"),
                     "ok    interpreter: '/lib",
                     "ok    libraries: ",
                     "ok    handshake: the task answers "):
            self.assertIn(line, done.stdout)

    def test_tells_the_version_of_the_library_that_it_runs_with(self):
        said = self.expect(0, ["doctor"]).stdout
        version = self.expect(0, ["--version"]).stdout.split()[-1]
        self.assertIn("libtarv.so: version %s in '" % version, said)
        self.assertNotIn("this tarvctl is of version", said)
        library = re.search("libtarv.so: version .* in '(.*)';", said).group(1) + "/libtarv.so"
        with open(library, "rb") as file:
            code = file.read()
        os.mkdir(self.path("other"))
        for found, told in (("9.8.7", "9.8.7"), ('9.8"7', "unknown")):
            note = b'"version":"%s"}'
            other = code.replace(note % version.encode(), note % found.encode())
            with open(self.path("other/libtarv.so"), "wb") as file:
                file.write(other)
            said = self.expect(0, ["doctor"], LD_LIBRARY_PATH=self.path("other")).stdout
            self.assertIn("ok    libtarv.so: version %s in '%s'" % (told, self.path("other")), said)
            self.assertIn("note  libtarv.so: this tarvctl is of version " + version, said)

    def test_tells_what_is_wrong_and_what_to_do(self):
        os.mkdir(self.path("run/runtime-manager"), 0o755)
        done = self.expect(1, ["doctor"], RUNTIME_MANAGER_MAX_QUEUE="many")
        self.assertIn("wrong runtime folder: ", done.stdout)
        self.assertIn("run chmod 700 on it", done.stdout)
        self.assertIn("wrong limit: RUNTIME_MANAGER_MAX_QUEUE is 'many'", done.stdout)

    def test_tells_what_is_wrong_with_a_task(self):
        self.write("tasks/plain", "text")
        self.write("tasks/mute", "#!/bin/sh\nexec sleep 60\n", 0o755)
        self.assertIn("chmod +x", self.expect(1, ["doctor", "plain"]).stdout)
        self.assertIn("wrong program: there is no 'nobody'",
                      self.expect(1, ["doctor", "nobody"]).stdout)
        self.assertIn("wrong handshake: ",
                      self.expect(1, ["doctor", "mute", "--timeout", "300ms"]).stdout)
        self.assertIn("it has no description", self.expect(0, ["doctor", "pytask"]).stdout)

    def test_tells_of_what_the_dead_have_left(self):
        os.mkdir(self.path("run/runtime-manager"), 0o700)
        os.mkdir(self.path("run/runtime-manager/intents"), 0o700)
        for name in ("1-1-1.sock", "intents/lost"):
            with socket.socket(socket.AF_UNIX) as left:
                left.bind(self.path("run/runtime-manager/" + name))
        shown = self.expect(0, ["doctor"]).stdout
        self.assertIn("note  stale sockets: 1-1-1.sock", shown)
        self.assertIn("note  intents without a live owner: lost", shown)
        os.remove(self.path("run/runtime-manager/1-1-1.sock"))


class Owner:
    """The owner of an intent, in this process: a line in, a line out."""

    def __init__(self, path, answer):
        os.makedirs(os.path.dirname(path), 0o700, exist_ok=True)
        os.chmod(os.path.dirname(os.path.dirname(path)), 0o700)
        self.listening = socket.socket(socket.AF_UNIX)
        self.listening.bind(path)
        self.listening.listen()
        self.got = []
        self.thread = threading.Thread(target=self.serve, args=(answer,), daemon=True)
        self.thread.start()

    def serve(self, answer):
        while True:
            connection = self.listening.accept()[0]
            with connection, connection.makefile("rb") as lines:
                line = lines.readline()
                if line:
                    self.got.append(line.decode())
                    connection.sendall(answer)


class Intents(Case):
    def own(self, name, answer):
        return Owner(self.path("run/runtime-manager/intents/" + name), answer)

    def test_lists_owners_and_the_dead(self):
        self.own("play", b"")
        with socket.socket(socket.AF_UNIX) as left:
            left.bind(self.path("run/runtime-manager/intents/lost"))
        self.expect(0, ["intents"], "lost  its owner has died\nplay\n")
        self.assertEqual(self.json_of("intents", "--json"),
                         [{"live": False, "name": "lost"}, {"live": True, "name": "play"}])

    def test_invokes(self):
        owner = self.own("play", b'{"reply":{"playing":true}}\n')
        self.expect(0, ["invoke", "play", '{"song": "x"}'], '{"playing":true}\n')
        self.assertEqual(owner.got, ['{"first":{},"second":{"song":"x"}}\n'])

    def test_says_what_the_owner_says(self):
        self.own("play", b'{"error":"no such song"}\n')
        self.expect(1, ["invoke", "play"], "", "no such song")

    def test_says_that_nobody_owns_it(self):
        self.expect(3, ["invoke", "play"], "", "no live process owns it")
        self.expect(2, ["invoke", "play", "7"], "", "must be a JSON object")

    def test_gives_up_in_time(self):
        self.own("play", b"")
        self.expect(1, ["invoke", "play", "--timeout", "20s"], "")

    def test_opens_a_uri_with_the_program_for_it(self):
        program = self.write("opener", '#!/bin/sh\necho "$1" > "%s"\n' % self.path("opened"), 0o755)
        self.expect(0, ["open", "https://example.invalid/"], "{}\n",
                    RUNTIME_MANAGER_URI_HANDLER=program)
        with open(self.path("opened"), encoding="utf-8") as opened:
            self.assertEqual(opened.read(), "https://example.invalid/\n")
        self.expect(1, ["open", "no uri"], "")


main()
