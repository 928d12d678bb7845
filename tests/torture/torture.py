#!/usr/bin/env python3
"""What the device does when the system fails it: torture.py BUILD SECONDS [SCENARIO[/KIND]]

For each kind of system call, the first, the second, ... call of each scenario fails, until the scenario makes no more of
them. After each: the host is alive, no answer was wrong, the next request is fine; after each kind: no descriptor is lost,
and after a SIGKILL and a start all that was acknowledged is there. Then a disk that is full or read-only, 40 descriptors,
little address space, a clock that jumps, an interface that comes and goes, an openssl that hangs. Runs in namespaces of
its own. Fails when anything was found."""

import base64
import contextlib
import errno
import hashlib
import http.client
import http.server
import json
import mmap
import os
import shutil
import signal
import struct
import subprocess
import sys
import threading
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent.parent
sys.path.insert(0, str(ROOT / "bench"))

from load import Exchange, post_json, signed  # noqa: E402
from servers import ANYBODY, PASSWORD, USER, BenchError, Device, go_apart  # noqa: E402

WORK, STATE, WWW = Path("/tmp/torture"), Path("/tmp/torture/disk/state"), Path("/tmp/torture/www")
ALWAYS = 1 << 40
PROXIED = b"from elsewhere " * 1000


class Wrong(Exception):
    """A finding."""


class Refused(Exception):
    """An honest failure: the device said so, or cut the connection."""


# ---- The plan that faults.cpp reads

KINDS = ["", "open", "read", "write", "sync", "accept", "poll", "epoll", "tls", "map", "socket", "thread", "rename", "memory"]
SHORT, NOT_COUNTED = 0, -1
# Name, kind, error, the same for sockets, and of memory the least size.
FAULTS = [
    ("open", "open", errno.EMFILE, 0, 0),
    ("read", "read", errno.EIO, errno.ECONNRESET, 0),
    ("read again", "read", NOT_COUNTED, errno.EAGAIN, 0),
    ("read interrupted", "read", errno.EINTR, errno.EINTR, 0),
    ("read short", "read", SHORT, SHORT, 0),
    ("write", "write", errno.ENOSPC, errno.EPIPE, 0),
    ("write again", "write", NOT_COUNTED, errno.EAGAIN, 0),
    ("write short", "write", SHORT, SHORT, 0),
    ("sync", "sync", errno.EIO, 0, 0),
    ("rename", "rename", errno.EIO, 0, 0),
    ("accept", "accept", errno.EMFILE, 0, 0),
    ("accept aborted", "accept", errno.ECONNABORTED, 0, 0),
    ("poll", "poll", errno.EINTR, 0, 0),
    ("epoll", "epoll", errno.ENOMEM, 0, 0),
    ("tls", "tls", -110, 0, 0),  # The connection ended unexpectedly.
    ("tls again", "tls", -28, 0, 0),
    ("map", "map", errno.ENOMEM, 0, 0),
    ("socket", "socket", errno.EMFILE, 0, 0),
    ("thread", "thread", errno.EAGAIN, 0, 0),
    ("memory 32k", "memory", errno.ENOMEM, 0, 32768),
    ("memory", "memory", errno.ENOMEM, 0, 0),
]


class Plan:
    """Shared with the device."""

    FIELDS = ["process", "kind", "first", "last", "error", "socketError", "least", "calls", "failed", "clockSeconds"]

    def __init__(self, path):
        path.write_bytes(bytes(8 * len(self.FIELDS)))
        self.path = path
        with path.open("r+b") as file:
            self.shared = mmap.mmap(file.fileno(), 0)

    def __getitem__(self, field):
        return struct.unpack_from("q", self.shared, 8 * self.FIELDS.index(field))[0]

    def __setitem__(self, field, value):
        struct.pack_into("q", self.shared, 8 * self.FIELDS.index(field), value)

    @contextlib.contextmanager
    def armed(self, fault, first, last):
        _, kind, error, socket_error, least = fault
        values = dict(first=first, last=last, error=error, socketError=socket_error, least=least, calls=0, failed=0)
        for field, value in values.items():
            self[field] = value
        self["kind"] = KINDS.index(kind)
        try:
            yield
        finally:
            self["kind"] = 0


# ---- The device


class Victim(Device):
    """Started again with the same state as often as needed; remembers what it acknowledged."""

    def __init__(self, build, plan):
        settings = {"settings:webserver/documentRoot": WWW, "settings:webserver/limits/queuesPerClient": 1000}
        super().__init__(build, STATE, settings)
        preload = [build / "lib/libtorture.so"]
        if b"libasan" in (linked := subprocess.run(["ldd", build / "bin/zark-host"], capture_output=True).stdout):
            preload.insert(0, next(line.split()[2].decode() for line in linked.splitlines() if b"libasan" in line))
        environment = {**os.environ, "LD_PRELOAD": " ".join(map(str, preload)), "TORTURE_PLAN": str(plan.path)}
        self.options["env"] = {**environment, "PATH": f"{WORK}/bin:{os.environ['PATH']}"}
        self.log = WORK / "device.log"
        self.plan = plan
        self.client_patience = 4  # Seconds.
        self.patience = 45  # A certificate that could not be made is tried again after a minute.
        self.acknowledged = {"value": [None], "image": [None]}  # The last one, and what was tried since.

    def __enter__(self):
        self.plan["process"] = 0  # The next to load the library.
        return super().__enter__()

    def start(self):
        self.__enter__()
        if not (WORK / "hang").exists():
            try:
                self.wait_for_https()
            except BenchError as error:
                raise Wrong(f"{error}; {self.log.read_text(errors='replace')[-1000:]}") from error

    def restart(self):
        """Kills it; what was acknowledged must be there afterwards."""
        self.plan["kind"] = 0
        self.process.kill()
        self.process.wait(20)
        self.start()
        self.verify()

    def recover(self):
        """After a finding, which would only be found again: with nothing remembered."""
        self.acknowledged = {"value": [None], "image": [None]}
        self.restart()

    def verify(self):
        for name, path in (("value", "demo:values/i64"), ("image", "system:update/sha256")):
            stored = json.loads(ask(self, Exchange(f"/api/getData?path={path}&roles=value")))[0]["value"]
            if self.acknowledged[name][0] is not None and stored not in self.acknowledged[name]:
                raise Wrong(f"acknowledged {name} lost: {stored}, not one of {self.acknowledged[name]}")
            self.acknowledged[name] = [stored]

    def tried(self, name, value, do):
        self.acknowledged[name].append(value)
        do()
        self.acknowledged[name] = [value]

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.process.pid}/fd"))

    def was_given_up(self):
        """It ended by abort(), or by a null pointer in a library that is not ours."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.process.wait(2)
        if self.process.poll() != -signal.SIGSEGV:
            return self.process.poll() in (-signal.SIGABRT, -signal.SIGTRAP)
        trace = self.log.read_text(errors="replace").rpartition("\nready\n")[2].splitlines()
        where = [line for line in trace if line.startswith("/") and "libtorture" not in line and "libc.so" not in line]
        self.log.write_text("")
        print("  a library crashed without memory:", where[0] if where else trace)
        return bool(where) and "zark" not in where[0]

    def settle(self, most):
        """Until it has no more than so many descriptors open; mapped files are kept for a second or two."""
        deadline = time.monotonic() + 6
        while self.descriptors() > most:
            if time.monotonic() > deadline:
                names = sorted(os.readlink(f"/proc/{self.process.pid}/fd/{fd}") for fd in os.listdir(f"/proc/{self.process.pid}/fd"))
                raise Wrong(f"{self.descriptors() - most} descriptors lost of {names}")
            time.sleep(0.02)

    def check(self, secure=False):
        """The next request is fine."""
        if self.process.poll() is not None:
            raise Wrong(f"the host is dead: {ending(self.process.returncode)}")
        try:
            if ask(self, Exchange("/api/getData?path=demo:values/i32&roles=title"), secure, 8) != b'["Small number"]':
                raise Wrong("the next answer is wrong")
        except Refused as refusal:
            raise Wrong(f"the next request fails: {refusal}") from refusal


def ending(status):
    """Of a process, in words."""
    if status is None:
        return "silent"
    return signal.Signals(-status).name if status < 0 else f"status {status}"


@contextlib.contextmanager
def connection_to(device, secure=False, patience=None):
    kind, port = (http.client.HTTPSConnection, device.https_port) if secure else (http.client.HTTPConnection, device.port)
    options = {"timeout": patience or device.client_patience, **({"context": ANYBODY} if secure else {})}
    with contextlib.closing(kind("127.0.0.1", port, **options)) as made:
        try:
            yield made
        except TimeoutError as error:
            raise Refused("silent") from error
        except (OSError, http.client.HTTPException) as error:
            raise Refused(repr(error)) from error


def ask(device, exchange, secure=False, patience=None):
    """The body of a whole answer that is a 200."""
    with connection_to(device, secure, patience) as connection:
        connection.request(exchange.method, exchange.target, exchange.body or None, exchange.headers)
        response = connection.getresponse()
        body = response.read()
    if response.status != 200:
        raise Refused(f"{response.status} {body[:100]!r}")
    return body


def expect(what, found, wanted):
    if found != wanted:
        raise Wrong(f"{what}: {found[:100]!r} ({len(found)} bytes)")


# ---- The scenarios. Each returns when all went well, or raises Refused.


def get_data(device, secure=False):
    expect("getData", ask(device, Exchange("/api/getData?path=demo:values/i32&roles=title,value"), secure),
           b'["Small number",{"type":"i32","value":7}]')


def set_value(device, path, value):
    exchange = post_json("/api/setData", {"path": path, "role": "value", "value": value})
    ask(device, signed(exchange, device.port, USER, PASSWORD))


def set_data(device):
    value = time.monotonic_ns()
    device.tried("value", value, lambda: set_value(device, "demo:values/i64", value))


def get_rows(device):
    rows = json.loads(ask(device, Exchange("/api/getRows?path=demo:lists/large&roles=title&from=100&to=899")))["rows"]
    expect("getRows", rows, [[f"Row {number}"] for number in range(100, 900)])


def events(device):
    """An event is told again until it has arrived."""
    queue = json.loads(ask(device, post_json("/api/event/modifyQueue", {"subscribe": [{"path": "demo:volatile/counter"}]})))
    poll = Exchange(f"/api/event/pollQueue?queueId={queue}&timeout=2")
    value = time.monotonic_ns() % 2**31
    with connection_to(device) as waiting:
        waiting.request("GET", poll.target)
        set_value(device, "demo:volatile/counter", value)
        with contextlib.suppress(Refused), connection_to(device):
            told = waiting.getresponse()
            if told.status == 200 and f'"value":{value}}}'.encode() in told.read():
                return
    device.plan["kind"] = 0
    if f'"value":{value}}}'.encode() not in ask(device, poll):
        raise Wrong("an event is lost")


def file(name, secure=False):
    def scenario(device):
        path = WWW / name
        os.utime(path)  # It has to be read anew.
        expect(name, ask(device, Exchange("/" + name), secure), path.read_bytes())

    return scenario


def stream(device):
    with connection_to(device) as connection:
        connection.request("GET", "/api/stream/player:player/audio")
        response = connection.getresponse()
        sound = response.read(65536)
    if response.status != 200 or len(sound) < 65536:
        raise Refused(f"{response.status}, {len(sound)} bytes")
    stream.first = getattr(stream, "first", sound)
    expect("stream", sound, stream.first)


def upload(device):
    image = os.urandom(300000)
    digest = hashlib.sha256(image).hexdigest()
    body = (b'--b\r\nContent-Disposition: form-data; name="firmware"; filename="i"\r\n\r\n' + image
            + b'\r\n--b\r\nContent-Disposition: form-data; name="sha256"\r\n\r\n' + digest.encode() + b"\r\n--b--\r\n")
    exchange = Exchange("/firmware/update", "POST", body, {"Content-Type": "multipart/form-data; boundary=b"})
    device.tried("image", digest, lambda: ask(device, exchange))


def page(device):
    body = ask(device, Exchange("/status/index.fcgi"), secure=True)
    if b'class="error"' in body:
        raise Refused("told in the page")
    if b"<h2>Playlist</h2>" not in body or not body.rstrip().endswith(b"</html>"):
        raise Wrong(f"page: {body[-100:]!r}")


def proxy(device):
    url = f"http://127.0.0.1:{proxy.server.server_port}/"
    expect("proxy", ask(device, Exchange("/proxy/" + base64.b64encode(url.encode()).decode())), PROXIED)


class Elsewhere(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        self.send_response(200)
        self.end_headers()
        self.wfile.write(PROXIED)

    def log_message(self, *_):
        pass


SCENARIOS = {
    "getData": get_data,
    "setData": set_data,
    "getRows": get_rows,
    "events": events,
    "small file": file("small.bin"),
    "large file": file("large.bin"),
    "HTTPS getData": lambda device: get_data(device, secure=True),
    "HTTPS file": file("large.bin", secure=True),
    "stream": stream,
    "upload": upload,
    "page": page,
    "proxy": proxy,
}
SECURE = {"HTTPS getData", "HTTPS file", "page"}
DURABLE = {"setData", "upload"}


class Series:
    """One kind of fault through one scenario, for every n."""

    def __init__(self, device, name, fault):
        self.device, self.name, self.fault = device, name, fault
        self.failed = self.fine = self.silent = self.aborts = 0

    def once(self, first, last):
        """Whether the scenario came to the n-th call."""
        with self.device.plan.armed(self.fault, first, last):
            try:
                SCENARIOS[self.name](self.device)
                outcome = "fine"
            except Refused as refusal:
                outcome = str(refusal)
        if not self.device.plan["failed"]:
            if outcome != "fine":
                raise Wrong(f"nothing failed any more, and yet: {outcome}")
            return False
        self.failed += 1
        self.fine += outcome == "fine"
        self.silent += outcome == "silent"
        try:
            self.device.check(self.name in SECURE)
        except Wrong:
            # Libraries give up when there is no memory: nothing acknowledged may be lost by that.
            if self.fault[1] != "memory" or not self.device.was_given_up():
                raise
            self.aborts += 1
            self.device.restart()
        return True

    def run(self, deadline):
        if self.fault[1] == "thread":
            self.device.restart()  # Which has no idle ones yet.
        before = self.device.descriptors()
        n, step = 1, 1
        while time.monotonic() < deadline and self.once(n, n):
            if self.fault[0] == "memory":  # Thousands: 1, 2, 4, 6, 9, ...
                step = n // 2 + 1
            n += step
        if time.monotonic() < deadline and self.fault[1] != "memory":
            self.device.client_patience = 0.5
            self.once(1, ALWAYS)
            self.device.client_patience = 4
        if not self.aborts and self.fault[1] != "thread":
            self.device.settle(before)
        if self.failed and self.name in DURABLE:
            self.device.restart()

    def told(self):
        parts = [f"{self.failed} of {self.fault[0]}"]
        parts += [f"{count} {what}" for count, what in
                  ((self.fine, "fine"), (self.silent, "SILENT"), (self.aborts, "aborted")) if count]
        return f"{parts[0]} ({', '.join(parts[1:])})" if parts[1:] else parts[0]


def main():
    build, seconds = Path(sys.argv[1]).resolve(), float(sys.argv[2])
    wanted = sys.argv[3] if len(sys.argv) > 3 else ""
    prepare()
    from disasters import DISASTERS

    device = Victim(build, Plan(WORK / "plan"))
    device.start()
    began, findings, faults = time.monotonic(), [], 0
    rows = [name for name in SCENARIOS if wanted.partition("/")[0] in ("", name)]
    for index, name in enumerate(rows):
        for _ in range(3):
            SCENARIOS[name](device)
        told, share = [], began + seconds * 0.8 * (index + 1) / len(rows)
        for fault in FAULTS:
            if "/" in wanted and wanted.partition("/")[2] != fault[0]:
                continue
            series = Series(device, name, fault)
            try:
                device.settle(10**6)
                series.run(share)
            except (Wrong, BenchError) as wrong:
                findings.append(f"{name}, {fault[0]} {device.plan['first']}: {wrong}")
                print("FOUND:", findings[-1], flush=True)
                device.recover()
            if series.failed:
                told.append(series.told())
            faults += series.failed
        print(f"{name}: {', '.join(told)}" + ("" if time.monotonic() < share else "; TIME WAS UP"), flush=True)
    for name, disaster in DISASTERS.items():
        if wanted not in ("", name):
            continue
        try:
            print(f"{name}: {disaster(device)}", flush=True)
        except (Wrong, Refused, BenchError, subprocess.TimeoutExpired) as wrong:
            findings.append(f"{name}: {wrong}")
            print("FOUND:", findings[-1], flush=True)
            device.recover()
    print(f"{faults} faults in {time.monotonic() - began:.0f} s, {len(findings)} findings")
    sys.exit(bool(findings))


def prepare():
    """Disk, document root, upstream."""
    for directory in (WORK / "disk", WWW, WORK / "bin"):
        directory.mkdir(parents=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=16m", "none", WORK / "disk"], check=True)
    shutil.copytree(ROOT / "share/demo/www", WWW, dirs_exist_ok=True)
    (WWW / "small.bin").write_bytes(os.urandom(1000))
    (WWW / "large.bin").write_bytes(os.urandom(1 << 20))
    proxy.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Elsewhere)
    threading.Thread(target=proxy.server.serve_forever, daemon=True).start()


if __name__ == "__main__":
    go_apart()
    main()
