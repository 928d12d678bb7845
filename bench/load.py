"""Load on one server: what is asked, and what answering it cost."""

import base64
import hashlib
import hmac
import http.client
import json
import os
import subprocess
import time
from dataclasses import dataclass, field
from pathlib import Path

SCRIPT = Path(__file__).with_name("request.lua")
CONNECTIONS = 32

# A number in a request's JSON body that request.lua replaces by 0 to 99 in turn. No signature covers such a body.
COUNTER = 777000777


class BenchError(Exception):
    """A row could not be measured; the text says why."""


@dataclass(frozen=True)
class Exchange:
    """One request, the same for every server: target is the path with its query."""

    target: str
    method: str = "GET"
    body: bytes = b""
    headers: dict = field(default_factory=dict)

    def at(self, target):
        """The same request to another target."""
        return Exchange(target, self.method, self.body, self.headers)


@dataclass(frozen=True)
class Load:
    """What one run of the load generator saw; latencies in milliseconds."""

    requests: int
    seconds: float
    cpu_seconds: float
    p50: float
    p99: float
    max: float

    @property
    def rate(self):
        return self.requests / self.seconds

    @property
    def cpu_microseconds(self):
        """Processor time of the server for one request."""
        return self.cpu_seconds / self.requests * 1e6


def post_json(target, value):
    return Exchange(target, "POST", json.dumps(value).encode(), {"Content-Type": "application/json"})


def signed(exchange, port, user, password, host="127.0.0.1"):
    """The exchange with an Authorization header; good for any number of requests, as the time is not enforced."""
    salt = base64.b64encode(os.urandom(16)).decode()
    stamp = str(int(time.time() * 1000))
    key = hashlib.sha256(base64.b64decode(salt) + password.encode()).digest()
    data = f"http://{host}:{port}{exchange.target}".encode()
    if exchange.method == "POST":
        data += b"." + exchange.body
    message = f"{user}.{salt}.{stamp}.".encode() + data
    signature = base64.b64encode(hmac.new(key, message, hashlib.sha256).digest()).decode()
    name = base64.b64encode(user.encode()).decode()
    headers = {**exchange.headers, "Authorization": f"HMAC_SHA256 {name}.{salt}.{stamp}.{signature}"}
    return Exchange(exchange.target, exchange.method, exchange.body, headers)


def counted(body, number):
    return body.replace(str(COUNTER).encode(), str(number).encode())


def ask_once(server, exchange):
    """The body of one answer. A BenchError unless it is a 200: a benchmark of errors says nothing."""
    connection = server.connect()
    try:
        connection.request(exchange.method, exchange.target, counted(exchange.body, 0) or None, exchange.headers)
        response = connection.getresponse()
        body = response.read()
    except (OSError, http.client.HTTPException) as error:
        raise BenchError(f"{exchange.method} {exchange.target}: {error}") from error
    finally:
        connection.close()
    if response.status != 200:
        raise BenchError(f"{exchange.method} {exchange.target}: {response.status} {body[:200]!r}")
    return body


def run_load(server, exchange, seconds, connections=CONNECTIONS):
    """Repeats the exchange for so many seconds from one thread of wrk."""
    environment = {
        **os.environ,
        "BENCH_METHOD": exchange.method,
        "BENCH_HEADERS": "\n".join(f"{name}: {value}" for name, value in exchange.headers.items()),
    }
    if exchange.body:
        environment["BENCH_BODY"] = exchange.body.decode()
        environment["BENCH_COUNTER"] = str(COUNTER)
    command = ["wrk", "-t1", f"-c{connections}", f"-d{seconds}s", "-s", str(SCRIPT), server.url(exchange.target)]
    before = server.cpu_seconds()
    result = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=seconds + 30)
    cpu_seconds = server.cpu_seconds() - before
    if result.returncode != 0:
        raise BenchError(f"wrk: {result.stderr.strip() or result.stdout.strip()}")
    seen = json.loads(result.stdout.strip().splitlines()[-1])
    if seen.pop("failures") or not seen["requests"]:
        raise BenchError(f"{exchange.method} {exchange.target}: failed requests under load\n{result.stdout}")
    return Load(cpu_seconds=cpu_seconds, **seen)


def total(loads):
    """Several runs as one: the latencies of the middle one, the worst of the maxima."""
    middle = sorted(loads, key=lambda load: load.p99 / load.p50)[len(loads) // 2]
    return Load(
        requests=sum(load.requests for load in loads),
        seconds=sum(load.seconds for load in loads),
        cpu_seconds=sum(load.cpu_seconds for load in loads),
        p50=middle.p50,
        p99=middle.p99,
        max=max(load.max for load in loads),
    )


def run_alternately(sides, seconds, rounds=2):
    """Loads each (server, exchange) in turn, so that a busy machine slows all of them alike; one Load a side."""
    loads = [[] for _ in sides]
    for _ in range(rounds):
        for index, (server, exchange) in enumerate(sides):
            loads[index].append(run_load(server, exchange, seconds))
    return [total(each) for each in loads]
