"""What is measured: the works, who does them, and what the library must reach."""

import dataclasses

LIBRARY = "zel_http"
FLOOR = "raw-multi"
CURL_PEERS = [FLOOR, LIBRARY, "raw-threads", "raw-batched", "raw-socket"]
PEERS = CURL_PEERS + ["libsoup", "qt", "beast", "cpp-httplib"]
# Much slower at many in flight; they do a part of the requests, and the cost is per request.
SLOW = {"libsoup": 10, "qt": 10}

MIB = 1024 * 1024


@dataclasses.dataclass(frozen=True)
class Work:
    name: str
    title: str
    # From the server to the peer's arguments.
    arguments: callable
    requests: int
    in_flight: int = 1
    peers: tuple = tuple(PEERS)
    # Arguments of one peer only.
    special: dict = dataclasses.field(default_factory=dict)
    rounds: int | None = None  # fewer than the others

    def command(self, server, peer):
        requests = self.requests // SLOW.get(peer, 1) if self.in_flight >= 64 else self.requests
        requests = max(requests, self.in_flight, 1)
        return ["--requests", requests, "--in-flight", self.in_flight,
                *self.arguments(server), *self.special.get(peer, [])]


def small(in_flight, requests, **more):
    return Work("get-%d" % in_flight, "1 KiB GET, %s in flight" % format(in_flight, ","),
                lambda s: ["--url", "http://%s/1k" % s.plain, "--expect", 1024,
                           "--warm-up", max(200, 2 * in_flight)],
                requests, in_flight, **more)


def upload(method):
    return Work(method.lower(), "8 MiB %s, 4 in flight" % method,
                lambda s: ["--url", "http://%s/upload" % s.plain, "--expect", 2, "--warm-up", 4,
                           "--method", method, "--body", 8 * MIB],
                12, 4)


def waiting(name, title, count, url, **more):
    return Work(name, title,
                lambda s: ["--url", "http://%s/1k" % s.plain, "--expect", 1024, "--warm-up", 20,
                           "--waiting", count, "--waiting-url", url(s), "--ca", s.bundle],
                100, **more)


def cancel(count):
    return waiting("cancel-%d" % count, "cancel of %s in flight" % format(count, ","), count,
                   lambda s: "http://%s/1k" % s.silent, peers=tuple(CURL_PEERS[:2]),
                   special={peer: ["--cancel"] for peer in CURL_PEERS}, rounds=5)


WORKS = [
    small(1, 3000),
    small(64, 6000),
    small(512, 6000),
    small(2000, 8000),
    Work("tls-64", "1 KiB GET over TLS 1.3 kept alive, 64 in flight",
         lambda s: ["--url", "https://%s/1k" % s.tls, "--ca", s.authority, "--expect", 1024,
                    "--warm-up", 200],
         6000, 64),
    Work("tls-new", "new TLS connections, the system's bundle, 4 in flight",
         lambda s: ["--url", "https://%s/close/1k" % s.tls, "--ca", s.bundle, "--expect", 1024,
                    "--warm-up", 4],
         20, 4, peers=tuple(PEERS) + ("raw-multi, libcurl's authorities",)),
    Work("burst", "64 requests at once to a cold HTTPS origin with HTTP/2",
         lambda s: ["--url", "https://%s/1k" % s.http2, "--ca", s.authority, "--expect", 1024],
         64, 64),
    Work("burst-http1", "64 requests at once to a cold HTTPS origin with HTTP/1.1 only",
         lambda s: ["--url", "https://%s/1k" % s.tls, "--ca", s.authority, "--expect", 1024],
         64, 64),
    Work("resumed", "20 requests in turn, each on a new TLS connection",
         lambda s: ["--url", "https://%s/1k" % s.resuming, "--ca", s.authority, "--expect", 1024],
         20),
    Work("download", "256 MiB download",
         lambda s: ["--url", "http://%s/256m" % s.plain, "--expect", 256 * MIB], 1),
    upload("POST"),
    upload("PUT"),
    waiting("beside", "one active beside 1,000 waiting", 1000,
            lambda s: "http://%s/1k" % s.silent),
    waiting("tls-waiting", "one active beside 100 waiting over TLS", 100,
            lambda s: "https://%s/silent" % s.tls, rounds=5),
    Work("start", "process start to first answer",
         lambda s: ["--url", "http://%s/1k" % s.plain, "--expect", 1024], 1),
    # The curve: cost per request over the number in flight.
    small(8, 4000, rounds=5),
    small(256, 6000, rounds=5),
    small(1000, 8000, rounds=5),
    cancel(250), cancel(500), cancel(1000), cancel(2000),
]
CURVE = [1, 8, 64, 256, 512, 1000, 2000]
