"""Instructions for one request, counted by callgrind: nearly the same in every run on a quiet machine (how often the
event loop turns depends on when the client asks), so that a small change shows. One client asks on one connection. What
the kernel does is not counted."""

import re
import subprocess
from pathlib import Path

from load import BenchError, ask_once, counted
from servers import Floor, SecureDevice

WARM_UP = 200
REQUESTS = 2000
START_SECONDS = 120  # Under callgrind, everything takes fifty times as long.
TOTAL = re.compile(r"^totals: (\d+)", re.MULTILINE)


class Counter:
    """What a server executes, which has not been started yet."""

    def __init__(self, server, scratch, name):
        self.server = server
        self.dump = scratch / f"{name}.callgrind"
        self.dumps = 0
        server.patience = START_SECONDS
        server.command[:0] = ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={self.dump}"]

    def since_last(self):
        control = ["callgrind_control", "--dump", str(self.server.process.pid)]
        said = subprocess.run(control, capture_output=True, text=True)
        self.dumps += 1
        try:
            return int(TOTAL.search(Path(f"{self.dump}.{self.dumps}").read_text()).group(1))
        except (OSError, AttributeError) as error:
            raise BenchError(f"callgrind_control: {said.stdout}{said.stderr}") from error

    def for_one(self, exchange):
        """The mean of many requests."""
        connection = self.server.connect()
        for number in range(WARM_UP + REQUESTS):
            if number == WARM_UP:
                self.since_last()
            body = counted(exchange.body, number % 100) or None  # An empty one would be announced by a length of 0.
            connection.request(exchange.method, exchange.target, body, exchange.headers)
            connection.getresponse().read()
        connection.close()
        return self.since_last() / REQUESTS


def at_floor(exchange):
    """The floor's request that is answered alike."""
    path, mark, query = exchange.target.partition("?")
    return exchange.at("/value" + mark + query if path.startswith("/api/") else "/file" + path)


def of_floor(bench, name, exchange, body, tls):
    floor = Floor(bench.build, bench.scratch, body, tls=tls)
    counter = Counter(floor, bench.scratch, f"floor {name}")
    with floor:
        return counter.for_one(at_floor(exchange))


def print_instructions(bench, kinds, tls):
    """A line for each (name, exchange, over HTTPS); the exchange is a function of the device."""
    device = SecureDevice(bench.build, bench.scratch / "counted", tls, {"settings:webserver/documentRoot": bench.scratch})
    counter = Counter(device, bench.scratch, "device")
    secure_port = device.port
    with device:
        print(f"{'instructions for one request':28}  {'ours':>9}  {'floor':>9}  ratio")
        for name, make_exchange, encrypted in kinds:
            device.scheme, device.port = ("https", secure_port) if encrypted else ("http", device.plain_port)
            exchange = make_exchange(device)
            body = ask_once(device, exchange)
            ours = counter.for_one(exchange)
            reference = of_floor(bench, name, exchange, body, tls if encrypted else None)
            print(f"{name:28}  {ours:>9,.0f}  {reference:>9,.0f}  {reference / ours:>5.2f}", flush=True)
