"""The server that the peers ask: nginx on loopback, and a socket that never answers."""

import contextlib
import pathlib
import shutil
import socket
import subprocess
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
SYSTEM_BUNDLE = pathlib.Path("/etc/ssl/certs/ca-certificates.crt")
BLOCK = 1024
FILES = {"1k": 1024, "256m": 256 * 1024 * 1024}  # whole blocks


def free_addresses(count):
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    addresses = ["127.0.0.1:%d" % s.getsockname()[1] for s in sockets]
    for s in sockets:
        s.close()
    return addresses


def make_certificates(directory):
    """A server certificate by an authority that stands behind those of the system's bundle."""
    def openssl(*arguments):
        subprocess.run(["openssl", *arguments], cwd=directory, check=True, capture_output=True)

    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
    openssl("req", "-x509", *key, "-subj", "/CN=authority", "-days", "2",
            "-keyout", "authority.key", "-out", "authority.pem")
    openssl("req", "-x509", *key, "-subj", "/CN=server", "-days", "2",
            "-addext", "subjectAltName=IP:127.0.0.1", "-addext", "basicConstraints=critical,CA:FALSE",
            "-CA", "authority.pem", "-CAkey", "authority.key",
            "-keyout", "server.key", "-out", "server.pem")
    (directory / "bundle.pem").write_bytes(
        SYSTEM_BUNDLE.read_bytes() + (directory / "authority.pem").read_bytes())


class Server:
    """Its addresses: `plain`, `tls` (HTTP/1.1), `http2`, `resuming` (nginx) and `silent` (connects, never answers)."""

    def __init__(self, directory, core, sizes):
        self.directory = directory
        directory.chmod(0o755)  # nginx gives up root
        files = directory / "files"
        files.mkdir()
        for name, size in sizes.items():
            with open(files / name, "wb") as file:
                for _ in range(size // BLOCK):
                    file.write(b"z" * BLOCK)
        make_certificates(directory)
        self.authority = str(directory / "authority.pem")
        self.bundle = str(directory / "bundle.pem")
        self._silent = socket.create_server(("127.0.0.1", 0), backlog=4096)
        self.silent = "127.0.0.1:%d" % self._silent.getsockname()[1]
        self.plain, self.tls, self.http2, self.resuming = free_addresses(4)
        text = (HERE / "nginx.conf").read_text()
        for name, value in {"dir": directory, "plain": self.plain, "tls": self.tls,
                            "http2": self.http2, "resuming": self.resuming,
                            "silent": self.silent}.items():
            text = text.replace("@%s@" % name, str(value))
        (directory / "nginx.conf").write_text(text)
        self._nginx = subprocess.Popen(
            ["taskset", "-c", str(core), "nginx", "-c", directory / "nginx.conf",
             "-g", "daemon off;", "-e", "/dev/null"])
        self._wait()

    def _wait(self):
        host, port = self.plain.split(":")
        for _ in range(200):
            if self._nginx.poll() is not None:
                raise SystemExit("bench: nginx does not start")
            with contextlib.suppress(OSError):
                socket.create_connection((host, int(port))).close()
                return
            time.sleep(0.05)
        raise SystemExit("bench: nginx does not listen")

    def forget_waiting(self):
        """Closes what peers of the past have left in the silent socket's queue."""
        self._silent.settimeout(0)
        with contextlib.suppress(OSError):
            while True:
                self._silent.accept()[0].close()

    def stop(self):
        self._nginx.terminate()
        self._nginx.wait()
        self._silent.close()


@contextlib.contextmanager
def running(core, sizes=FILES, parent=None):
    directory = pathlib.Path(tempfile.mkdtemp(dir=parent))
    try:
        server = Server(directory, core, sizes)
        try:
            yield server
        finally:
            server.stop()
    finally:
        shutil.rmtree(directory)
