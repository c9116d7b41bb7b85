#!/usr/bin/env python3
"""compare.py TOOL: runs each command line of lines.txt with curl and with the tool, against the same
origin, and compares the exit status, standard output, the files that are left and what reached the wire.
A line that is to differ says in what; any other difference, and one that does not come, is a failure. With
"?" behind it a difference comes with some versions of curl only."""

import base64
import collections
import concurrent.futures
import gzip
import os
import pathlib
import re
import shlex
import socketserver
import ssl
import subprocess
import sys
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
PATIENCE = 20  # seconds
WORKERS = 4  # most lines wait
BODY = bytes(range(256)) * 400


class Origin(socketserver.ThreadingTCPServer):
    daemon_threads = True
    allow_reuse_address = True

    def __init__(self, tls=None):
        super().__init__(("127.0.0.1", 0), Connection)
        self.requests = []
        self.tries = 0
        if tls:
            self.socket = tls.wrap_socket(self.socket, server_side=True, do_handshake_on_connect=False)
        threading.Thread(target=self.serve_forever, daemon=True).start()

    @property
    def address(self):
        return "127.0.0.1:%d" % self.server_address[1]


class Connection(socketserver.StreamRequestHandler):
    def handle(self):
        try:
            while self.one():
                pass
        except OSError:
            pass  # a client that goes away, or does not trust the certificate

    def one(self):
        head = b""
        while not head.endswith(b"\r\n\r\n"):
            line = self.rfile.readline()
            if not line:
                return False
            head += line
        fields = {name.strip().lower(): value.strip() for name, _, value in
                  (line.partition(":") for line in head.decode("latin-1").split("\r\n")[1:-2])}
        body = self.body(fields)
        self.server.requests.append((head.decode("latin-1"), body))
        method, target, _ = head.decode("latin-1").split("\r\n")[0].split(" ")
        return self.answer(method, target, fields, body)

    def body(self, fields):
        if fields.get("transfer-encoding") == "chunked":
            body = b""
            while size := int(self.rfile.readline(), 16):
                body += self.rfile.read(size)
                self.rfile.readline()
            self.rfile.readline()
            return body
        return self.rfile.read(int(fields.get("content-length", 0)))

    def send(self, method, status, body=b"", fields=(), length=True):
        lines = ["HTTP/1.1 %s" % status, "Content-Type: text/plain", *fields]
        if length:
            lines.append("Content-Length: %d" % len(body))
        self.wfile.write(("\r\n".join(lines) + "\r\n\r\n").encode() + (b"" if method == "HEAD" else body))
        return True

    def answer(self, method, target, fields, body):
        path, _, query = target.partition("?")
        route, _, argument = path[1:].partition("/")
        if route == "status":
            more = ["Retry-After: 0"] if argument == "503" else []
            return self.send(method, argument + " Status", b"status %s\n" % argument.encode(), more)
        if route == "bytes":
            return self.ranged(method, BODY[:int(argument)], fields)
        if route == "redirect":
            return self.send(method, "%s Found" % (query or "302"), b"moved\n", ["Location: /echo?moved"])
        if route == "loop":
            return self.send(method, "302 Found", b"", ["Location: /loop"])
        if route == "fields":
            return self.send(method, "200 OK", b"fields\n", ["Set-Cookie: a=1; Path=/", "Set-Cookie: b=2",
                                                             "X-Empty:", "x-lower: case"])
        if route == "chunked":
            self.send(method, "200 OK", b"", ["Transfer-Encoding: chunked"], length=False)
            self.wfile.write(b"6\r\nchunk \r\n4\r\nend\n\r\n0\r\n\r\n")
            return True
        if route == "gzip":
            packed = gzip.compress(b"unpacked\n", mtime=0) if "gzip" in fields.get("accept-encoding", "") else None
            return self.send(method, "200 OK", packed or b"plain\n", ["Content-Encoding: gzip"] if packed else [])
        if route == "cut":
            self.send(method, "200 OK", b"", ["Content-Length: 100"], length=False)
            self.wfile.write(b"half")
            return False
        if route == "close":
            return False
        if route == "slow":
            time.sleep(3)
            return False
        if route == "flaky":
            self.server.tries += 1
            if self.server.tries % 2 == 1:
                return self.send(method, "503 Busy", b"busy\n", ["Retry-After: 0"])
            return self.send(method, "200 OK", b"at last\n")
        if route == "basic":
            good = "Basic " + base64.b64encode(b"user:pass word").decode()
            if fields.get("authorization") == good:
                return self.send(method, "200 OK", b"welcome\n")
            return self.send(method, "401 Who", b"who\n", ['WWW-Authenticate: Basic realm="r"'])
        if route == "digest":
            if fields.get("authorization", "").startswith("Digest "):
                return self.send(method, "200 OK", b"welcome\n")
            return self.send(method, "401 Who", b"who\n", ['WWW-Authenticate: Digest realm="r", nonce="n"'])
        if route == "nothing":
            self.wfile.write(b"HTTP/1.1 204 No Content\r\n\r\n")
            return True
        if route == "garbage":
            self.wfile.write(b"garbage\r\n\r\n")
            return False
        return self.send(method, "200 OK", b"%s %s %d\n" % (method.encode(), target.encode(), len(body)))

    def ranged(self, method, body, fields):
        asked = re.fullmatch(r"bytes=(\d+)-", fields.get("range", ""))
        if not asked:
            return self.send(method, "200 OK", body, ['ETag: "one"', "Accept-Ranges: bytes"])
        start = int(asked[1])
        if start >= len(body):
            return self.send(method, "416 Range", b"", ["Content-Range: bytes */%d" % len(body)])
        return self.send(method, "206 Part", body[start:],
                         ['ETag: "one"', "Content-Range: bytes %d-%d/%d" % (start, len(body) - 1, len(body))])


def normalised(text):
    text = re.sub(r"User-Agent: (curl|zel-http)/[^\r]*", "User-Agent: its own", text)
    text = re.sub(r"-{20,}[0-9A-Za-z]+", "BOUNDARY", text)
    text = re.sub(r'cnonce="[^"]*"|response="[^"]*"', "RANDOM", text)
    return text


class Result:
    def __init__(self, program, words, servers):
        for server in servers:
            server.requests.clear()
            server.tries = 0
        with tempfile.TemporaryDirectory() as directory:
            folder = pathlib.Path(directory)
            prepare(folder)
            before = {path.name for path in folder.iterdir()}
            done = subprocess.run([program, *words], cwd=folder, capture_output=True, timeout=PATIENCE,
                                  stdin=open(folder / "data.txt", "rb"), env=environment(folder))
            self.status = done.returncode
            self.output = done.stdout
            self.errors = done.stderr.decode(errors="replace")
            self.files = {path.name: path.read_bytes() for path in folder.iterdir() if path.name not in before}
            self.files["there"] = (folder / "there").read_bytes()
        self.wire = [normalised(head) + "|" + normalised(body.decode("latin-1"))
                     for server in servers for head, body in server.requests]


def environment(folder):
    clean = {name: value for name, value in os.environ.items() if not name.lower().endswith("_proxy")}
    return dict(clean, HOME=str(folder), LC_ALL="C.UTF-8")


def prepare(folder):
    (folder / "data.txt").write_bytes(b"first\r\nsecond\n")
    (folder / "binary").write_bytes(BODY[:1000])
    (folder / "fields").write_text("X-One: 1\n\nX-Two: 2\n")
    (folder / "there").write_text("there before\n")
    (folder / "cookies").write_text("127.0.0.1\tFALSE\t/\tFALSE\t0\tjar\tfull\n")
    (folder / "more-options").write_text('header = "X-A: b" # comment\nreferer = #a # comment\nsilent\n')
    (folder / "options").write_text('# comment\nheader = "X-File: yes"\n--data a=b\nsilent\n')


def differences(curl, tool):
    return [name for name in ("status", "output", "files", "wire") if getattr(curl, name) != getattr(tool, name)]


def show(name, curl, tool):
    print("    %s: curl %.400r\n    %s  tool %.400r" % (name, getattr(curl, name), " " * len(name), getattr(tool, name)))


def certificates(folder):
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
                    "-subj", "/CN=origin", "-addext", "subjectAltName=IP:127.0.0.1", "-days", "2",
                    "-keyout", folder / "key.pem", "-out", folder / "cert.pem"], check=True, capture_output=True)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(folder / "cert.pem", folder / "key.pem")
    return context


class Line:
    """A line of lines.txt, run with both programs."""

    def __init__(self, line, tool, servers, names):
        self.text = line
        self.expected, _, text = line.partition("|")
        for name, value in names.items():
            text = text.replace(name, value)
        words = shlex.split(text)
        self.curl, self.tool = (Result(program, words, servers) for program in ("curl", tool))
        self.found = differences(self.curl, self.tool)

    def as_expected(self):
        must = {word for word in self.expected.split() if not word.endswith("?")}
        may = {word.rstrip("?") for word in self.expected.split()}
        return must <= set(self.found) <= may and "pass word" not in self.tool.errors

    def show(self):
        print("%s\n  differs in %s, is to differ in %s"
              % (self.text, self.found or "nothing", self.expected or "nothing"))
        for name in self.found:
            show(name, self.curl, self.tool)
        print("    tool says: %.300s" % self.tool.errors.strip())


def compared(tool, lines, folder, tls):
    """Takes lines until there are none. Each caller has servers of its own."""
    plain, secure = Origin(), Origin(tls)
    names = {"@origin@": "http://" + plain.address, "@tls@": "https://" + secure.address, "@host@": plain.address,
             "@port@": plain.address.split(":")[1], "@cert@": str(folder / "cert.pem")}
    done = []
    while True:
        try:
            line = lines.popleft()
        except IndexError:
            return done
        done.append(Line(line, tool, [plain, secure], names))


def main():
    tool = os.path.abspath(sys.argv[1])
    with tempfile.TemporaryDirectory() as directory:
        folder = pathlib.Path(directory)
        tls = certificates(folder)
        lines = collections.deque(line for line in (HERE / "lines.txt").read_text().splitlines()
                                  if line and not line.startswith("#"))
        with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
            jobs = [pool.submit(compared, tool, lines, folder, tls) for _ in range(WORKERS)]
            done = [line for job in jobs for line in job.result()]
    failures = [line for line in done if not line.as_expected()]
    for line in failures:
        line.show()
    print("%d command lines, %d not as expected" % (len(done), len(failures)))
    return 1 if failures or not done else 0


if __name__ == "__main__":
    sys.exit(main())
