"""What is measured over the rig's links: each peer carries a TCP connection from the client's namespace to the server's."""

import os
import pathlib
import subprocess
import tempfile
import time

from rig import SERVER, Failure, run

FLOW_PORT = 6000
FORWARD_PORT = 5201
START_SECONDS = 20


class Peer:
    """A context manager over a rig that is up. Afterwards `client(...)` gives the command that starts rig_flow."""

    name = ""

    def __init__(self, rig, chosen, work):
        self.rig = rig
        self.chosen = chosen
        self.work = work
        self.logs = []
        self.processes = []

    def __enter__(self):
        self.set_congestion()
        self.start(self.rig.server, *self.wrapper(), self.chosen.flow, "serve", FLOW_PORT)
        self.prepare()
        self.wait()
        return self

    def __exit__(self, *_):
        for process in reversed(self.processes):
            self.rig.stop(process)
        for log in self.logs:
            log.close()

    def prepare(self):
        pass

    def wrapper(self):
        return ()

    def target(self):
        return SERVER, FLOW_PORT

    def set_congestion(self):
        setting = f"net.ipv4.tcp_congestion_control={self.chosen.kernel_congestion}"
        for namespace in (self.rig.client, self.rig.server):
            run("ip", "netns", "exec", namespace, "sysctl", "-qw", setting)

    def start(self, namespace, *command):
        log = tempfile.TemporaryFile(mode="w+", dir=self.work)
        self.logs.append(log)
        process = self.rig.start(namespace, *command, stdout=log, stderr=subprocess.STDOUT)
        self.processes.append(process)
        return process

    def flow(self, *arguments):
        """Starts rig_flow through this peer; its standard output is a pipe."""
        mode, *rest = map(str, arguments)
        host, port = self.target()
        return self.rig.start(self.rig.client, *self.wrapper(), self.chosen.flow, mode, host, port, *rest,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def wait(self):
        """Until something is carried."""
        deadline = time.monotonic() + START_SECONDS
        while time.monotonic() < deadline:
            probe = self.flow("exchange", 0.001, 1, 1)
            try:
                _, error = probe.communicate(timeout=START_SECONDS)
            except subprocess.TimeoutExpired:
                error = "no answer"
            self.rig.stop(probe)
            if probe.returncode == 0:
                return
            time.sleep(0.1)
        raise Failure(f"{self.name} carries nothing: {error.strip()}\n{self.output()}")

    def output(self):
        """The last lines that the processes wrote, and which have ended."""
        lines = []
        for process, log in zip(self.processes, self.logs):
            if process.poll() is not None:
                lines.append(f"{' '.join(process.args[4:6])} ended with {process.returncode}")
            log.seek(0)
            lines += log.read().splitlines()[-6:]
        return "\n".join(lines)

    def cpu_seconds(self):
        """Of the programs that carry; the kernel's own protocols count nothing."""
        return None


class Tcp(Peer):
    """One TCP connection of the kernel, over the first link."""

    name = "tcp"


class Mptcp(Peer):
    name = "mptcp"

    def wrapper(self):
        return ("mptcpize", "run")

    def prepare(self):
        for name in (self.rig.client, self.rig.server):
            run("ip", "-n", name, "mptcp", "limits", "set", "subflows", "8", "add_addr_accepted", "8")
        for number in range(1, len(self.rig.links)):
            run("ip", "-n", self.rig.client, "mptcp", "endpoint", "add", f"10.90.{number}.1", "dev", f"l{number}", "subflow")


class Tandem(Peer):
    name = "tandem"
    links = None  # all
    options = ()

    def prepare(self):
        self.make_credentials()
        common = ("--secret", self.work / "secret", "--congestion", self.chosen.congestion)
        program = self.chosen.tandem
        self.server = self.start(self.rig.server, program, "server", "--cert", self.work / "cert.pem", "--key",
                                 self.work / "key.pem", "--listen", 14002, "--allow", "* * 127.0.0.1 *", *common)
        paths = [word for number in range(self.links or max(1, len(self.rig.links))) for word in ("--path", self.path(number))]
        self.client = self.start(self.rig.client, program, "client", f"{SERVER}:14002", "--trust", self.trust(), *paths, "--tcp",
                                 f"127.0.0.1:{FORWARD_PORT}=127.0.0.1:{FLOW_PORT}", *common, *self.options)

    def path(self, number):
        return f"10.90.{number}.1"

    def target(self):
        return "127.0.0.1", FORWARD_PORT

    def make_credentials(self):
        if not (self.work / "pin").exists():
            made = run(str(self.chosen.tandem), "cert", "--out", str(self.work))
            pin = next(word for word in made.split() if word.startswith("pin:"))
            (self.work / "pin").write_text(pin)
            with os.fdopen(os.open(self.work / "secret", os.O_WRONLY | os.O_CREAT, 0o600), "w") as secret:
                secret.write(os.urandom(16).hex() + "\n")

    def trust(self):
        return (self.work / "pin").read_text()

    def cpu_seconds(self):
        total = 0
        for process in (self.server, self.client):
            try:
                fields = pathlib.Path(f"/proc/{process.pid}/stat").read_text().rpartition(")")[2].split()
            except FileNotFoundError as error:
                raise Failure(f"tandem has ended\n{self.output()}") from error
            total += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
        return total


class TandemOnePath(Tandem):
    """Over the first link alone."""

    name = "tandem-1"
    links = 1


class TandemDevices(Tandem):
    """The paths named by their devices."""

    name = "tandem-dev"

    def path(self, number):
        return f"l{number}"


class TandemRedundant(Tandem):
    """Every chunk on every path."""

    name = "tandem-redundant"
    options = ("--schedule", "redundant")


class QuicExample(Peer):
    """The QUIC library's own example pair. It carries no TCP: it downloads a file that is all holes."""

    name = "quic"
    BYTES = 1 << 30

    def prepare(self):
        Tandem.make_credentials(self)
        served = self.work / "htdocs"
        served.mkdir(exist_ok=True)
        with open(served / "file", "wb") as file:
            file.truncate(self.BYTES)
        self.start(self.rig.server, "gtlsserver", "-q", "--max-gso-dgrams=64", f"--cc={self.congestion()}", "-d", served, SERVER, 4433,
                   self.work / "key.pem", self.work / "cert.pem")

    def congestion(self):
        """The library's names: what tandem calls bbr is its bbr2."""
        return {"bbr": "bbr2", "bbr1": "bbr"}.get(self.chosen.congestion, self.chosen.congestion)

    def wait(self):
        deadline = time.monotonic() + START_SECONDS
        while not run("ip", "netns", "exec", self.rig.server, "ss", "-Hnlu", "sport = :4433"):
            if time.monotonic() > deadline:
                raise Failure(f"gtlsserver does not listen\n{self.output()}")
            time.sleep(0.05)

    def download(self):
        """Mbit/s of payload, from the start of the client to its end."""
        start = time.monotonic()
        client = self.rig.start(self.rig.client, "gtlsclient", "-q", "--no-quic-dump", "--no-http-dump", f"--cc={self.congestion()}",
                                "--exit-on-all-streams-close", SERVER, 4433, f"https://{SERVER}:4433/file",
                                stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
        _, error = client.communicate(timeout=120)
        if client.returncode != 0:
            raise Failure(f"gtlsclient: {error.strip()[-300:]}")
        return self.BYTES * 8 / 1e6 / (time.monotonic() - start)


ALL = {each.name: each for each in (Tandem, Mptcp, Tcp, TandemOnePath, QuicExample, TandemDevices,
                                     TandemRedundant)}
