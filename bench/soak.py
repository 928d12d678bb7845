#!/usr/bin/env python3
"""A long run: soak.py --build build/release --minutes 30 [--plot docs/soak.svg]

Good clients, of whose answers every byte is checked, beside others in a process of their own that do what clients should
not. One line a minute, then the verdict: whether the good were served well and nothing grew. Runs in namespaces of its
own, and talks to the device as another machine would."""

import argparse
import asyncio
import hashlib
import json
import os
import random
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from load import Exchange, post_json, signed
from plot import draw
from servers import ADDRESS, ANYBODY, PASSWORD, USER, Device, go_apart

COUNTER = "demo:volatile/counter"
QUEUES = 5
FILE_BYTES = 1 << 20
WARM_UP_MINUTES = 5  # What it grows in these is not judged.
P99_MILLISECONDS = 50
KIB_AN_HOUR = 100
JUDGED_MINUTES = 15  # Shorter runs have no slope worth the name.


class Fault(Exception):
    """An answer that a good client should not have had."""


class Connection:
    """Of a good client: stays open from one request to the next, as long as the device lets it."""

    def __init__(self, soak, secure=False):
        self.soak, self.secure = soak, secure
        self.writer = None

    async def open(self):
        port = self.soak.device.https_port if self.secure else self.soak.device.port
        self.reader, self.writer = await asyncio.open_connection(ADDRESS, port, ssl=ANYBODY if self.secure else None)

    def close(self):
        if self.writer:
            self.writer.transport.abort()
        self.writer = None

    async def send(self, exchange):
        if not self.writer:
            await self.open()
        fields = {"Host": f"{ADDRESS}:{self.soak.device.port}", **exchange.headers}
        if exchange.method == "POST":
            fields["Content-Length"] = len(exchange.body)
        head = "".join(f"{name}: {value}\r\n" for name, value in fields.items())
        self.writer.write(f"{exchange.method} {exchange.target} HTTP/1.1\r\n{head}\r\n".encode() + exchange.body)
        await self.writer.drain()

    async def head(self):
        lines = ["HTTP/1.1 100"]
        while lines[0].startswith("HTTP/1.1 100"):
            lines = (await self.reader.readuntil(b"\r\n\r\n")).decode("latin-1").split("\r\n")
        fields = {name.lower(): value.strip() for name, _, value in (line.partition(":") for line in lines[1:])}
        return int(lines[0].split()[1]), fields

    async def body(self, fields, most=1 << 30):
        if fields.get("transfer-encoding") != "chunked":
            return await self.reader.readexactly(int(fields.get("content-length", 0)))
        body = b""
        while len(body) < most:
            size = int(await self.reader.readline(), 16)
            body += (await self.reader.readexactly(size + 2))[:-2]
            if size == 0:
                break
        return body

    async def ask(self, exchange, status=200, seconds=20, timed=True):
        """The body; `timed` unless it waits for something. What a renewed certificate cuts over HTTPS is sent again."""
        for _ in range(50):
            try:
                return await asyncio.wait_for(self.exchanged(exchange, status, timed), seconds)
            except (OSError, asyncio.IncompleteReadError) as error:
                self.close()
                if not self.secure:
                    raise Fault(f"{exchange.target}: {error!r}") from error
                self.soak.cut += 1
                await asyncio.sleep(0.1)
            except asyncio.TimeoutError as error:
                self.close()
                raise Fault(f"{exchange.target}: no answer in {seconds} s") from error
        raise Fault(f"{exchange.target}: cut again and again")

    async def exchanged(self, exchange, status, timed):
        begun = time.monotonic()
        await self.send(exchange)
        found, fields = await self.head()
        body = await self.body(fields) if found != 304 else b""
        if found != status:
            raise Fault(f"{exchange.target}: {found} {body[:80]!r}")
        if timed:
            self.soak.milliseconds.append((time.monotonic() - begun) * 1000)
        return body


def expect(what, found, wanted):
    if found != wanted:
        raise Fault(f"{what}: {found[:80]!r} ({len(found)}) instead of {wanted[:80]!r} ({len(wanted)})")


class Soak:
    """The good clients, each an endless loop, and what they saw."""

    def __init__(self, device, www):
        self.device, self.www = device, www
        self.content = (www / "large.bin").read_bytes()
        self.milliseconds, self.faults = [], []
        self.requests = self.cut = self.told = self.again = 0
        self.stopping = False
        self.subscribed = 0
        self.counter, self.seen, self.arrived = 0, [0] * QUEUES, asyncio.Condition()

    def signed(self, exchange):
        return signed(exchange, self.device.port, USER, PASSWORD, ADDRESS)

    def write(self, path, value):
        return self.signed(post_json("/api/setData", {"path": path, "role": "value", "value": value}))

    def clients(self):
        tasks = [self.reads(False), self.reads(False), self.reads(True), self.writes(), self.rows(), self.files(False),
                 self.files(True), self.pages(), self.streams(), self.uploads(), self.counts()]
        return [asyncio.create_task(self.guarded(task)) for task in tasks + [self.follows(n) for n in range(QUEUES)]]

    async def guarded(self, client):
        try:
            await client
        except Exception as error:  # The run ends with it, and says so.
            self.faults.append(repr(error))
            print("FOUND:", self.faults[-1], flush=True)
            self.stopping = True

    async def turns(self, seconds):
        """Until the run ends, with a pause between two turns."""
        while not self.stopping:
            yield
            await asyncio.sleep(seconds * random.uniform(0.5, 1.5))

    async def reads(self, secure):
        connection = Connection(self, secure)
        async for _ in self.turns(0.02):
            exchange = Exchange("/api/getData?path=demo:values/i32&roles=title,value")
            if not secure and random.random() < 0.3:
                exchange = self.signed(exchange)
            expect("getData", await connection.ask(exchange), b'["Small number",{"type":"i32","value":7}]')
            if random.random() < 0.05:
                connection.close()

    async def writes(self):
        connection, value = Connection(self), 0
        async for _ in self.turns(0.05):
            value += 1
            wanted = b'{"type":"i64","value":%d}' % value
            expect("setData", await connection.ask(self.write("demo:values/i64", value)), wanted)
            read = await connection.ask(Exchange("/api/getData?path=demo:values/i64&roles=value"))
            expect("getData", read, b"[" + wanted + b"]")

    async def rows(self):
        connection = Connection(self)
        async for _ in self.turns(0.05):
            first = random.randrange(9900)
            target = f"/api/getRows?path=demo:lists/large&roles=title&from={first}&to={first + 99}"
            rows = json.loads(await connection.ask(Exchange(target)))["rows"]
            expect("getRows", rows, [[f"Row {number}"] for number in range(first, first + 100)])

    async def files(self, secure):
        connection = Connection(self, secure)
        async for _ in self.turns(0.05):
            first = random.randrange(FILE_BYTES)
            last = min(FILE_BYTES - 1, first + random.randrange(1 << random.randrange(20)))
            part = Exchange("/large.bin", headers={"Range": f"bytes={first}-{last}"})
            expect("range", await connection.ask(part, 206), self.content[first : last + 1])
            if random.random() < 0.1:
                expect("file", await connection.ask(Exchange("/large.bin")), self.content)
                tag = {"If-None-Match": hashlib.md5(self.content).hexdigest()}
                await connection.ask(Exchange("/large.bin", headers=tag), 304)

    async def pages(self):
        connection = Connection(self, secure=True)
        async for _ in self.turns(0.2):
            body = await connection.ask(Exchange("/status/index.fcgi"))
            if b"<h2>Playlist</h2>" not in body or b'class="error"' in body or not body.endswith(b"</html>\n"):
                raise Fault(f"page: {body[-100:]!r}")

    async def streams(self):
        first = None
        async for _ in self.turns(0.5):
            connection = Connection(self)
            await connection.send(Exchange("/api/stream/player:player/audio"))
            status, fields = await asyncio.wait_for(connection.head(), 20)
            sound = (await asyncio.wait_for(connection.body(fields, 1 << 18), 20))[: 1 << 18]
            first = first or sound
            expect("stream", sound, first)
            connection.close()

    async def uploads(self):
        connection = Connection(self)
        async for _ in self.turns(3):
            image = os.urandom(1 << 20)
            body = b'--b\r\nContent-Disposition: form-data; name="firmware"; filename="i"\r\n\r\n' + image + b"\r\n--b--\r\n"
            fields = {**self.signed(Exchange("/firmware/update")).headers, "Content-Type": "multipart/form-data; boundary=b"}
            answer = json.loads(await connection.ask(Exchange("/firmware/update", "POST", body, fields), timed=False))
            expect("upload", answer["sha256"], hashlib.sha256(image).hexdigest())

    async def counts(self):
        """The next number when all queues have told this one."""
        connection = Connection(self)
        async for _ in self.turns(0.02):
            if self.subscribed < QUEUES:
                continue
            self.counter += 1
            await connection.ask(self.write(COUNTER, self.counter))
            async with self.arrived:
                enough = self.arrived.wait_for(lambda: min(self.seen) >= self.counter or self.stopping)
                try:
                    await asyncio.wait_for(enough, 20)
                except asyncio.TimeoutError as error:
                    raise Fault(f"event {self.counter} is lost: {self.seen}") from error

    async def follows(self, number):
        """Polls a queue; now and then the client vanishes and asks again. Each number is told once, and in order."""
        make = post_json("/api/event/modifyQueue", {"subscribe": [{"path": COUNTER}]})
        queue = json.loads(await Connection(self).ask(make))
        self.subscribed += 1
        poll = Exchange(f"/api/event/pollQueue?queueId={queue}&timeout=2")
        connection = Connection(self)
        async for _ in self.turns(0.001):
            if random.random() < 0.1:
                await connection.send(poll)
                await asyncio.sleep(random.choice((0, 0.002, 0.02)))
                self.again += 1
                vanish(connection)
            for event in json.loads(await connection.ask(poll, timed=False)):
                value = event["roles"]["value"]["value"]
                if value != self.seen[number] + 1:
                    raise Fault(f"event {value} after {self.seen[number]}")
                self.told += 1
                async with self.arrived:
                    self.seen[number] = value
                    self.arrived.notify_all()


def vanish(connection):
    """Closed without having read: what has come by then is lost, and the device has to notice."""
    connection.writer.transport.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


# ---- Watching


def memory_kib(device):
    return device.memory_kib("Private_Dirty") + device.memory_kib("Private_Clean")


def descriptors(device):
    return len(os.listdir(f"/proc/{device.process.pid}/fd"))


def percentile(values, part):
    return sorted(values)[int(len(values) * part)] if values else 0.0


def slope(points):
    """Of y over x by least squares, and its standard error."""
    mean_x = sum(x for x, _ in points) / len(points)
    mean_y = sum(y for _, y in points) / len(points)
    spread = sum((x - mean_x) ** 2 for x, _ in points)
    if len(points) < 3:
        return 0.0, 0.0
    rise = sum((x - mean_x) * (y - mean_y) for x, y in points) / spread
    rest = sum((y - mean_y - rise * (x - mean_x)) ** 2 for x, y in points)
    return rise, (rest / (len(points) - 2) / spread) ** 0.5


async def watch(soak, minutes):
    """A line a minute; the least memory of a minute counts, as more is in use while clients come and go."""
    lines = []
    for minute in range(1, minutes + 1):
        kib, open_files = [], []
        soak.milliseconds.clear()
        end = time.monotonic() + 60
        while time.monotonic() < end and not soak.stopping:
            await asyncio.sleep(1)
            kib.append(memory_kib(soak.device))
            open_files.append(descriptors(soak.device))
        times = list(soak.milliseconds)
        soak.requests += len(times)
        line = {"minute": minute, "requests": len(times), "p50": percentile(times, 0.5), "p99": percentile(times, 0.99),
                "max": max(times, default=0), "kib": min(kib), "descriptors": min(open_files), "events": soak.told,
                "again": soak.again, "cut": soak.cut}
        lines.append(line)
        print("{minute:3} min  {requests:6} requests  p50 {p50:5.1f}  p99 {p99:6.1f}  max {max:7.1f} ms  {kib:6} KiB  "
              "{descriptors:4} descriptors  {events:6} events  {again} polls left  {cut} cut by renewals".format(**line), flush=True)
        if soak.stopping:
            break
    return lines


async def warm_up(device, www):
    """What is made at the first use is there when the descriptors are counted."""
    soak = Soak(device, www)
    clients = soak.clients()
    await asyncio.sleep(5)
    await stop(soak, clients)
    if soak.faults:
        sys.exit(1)


async def stop(soak, clients):
    soak.stopping = True
    async with soak.arrived:
        soak.arrived.notify_all()
    await asyncio.gather(*clients)


async def run(device, www, minutes):
    soak = Soak(device, www)
    clients = soak.clients()
    command = [sys.executable, "-B", Path(__file__).with_name("abuse.py"), *map(str, (device.process.pid, device.port, device.https_port))]
    bad = subprocess.Popen(command)
    try:
        lines = await watch(soak, minutes)
    finally:
        bad.kill()
        bad.wait()
    await stop(soak, clients)
    return soak, lines


def verdict(soak, lines, before, after):
    """Each sentence with whether it holds."""
    warm = [line for line in lines if line["minute"] > WARM_UP_MINUTES] or lines
    growth, error = slope([(line["minute"] / 60, line["kib"]) for line in warm])
    p99 = max(line["p99"] for line in warm)
    checks = [
        (not soak.faults, f"{soak.requests} answers checked, {len(soak.faults)} faults"),
        (p99 < P99_MILLISECONDS, f"p99 of the worst minute {p99:.1f} ms (less than {P99_MILLISECONDS})"),
        (soak.told > 0 and min(soak.seen) >= soak.counter - 1, f"{soak.told} events, each told once; {soak.again} polls left"),
        (after <= before, f"descriptors {before} before, {after} after"),
    ]
    # What comes and goes with the clients is more than the bound: it has to be exceeded beyond doubt.
    judged = len(lines) >= JUDGED_MINUTES
    checks.append((not judged or growth - 2 * error < KIB_AN_HOUR, f"private memory grows by {growth:.0f} ± {2 * error:.0f} KiB "
                   + f"an hour (less than {KIB_AN_HOUR}" + ("" if judged else f"; not judged in less than {JUDGED_MINUTES} minutes") + ")"))
    for holds, text in checks:
        print("holds " if holds else "FAILS ", text)
    return all(holds for holds, _ in checks)


def settled(device, wanted=0):
    """The descriptors that stay when nobody is there."""
    least, deadline = descriptors(device), time.monotonic() + (70 if wanted else 5)
    while time.monotonic() < deadline and least != wanted:
        time.sleep(0.5)
        least = min(least, descriptors(device))
    return least


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", type=Path, required=True)
    parser.add_argument("--minutes", type=int, default=30)
    parser.add_argument("--plot", type=Path)
    options = parser.parse_args()
    scratch = Path(tempfile.mkdtemp(dir=options.build.resolve()))  # Not /tmp: that is memory here.
    try:
        www = scratch / "www"
        subprocess.run(["cp", "-r", Path(__file__).parent.parent / "share/demo/www", www], check=True)
        (www / "large.bin").write_bytes(os.urandom(FILE_BYTES))
        settings = {"settings:webserver/documentRoot": www, "settings:webserver/enableExternalWebAccess": "true"}
        with Device(options.build, scratch / "state", settings) as device:
            device.wait_for_https()
            asyncio.run(warm_up(device, www))
            before = settled(device)
            soak, lines = asyncio.run(run(device, www, options.minutes))
            good = verdict(soak, lines, before, settled(device, before))
    finally:
        subprocess.run(["rm", "-r", scratch])
    if options.plot:
        options.plot.write_text(draw(lines))
    sys.exit(not good)


if __name__ == "__main__":
    go_apart()
    main()
