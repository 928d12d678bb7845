"""The benchmarks: the device against the bare libraries, side by side in one run.

    bench.py --build build/release --output build/bench.json [ROW...]
    bench.py --build build/release --output build/bench.json --instructions [KIND...]

A row is one function below, entered in ROWS. Where it compares processor time, the ratio is the floor's time for one
request divided by the device's: 1 means that the device costs what the library alone costs. Prints a table and writes
a list of {"name", "ours", "reference", "unit", "ratio", "target", "holds"}. Fails when a row could not be measured;
a missed target shows as "holds": false.
"""

import argparse
import contextlib
import json
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Optional

from instructions import print_instructions
from load import COUNTER, BenchError, Exchange, ask_once, post_json, run_alternately, run_load, signed, total
from polls import WaitingPolls, events_in, requests_in
from servers import PASSWORD, USER, Device, Floor, IdleFloor, SecureDevice, fresh_device, make_certificate
from static_files import file_row
from transfers import stream_cost, upload_rate

POLLS = 1000

GET_VALUE = "/api/getData?path=player:player/volume&roles=title,value"
FILE_64K = "64k.bin"
FILE_BYTES = 64 * 1024
GET_ROWS = "/api/getRows?path=demo:lists/large&roles=title,value&from=0&to=99"


@dataclass
class Bench:
    """What the rows share: the build tree, a scratch directory on the build's file system, how long one load lasts, and
    a running device."""

    build: Path
    scratch: Path
    seconds: int
    device: Optional[Device] = None


@dataclass
class Row:
    """One line of the table. Without a target, `target` is empty and `holds` None: the row only reports."""

    name: str
    ours: float
    reference: float
    unit: str
    ratio: float
    target: str
    holds: Optional[bool]
    note: str = ""


def at_least(name, ours, reference, unit, ratio, target, note=""):
    if target is None:
        return Row(name, ours, reference, unit, ratio, "", None, note)
    return Row(name, ours, reference, unit, ratio, f">= {target:.2f}", ratio >= target, note)


def at_most(name, ours, reference, unit, ratio, target, note=""):
    return Row(name, ours, reference, unit, ratio, f"<= {target:.2f}", ratio <= target, note)


def against_floor(bench, name, exchange, target):
    """Processor time for one request, the device's and that of a floor which answers the same bytes."""
    body = ask_once(bench.device, exchange)
    query = exchange.target.partition("?")[2]
    with Floor(bench.build, bench.scratch, body) as floor:
        reference = (floor, exchange.at("/value" + (query and "?" + query)))
        return side_by_side(bench, name, (bench.device, exchange), reference, target)


def side_by_side(bench, name, device, floor, target, size=None):
    """The same for two (server, exchange) that answer alike; `size` is checked where it is given."""
    for server, exchange in (device, floor):
        if size is not None and len(ask_once(server, exchange)) != size:
            raise BenchError(f"{exchange.target}: not {size} bytes")
    ours, reference = run_alternately([device, floor], bench.seconds)
    ratio = reference.cpu_microseconds / ours.cpu_microseconds
    note = f"{ours.rate:,.0f} against {reference.rate:,.0f} requests/s"
    return at_least(name, ours.cpu_microseconds, reference.cpu_microseconds, "us CPU/request", ratio, target, note)


def write_exchange(path):
    """Another value each time: a device may leave out writes that change nothing."""
    return post_json("/api/setData", {"path": path, "role": "value", "value": {"type": "i32", "value": COUNTER}})


def latencies(bench):
    """Several short runs of the device and of the floor in turn. What else the machine does only adds to a latency, and
    not to every run: the middle of the runs speaks for the server."""
    exchange = Exchange(GET_VALUE)
    with Floor(bench.build, bench.scratch, ask_once(bench.device, exchange)) as floor:
        return run_alternately([(bench.device, exchange), (floor, exchange.at("/value"))], 1, rounds=5)


# ---- The rows


def get_data_unsigned(bench, name):
    return against_floor(bench, name, Exchange(GET_VALUE), 0.75)


def get_data_signed(bench, name):
    return against_floor(bench, name, signed(Exchange(GET_VALUE), bench.device.port, USER, PASSWORD), 0.65)


def set_data_volatile(bench, name):
    return against_floor(bench, name, write_exchange("demo:volatile/counter"), 0.60)


def set_data_persistent(bench, name):
    """Durable writes in a second; the reference is SQLite alone on the same disk, one write a transaction."""
    exchange = write_exchange("demo:values/i32")
    ask_once(bench.device, exchange)
    loads, commits = [], []
    for _ in range(2):
        loads.append(run_load(bench.device, exchange, bench.seconds))
        commits.append(sqlite_commits(bench))
    ours, reference = total(loads).rate, statistics.mean(commits)
    return at_least(name, ours, reference, "writes/s", ours / reference, 0.5)


def sqlite_commits(bench):
    command = [bench.build / "bin/sqlite_floor", bench.scratch / "floor.db", str(bench.seconds)]
    result = subprocess.run(command, capture_output=True, text=True)
    if result.returncode != 0:
        raise BenchError(result.stderr.strip())
    return float(result.stdout)


def get_rows(bench, name):
    return against_floor(bench, name, Exchange(GET_ROWS), None)


def https_get_data(bench, name):
    with secure(bench) as (device, tls):
        exchange = Exchange(GET_VALUE)
        body = ask_once(device, exchange)
        with Floor(bench.build, bench.scratch, body, tls=tls) as floor:
            return side_by_side(bench, name, (device, exchange), (floor, exchange.at("/value")), None)


def https_file(bench, name):
    with secure(bench) as (device, tls), Floor(bench.build, bench.scratch, tls=tls) as floor:
        return side_by_side(
            bench, name, (device, Exchange("/" + FILE_64K)), (floor, Exchange("/file/" + FILE_64K)), None, FILE_BYTES
        )


def https_handshakes(bench, name):
    """New TLS 1.3 connections in a second, one request on each, from one client after another."""
    with secure(bench) as (device, tls), Floor(bench.build, bench.scratch, b"{}", tls=tls) as floor:
        ours, reference = [], []
        for _ in range(2):
            ours.append(handshakes(device, GET_VALUE, bench.seconds))
            reference.append(handshakes(floor, "/value", bench.seconds))
    ours, reference = statistics.mean(ours), statistics.mean(reference)
    return at_least(name, ours, reference, "handshakes/s", ours / reference, None)


def handshakes(server, target, seconds):
    """openssl s_time, which asks for one page on each of its connections."""
    command = ["openssl", "s_time", "-connect", f"127.0.0.1:{server.port}", "-new", "-time", str(seconds)]
    result = subprocess.run([*command, "-www", target], capture_output=True, text=True, timeout=seconds + 30)
    # The last of its lines counts by the clock: "97 connections in 4 real seconds, 59 bytes read per connection".
    words = re.findall(r"(\d+) connections in (\d+) real seconds", result.stdout)
    if not words:
        raise BenchError(f"openssl s_time: {result.stderr.strip() or result.stdout.strip()}")
    return int(words[-1][0]) / int(words[-1][1])


@contextlib.contextmanager
def secure(bench):
    """A device that serves HTTPS, and the certificate that a floor beside it uses too."""
    tls = make_certificate(bench.scratch / "tls.pem")
    (bench.scratch / FILE_64K).write_bytes(bytes(FILE_BYTES))
    root = {"settings:webserver/documentRoot": bench.scratch}
    with SecureDevice(bench.build, bench.scratch / "secure", tls, root) as device:
        yield device, tls


@contextlib.contextmanager
def idle_connections(server, exchange, count):
    """Connections that browsers keep: each had one answer, a moment ago."""
    with contextlib.ExitStack() as stack:
        for _ in range(count):
            connection = server.connect()
            stack.callback(connection.close)
            connection.request(exchange.method, exchange.target)
            connection.getresponse().read()
        time.sleep(0.6)
        yield


def costs_beside_idle(server, exchange, count, rounds):
    """Processor time for one request of one busy client, alone and beside so many idle connections."""
    alone, beside = [], []
    for _ in range(rounds):
        alone.append(run_load(server, exchange, 1, 1))
        with idle_connections(server, exchange, count):
            beside.append(run_load(server, exchange, 1, 1))
    return total(alone).cpu_microseconds, total(beside).cpu_microseconds


def beside_idle(bench, name, count, encrypted=False):
    """Against the device without them, and against the floor beside as many."""
    exchange = Exchange(GET_VALUE)
    with contextlib.ExitStack() as stack:
        device, tls = stack.enter_context(secure(bench)) if encrypted else (bench.device, None)
        floor = stack.enter_context(Floor(bench.build, bench.scratch, ask_once(device, exchange), tls=tls))
        alone, ours = costs_beside_idle(device, exchange, count, 2)
        floor_alone, reference = costs_beside_idle(floor, exchange.at("/value"), count, 1)
    unit, note = "us CPU/request", f"the floor without them: {floor_alone:.1f} us"
    return [
        at_most(f"{name}, without", ours, alone, unit, ours / alone, 1.2),
        at_least(f"{name}, floor", ours, reference, unit, reference / ours, 3.0, note),
    ]


def static_file(size, target, **options):
    row = file_row(size, target, **options)
    return lambda bench, name: row(bench, name, bench.seconds, at_least)


def latency_p99(bench, name):
    ours, floor = latencies(bench)
    note = f"the floor: {floor.p99 / floor.p50:.2f}"
    return at_most(name, ours.p99, ours.p50, "ms", ours.p99 / ours.p50, 3.0, note)


def latency_max(bench, name):
    """A packet lost to a full accept queue is sent again after 200 ms: no answer may show that step."""
    ours, floor = latencies(bench)
    return at_most(name, ours.max, 200.0, "ms", ours.max / 200.0, 1.0, f"the floor: {floor.max:.1f} ms")


MIXED = [
    Exchange(GET_VALUE),
    Exchange(GET_ROWS),
    write_exchange("demo:volatile/counter"),
    write_exchange("demo:values/i32"),
    Exchange("/" + FILE_64K),
]


@contextlib.contextmanager
def used_device(bench):
    """A device after 1,000 mixed requests, one of them over HTTPS, and with one event queue. What it serves is on the
    disk: pages that are not would count as its own dirty ones."""
    with (bench.scratch / FILE_64K).open("wb") as file:
        file.write(bytes(FILE_BYTES))
        file.flush()
        os.fsync(file.fileno())
    root = {"settings:webserver/documentRoot": bench.scratch}
    with Device(bench.build, bench.scratch / "used", root) as device:
        device.wait_for_https()
        with WaitingPolls(device, 1) as polls:
            polls.round_trip()
            for number in range(1000):
                ask_once(device, MIXED[number % len(MIXED)])
            yield device


def memory_share(bench, name):
    """One after the other: side by side, each would bear half of the libraries that they share."""
    with IdleFloor(bench.build) as idle:
        reference = idle.memory_kib("Pss")
    with used_device(bench) as device:
        ours = device.memory_kib("Pss")
    return at_most(name, ours, reference, "KiB", ours / reference, 1.3)


def memory_dirty(bench, name):
    with used_device(bench) as device:
        ours = device.memory_kib("Private_Dirty")
    return at_most(name, ours, 3584.0, "KiB", ours / 3584.0, 1.0)


def start_to_first_answer(bench, name):
    """On a state that an earlier start has set up, as a device starts on every day but its first."""
    with fresh_device(bench) as device:
        first = device.start_seconds * 1000
    times = []
    for _ in range(5):
        with fresh_device(bench) as device:
            times.append(device.start_seconds * 1000)
    ours = statistics.median(times)
    return at_most(name, ours, 150.0, "ms", ours / 150.0, 1.0, f"the first start, on no state: {first:.0f} ms")


def polls_latency(bench, name):
    """From one write to the answers of all polls that wait for it; the middle of several rounds."""
    with fresh_device(bench) as device, WaitingPolls(device, POLLS) as polls:
        rounds = [polls.round_trip() for _ in range(7)]
    p50, p99 = (statistics.median(times[len(times) * part // 100] for times in rounds) for part in (50, 99))
    return at_most(name, p99, 50.0, "ms", p99 / 50.0, 1.0, f"p50: {p50:.1f} ms")


def polls_memory(bench, name):
    """Queue and connection included; what the device keeps after its first clients is not. After the hundredth answer of
    each: what a poll leaves behind shows by then."""
    count, answers = 400, 100
    with fresh_device(bench) as device, WaitingPolls(device, 20) as polls:
        polls.round_trip()
        before = device.memory_kib("Private_Dirty")
        with WaitingPolls(device, count) as more:
            more.value = polls.value
            first = device.memory_kib("Private_Dirty") - before
            for _ in range(answers):
                more.round_trip()
            time.sleep(0.5)  # They wait.
            ours = (device.memory_kib("Private_Dirty") - before) / count
    return at_most(name, ours, 24.0, "KiB", ours / 24.0, 1.0, f"before their first answer: {first / count:.1f} KiB")


def polls_idle(bench, name):
    seconds = 10
    with fresh_device(bench) as device, WaitingPolls(device, POLLS):
        time.sleep(1)
        before = device.cpu_seconds()
        time.sleep(seconds)
        with_polls = (device.cpu_seconds() - before) / seconds * 100
    return at_most(name, with_polls, 1.0, "% of a core", with_polls, 1.0)


def events_cost(bench, name):
    """Write, answer, poll again: one event a time, as nothing coalesces. These are two requests; the reference is what the
    bare library needs for two."""
    ours, reference, rates = [], [], []
    with fresh_device(bench) as device, Floor(bench.build, bench.scratch, b"[" + 100 * b" " + b"]") as floor:
        for _ in range(2):
            before = device.cpu_seconds()
            count = events_in(device, bench.seconds)
            ours.append((device.cpu_seconds() - before) / count * 1e6)
            rates.append(count / bench.seconds)
            before = floor.cpu_seconds()
            count = requests_in(floor, "/value", bench.seconds)
            reference.append((floor.cpu_seconds() - before) / count * 2e6)
    ours, reference = statistics.mean(ours), statistics.mean(reference)
    note = f"{statistics.mean(rates):,.0f} events/s"
    return at_most(name, ours, reference, "us CPU/event", ours / reference, 3.0, note)


def subscriptions_one_by_one(bench, name):
    """One client that subscribes 300 paths, one after another: the last hundred against the first."""
    costs = [0.0, 0.0, 0.0]
    queues = 10
    with fresh_device(bench) as device, contextlib.closing(device.connect()) as connection:

        def modify(**parameters):
            exchange = post_json("/api/event/modifyQueue", parameters)
            connection.request(exchange.method, exchange.target, exchange.body, exchange.headers)
            return json.loads(connection.getresponse().read())

        for _ in range(queues):
            queue = modify(subscribe=[])
            for number in range(300):
                if number % 100 == 0:
                    before = device.cpu_seconds()
                modify(queueId=queue, subscribe=[{"path": f"demo:values/absent{number}"}])
                if number % 100 == 99:
                    costs[number // 100] += device.cpu_seconds() - before
    reference, _, ours = (cost / queues / 100 * 1e6 for cost in costs)
    return at_most(name, ours, reference, "us CPU/request", ours / reference, 1.2)


ROWS = [
    ("start to first answer", start_to_first_answer),
    ("memory in use, Pss", memory_share),
    ("memory in use, private dirty", memory_dirty),
    ("getData unsigned", get_data_unsigned),
    ("getData signed", get_data_signed),
    ("setData volatile", set_data_volatile),
    ("setData persistent", set_data_persistent),
    ("getRows 100 rows", get_rows),
    ("HTTPS getData unsigned", https_get_data),
    ("HTTPS file 64 KiB", https_file),
    ("HTTPS handshakes", https_handshakes),
    ("getData beside 1,000 idle", lambda bench, name: beside_idle(bench, name, 1000)),
    ("HTTPS getData beside 300 idle", lambda bench, name: beside_idle(bench, name, 300, encrypted=True)),
    ("static 1 KiB", static_file(1024, 0.85)),
    ("static 1 KiB HEAD", static_file(1024, 0.85, method="HEAD")),
    ("static 64 KiB", static_file(64 * 1024, 0.95)),
    ("static 10 MiB", static_file(10 * 1024 * 1024, 1.90, connections=8)),
    ("stream", lambda bench, name: stream_cost(bench, name, at_most)),
    ("upload 256 MiB", lambda bench, name: upload_rate(bench, name, at_least)),
    ("latency p99 / median", latency_p99),
    ("latency max / 200 ms step", latency_max),
    ("1,000 polls, one change, p99", polls_latency),
    ("memory a waiting poll", polls_memory),
    ("1,000 waiting polls, idle", polls_idle),
    ("events through one queue", events_cost),
    ("the 300th subscription", subscriptions_one_by_one),
]

# What `quick` measures, for one second a load: whether a change costs where it matters.
QUICK = [
    "getData unsigned",
    "getData signed",
    "setData volatile",
    "static 64 KiB",
    "getData beside 1,000 idle",
    "1,000 polls, one change, p99",
    "events through one queue",
]


# The kinds of request of which --instructions counts the instructions: name, request to a device, whether over HTTPS.
KINDS = [
    ("getData unsigned", lambda device: Exchange(GET_VALUE), False),
    ("getData signed", lambda device: signed(Exchange(GET_VALUE), device.port, USER, PASSWORD), False),
    ("setData volatile", lambda device: write_exchange("demo:volatile/counter"), False),
    ("getRows 100 rows", lambda device: Exchange(GET_ROWS), False),
    ("static 64 KiB", lambda device: Exchange("/" + FILE_64K), False),
    ("HTTPS getData unsigned", lambda device: Exchange(GET_VALUE), True),
]


# ---- The run


def measure(bench, chosen):
    """The rows, and the names of those that could not be measured."""
    rows, failed = [], []
    for name, function in chosen:
        print(f"measuring {name}", file=sys.stderr, flush=True)
        try:
            result = function(bench, name)
            rows += result if isinstance(result, list) else [result]
        except (BenchError, OSError, subprocess.TimeoutExpired) as error:
            print(f"bench: {name}: {error}", file=sys.stderr)
            failed.append(name)
    return rows, failed


def count_instructions(bench, kinds):
    (bench.scratch / FILE_64K).write_bytes(bytes(FILE_BYTES))
    print_instructions(bench, kinds, make_certificate(bench.scratch / "tls.pem"))
    return 0


def print_table(rows):
    width = max((len(row.name) for row in rows), default=0)
    print(f"{'':{width}}  {'ours':>11}  {'reference':>11}  {'unit':<15}  {'ratio':>5}  {'target':<8}")
    for row in rows:
        verdict = {True: "holds", False: "MISSED", None: ""}[row.holds]
        print(
            f"{row.name:{width}}  {row.ours:>11,.1f}  {row.reference:>11,.1f}  {row.unit:<15}  {row.ratio:>5.2f}"
            f"  {row.target:<8}{verdict:<7} {row.note}".rstrip()
        )


def write_json(rows, path):
    fields = ("name", "ours", "reference", "unit", "ratio", "target", "holds")
    entries = [{field: getattr(row, field) for field in fields} for row in rows]
    path.write_text(json.dumps(entries, indent=2) + "\n")


def parse_arguments():
    parser = argparse.ArgumentParser(description="Benchmarks of the device against the bare libraries.")
    parser.add_argument("--build", type=Path, required=True, help="a release build tree")
    parser.add_argument("--output", type=Path, required=True, help="the JSON file to write")
    parser.add_argument("--instructions", action="store_true", help="count the instructions of each kind of request")
    parser.add_argument("rows", nargs="*", metavar="ROW", help="rows whose name contains this text, all by default; or quick")
    arguments = parser.parse_args()
    known = KINDS if arguments.instructions else ROWS
    arguments.quick = arguments.rows == ["quick"]
    wanted = [text.lower() for text in (QUICK if arguments.quick else arguments.rows)]
    arguments.chosen = [
        row
        for row in known
        if not wanted or (row[0].lower() in wanted if arguments.quick else any(text in row[0].lower() for text in wanted))
    ]
    if not arguments.chosen:
        parser.error("no such row; there are: " + ", ".join(name for name, *_ in known))
    return arguments


def main():
    arguments = parse_arguments()
    # Beside the build and not in /tmp, which may be memory: durable writes have to reach a disk.
    with tempfile.TemporaryDirectory(prefix="bench-", dir=arguments.output.parent) as directory:
        scratch = Path(directory)
        bench = Bench(arguments.build, scratch, 1 if arguments.quick else 2)
        try:
            if arguments.instructions:
                return count_instructions(bench, arguments.chosen)
            with Device(arguments.build, scratch / "state") as bench.device:
                rows, failed = measure(bench, arguments.chosen)
        except (BenchError, OSError, subprocess.TimeoutExpired) as error:
            sys.exit(f"bench: {error}")
    print_table(rows)
    write_json(rows, arguments.output)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
