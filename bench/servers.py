"""The processes that the benchmarks measure, each on loopback with its own temporary state."""

import http.client
import os
import socket
import ssl
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from load import BenchError

ROOT = Path(__file__).resolve().parent.parent
TICKS = os.sysconf("SC_CLK_TCK")
START_SECONDS = 10

# The certificates are the benchmarks' own.
ANYBODY = ssl.create_default_context()
ANYBODY.check_hostname = False
ANYBODY.verify_mode = ssl.CERT_NONE

USER = "admin"
PASSWORD = "bench-secret"


ADDRESS = "192.0.2.1"
NETWORK = f"""mount -t tmpfs none /tmp && echo 1 >/proc/sys/net/ipv6/conf/all/disable_ipv6 && ip link set lo up &&
    ip link add zark0 type veth peer name zark1 && ip link set zark1 up && ip link set zark0 up &&
    ip address add {ADDRESS}/24 dev zark0"""


def go_apart():
    """Starts the program again in namespaces of its own: processes, a /tmp in memory, a network with ADDRESS."""
    if os.environ.pop("ZARK_APART", None):
        return subprocess.run(NETWORK, shell=True, check=True)
    os.environ["ZARK_APART"] = "1"
    command = ["unshare", "--mount", "--net", "--pid", "--fork", "--kill-child", "--mount-proc"]
    command += [] if os.getuid() == 0 else ["--map-root-user"]
    os.execvp(command[0], [*command, sys.executable, "-B", *sys.argv])


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Process:
    """A child process, stopped at the end of its `with` block."""

    scheme = "http"
    patience = START_SECONDS

    def __init__(self, command, **options):
        self.command = [str(part) for part in command]
        self.options = options
        self.port = 0

    def connect(self):
        """A connection of the kind that the process serves at its port."""
        if self.scheme == "https":
            return http.client.HTTPSConnection("127.0.0.1", self.port, timeout=self.patience, context=ANYBODY)
        return http.client.HTTPConnection("127.0.0.1", self.port, timeout=self.patience)

    def __enter__(self):
        try:
            self.process = subprocess.Popen(self.command, **self.options)
        except OSError as error:
            raise BenchError(str(error)) from error
        try:
            self.wait_until_ready()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.process.terminate()
        try:
            self.process.wait(5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        if self.process.stdout:
            self.process.stdout.close()

    def wait_until_ready(self):
        """Returns when the process can be asked; a BenchError when it ended or never comes so far."""

    def url(self, target):
        return f"{self.scheme}://127.0.0.1:{self.port}{target}"

    def cpu_seconds(self):
        """User and system time of all threads so far."""
        stat = Path(f"/proc/{self.process.pid}/stat").read_text()
        fields = stat[stat.rindex(")") + 2 :].split()
        return (int(fields[11]) + int(fields[12])) / TICKS

    def memory_kib(self, kind):
        """"Pss": its own pages and its share of others'; "Private_Dirty": what no file holds and nobody shares."""
        pages = Path(f"/proc/{self.process.pid}/smaps_rollup").read_text()
        return int(next(line for line in pages.splitlines() if line.startswith(kind + ":")).split()[1])

    def resident_kib(self):
        status = Path(f"/proc/{self.process.pid}/status").read_text()
        return int(next(line for line in status.splitlines() if line.startswith("VmRSS:")).split()[1])


class Floor(Process):
    """The bare library: /value answers `body`, /file/NAME a file of `files`."""

    def __init__(self, build, scratch, body=b"", files=None, tls=None):
        answer = tempfile.NamedTemporaryFile(dir=scratch, delete=False)
        with answer:
            answer.write(body)
        command = [build / "bin/floor", "--body", answer.name, "--files", files or scratch]
        if tls:
            self.scheme = "https"
            command += ["--tls", tls]
        super().__init__(command, stdout=subprocess.PIPE, text=True)

    def wait_until_ready(self):
        line = self.process.stdout.readline()
        if not line.startswith("listening on "):
            raise BenchError("the floor does not start")
        self.port = int(line.split()[-1])


class IdleFloor(Process):
    """An empty process that has the libraries loaded and an event loop running."""

    def __init__(self, build):
        super().__init__([build / "bin/floor", "--idle"], stdout=subprocess.PIPE, text=True)

    def wait_until_ready(self):
        if self.process.stdout.readline() != "idle\n":
            raise BenchError("the idle floor does not start")


class Device(Process):
    """The demo device. `state` may hold the state of an earlier run; what it logs goes to <state>.log."""

    def __init__(self, build, state, settings=()):
        self.port = free_port()
        self.https_port = free_port()
        values = {
            "settings:webserver/port": self.port,
            "settings:webserver/httpsPort": self.https_port,
            "settings:webserver/users": f'[{{"name":"{USER}","password":"{PASSWORD}"}}]',
            **dict(settings),
        }
        command = [build / "bin/zark-host", "--tree", ROOT / "share/demo/tree.json", "--state", state, "--log-level", "error"]
        for worker in ("system", "player", "webserver"):
            command += ["--worker", worker]
        for path, value in values.items():
            command += ["--set", f"{path}={value}"]
        self.log = Path(f"{state}.log")
        port = self.port
        super().__init__(command, stdin=subprocess.DEVNULL)
        self.port = port

    def __enter__(self):
        with self.log.open("ab") as log:
            self.options.update(stdout=log, stderr=log)
            self.started = time.monotonic()
            return super().__enter__()

    def wait_until_ready(self):
        """Asks until the first answer comes; start_seconds is how long that took."""
        while not self.answers():
            if self.process.poll() is not None or time.monotonic() - self.started > self.patience:
                tail = self.log.read_text(errors="replace").splitlines()[-5:]
                raise BenchError("the device does not start:\n  " + "\n  ".join(tail))
            time.sleep(0.001)
        self.start_seconds = time.monotonic() - self.started

    def wait_for_https(self):
        """Until it has answered one request over HTTPS: its first certificate takes a moment."""
        while True:
            connection = http.client.HTTPSConnection("127.0.0.1", self.https_port, timeout=self.patience, context=ANYBODY)
            try:
                connection.request("GET", "/api/getData?path=player:player/volume&roles=value")
                return connection.getresponse().read()
            except OSError as error:
                if time.monotonic() - self.started > 2 * self.patience:
                    raise BenchError(f"HTTPS: {error}") from error
                time.sleep(0.05)
            finally:
                connection.close()

    def answers(self):
        connection = self.connect()
        try:
            connection.request("GET", "/api/getData?path=player:player/volume&roles=value")
            return connection.getresponse().status == 200
        except (OSError, http.client.HTTPException):
            return False
        finally:
            connection.close()


class SecureDevice(Device):
    """The demo device asked over HTTPS, with the certificate and the key in the file `tls`."""

    scheme = "https"

    def __init__(self, build, state, tls, settings=()):
        pem = Path(tls).read_text()
        values = {
            "settings:webserver/httpsUseDeviceCert": "false",
            "settings:webserver/httpsCert": pem,
            "settings:webserver/httpsPrivateKey": pem,
            "settings:webserver/httpsPort": free_port(),
            **dict(settings),
        }
        super().__init__(build, state, values)
        self.plain_port = self.port
        self.port = values["settings:webserver/httpsPort"]


def fresh_device(bench):
    """A newly started device, whose state the rows that start one share."""
    return Device(bench.build, bench.scratch / "fresh")


def make_certificate(path):
    """A file with a new key and a certificate for it, as devices use them: RSA with 2048 bits."""
    command = ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", path, "-out", f"{path}.crt"]
    result = subprocess.run([*command, "-subj", "/CN=bench"], capture_output=True, text=True)
    if result.returncode != 0:
        raise BenchError(result.stderr.strip())
    with open(path, "a") as pem:
        pem.write(Path(f"{path}.crt").read_text())
    return path
