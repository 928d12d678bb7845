"""Files sent by the device, by the bare library, and by the usual web servers where they are installed."""

import selectors
import shutil
import socket
import subprocess
import time
from contextlib import ExitStack

from load import CONNECTIONS, BenchError, Exchange, Load, run_load, total
from servers import ROOT, START_SECONDS, Device, Floor, Process, free_port

NGINX = """
daemon off; master_process off; pid {scratch}/nginx.pid; error_log stderr crit;
events {{ worker_connections 1024; }}
http {{ access_log off; sendfile on; keepalive_requests 100000000; default_type application/octet-stream;
  client_body_temp_path {scratch}/nginx-body; proxy_temp_path {scratch}/nginx-proxy;
  fastcgi_temp_path {scratch}/nginx-fastcgi; uwsgi_temp_path {scratch}/nginx-uwsgi; scgi_temp_path {scratch}/nginx-scgi;
  server {{ listen 127.0.0.1:{port} backlog=512; root {files}; }} }}
"""

LIGHTTPD = """
server.document-root = "{files}"
server.bind = "127.0.0.1"
server.port = {port}
server.max-keep-alive-requests = 100000000
server.errorlog = "/dev/null"
"""


class Peer(Process):
    """Another web server in one process, with its configuration in the scratch directory."""

    def __init__(self, name, template, options, scratch, files):
        port = free_port()
        configuration = scratch / f"{name}.conf"
        configuration.write_text(template.format(scratch=scratch, files=files, port=port))
        command = [program(name), *options, configuration]
        super().__init__(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        self.port = port

    def wait_until_ready(self):
        end = time.monotonic() + START_SECONDS
        while time.monotonic() < end:
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", self.port)) == 0:
                    return
            time.sleep(0.01)
        raise BenchError(f"{self.command[0]} does not start")


def program(name):
    """The path of a web server, also one that is only unpacked beside the build; None when there is none."""
    places = [ROOT / "build/peers/usr/sbin", "/usr/sbin", "/usr/local/sbin"]
    return shutil.which(name) or shutil.which(name, path=":".join(map(str, places)))


def peers(scratch, files):
    if program("nginx"):
        yield "nginx", Peer("nginx", NGINX, ["-p", scratch, "-c"], scratch, files)
    if program("lighttpd"):
        yield "lighttpd", Peer("lighttpd", LIGHTTPD, ["-D", "-f"], scratch, files)


def run_head_load(server, exchange, seconds, connections):
    """The same as run_load() for HEAD, whose answers wrk waits for in vain."""
    request = f"HEAD {exchange.target} HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n".encode()
    times, sent = [], {}
    before, start = server.cpu_seconds(), time.monotonic()
    with ExitStack() as stack:
        selector = stack.enter_context(selectors.DefaultSelector())
        for _ in range(connections):
            client = stack.enter_context(socket.create_connection(("127.0.0.1", server.port)))
            selector.register(client, selectors.EVENT_READ)
            client.sendall(request)
            sent[client] = start
        while time.monotonic() < start + seconds:
            for key, _ in selector.select(1):
                answer = key.fileobj.recv(65536)
                if not answer.startswith(b"HTTP/1.1 200") or not answer.endswith(b"\r\n\r\n"):
                    raise BenchError(f"HEAD {exchange.target}: {answer[:80]!r}")
                now = time.monotonic()
                times.append((now - sent[key.fileobj]) * 1000)
                key.fileobj.sendall(request)
                sent[key.fileobj] = now
        elapsed, cpu_seconds = time.monotonic() - start, server.cpu_seconds() - before
    times.sort()
    middle, tail = times[len(times) // 2], times[len(times) * 99 // 100]
    return Load(len(times), elapsed, cpu_seconds, middle, tail, times[-1])


def compare(sides, seconds, connections):
    """One Load a side, loaded in turn."""
    loads = [[] for _ in sides]
    for _ in range(2):
        for each, (server, exchange) in zip(loads, sides):
            run = run_head_load if exchange.method == "HEAD" else run_load
            each.append(run(server, exchange, seconds, connections))
    return [total(each) for each in loads]


def file_row(size, target, method="GET", connections=CONNECTIONS):
    """A row that serves one file of that size, against the floor; the peers' figures stand in the note."""

    def measure(bench, name, seconds, at_least):
        scratch = bench.scratch.resolve()
        files = scratch / "files"
        files.mkdir(exist_ok=True)
        (files / "file.bin").write_bytes(bytes(range(256)) * (size // 256))
        exchange = Exchange("/file.bin", method)
        with ExitStack() as stack:
            settings = {"settings:webserver/documentRoot": files}
            device = stack.enter_context(Device(bench.build, bench.scratch / "static", settings.items()))
            floor = stack.enter_context(Floor(bench.build, bench.scratch, files=files))
            others = [(peer, stack.enter_context(server)) for peer, server in peers(scratch, files)]
            sides = [(device, exchange), (floor, exchange.at("/file/file.bin"))]
            sides += [(server, exchange) for _, server in others]
            ours, reference, *rest = compare(sides, seconds, connections)
        note = f"{ours.rate:,.0f} against {reference.rate:,.0f} requests/s"
        for (peer, _), load in zip(others, rest):
            note += f"; {peer}: {load.cpu_microseconds:,.1f} us, {load.rate:,.0f}/s"
        ratio = reference.cpu_microseconds / ours.cpu_microseconds
        cost = ours.cpu_microseconds, reference.cpu_microseconds
        return at_least(name, *cost, "us CPU/request", ratio, target, note)

    return measure
