"""The tunnels that are compared: each carries TCP connections on 127.0.0.1 to the target's port.

A tunnel starts its processes in a directory of its own and ends exactly those. After `start`, `port` is where to
connect, and `cpu_seconds` is what its processes have used.
"""

import os
import pathlib
import pwd
import re
import socket
import subprocess
import time

START_SECONDS = 20


class Failure(Exception):
    """A tunnel could not be started or has ended."""


def free_port(kind=socket.SOCK_STREAM):
    with socket.socket(socket.AF_INET, kind) as probe:
        probe.bind(("", 0))
        return probe.getsockname()[1]


def run(*command):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    if done.returncode != 0:
        raise Failure(f"{command[0]} failed: {done.stderr.strip()}")
    return done.stdout


def stat_fields(pid):
    """The fields of /proc/PID/stat from the third one on (the second is a name that may hold anything)."""
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    except (FileNotFoundError, ProcessLookupError):
        return None


def process_tree(roots):
    """The processes below `roots`, those included, with their stat fields."""
    stats = {int(entry): stat_fields(entry) for entry in os.listdir("/proc") if entry.isdigit()}
    tree = {pid: stats[pid] for pid in roots if stats.get(pid)}
    grown = True
    while grown:
        grown = False
        for pid, fields in stats.items():
            if fields and pid not in tree and int(fields[1]) in tree:
                tree[pid] = fields
                grown = True
    return tree


class Tunnel:
    name = ""

    def __init__(self, directory, target_port):
        self.directory = directory
        self.target_port = target_port
        self.port = 0
        self.processes = []

    def start(self):
        raise NotImplementedError

    def spawn(self, log, *command):
        """Starts a process of the tunnel; its output goes to `log`."""
        path = self.directory / log
        with open(path, "wb") as out:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=out)
        self.processes.append(process)
        return path

    def wait_for(self, ready, log):
        """Waits until `ready()` gives something true, which it returns."""
        process = self.processes[-1]
        end = time.monotonic() + START_SECONDS
        while time.monotonic() < end:
            answer = ready()
            if answer:
                return answer
            if process.poll() is not None:
                break
            time.sleep(0.02)
        raise Failure(f"{process.args[0]} is not ready: {log.read_text(errors='replace').strip()[-400:]}")

    def wait_for_port(self, port, log):
        def listening():
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", port)) == 0

        self.wait_for(listening, log)

    def wait_for_line(self, pattern, log):
        return self.wait_for(lambda: re.search(pattern, log.read_text(errors="replace"), re.M), log)

    def cpu_seconds(self):
        """User and system time of the tunnel's processes and of their children, ended ones included."""
        ticks = 0
        for fields in process_tree([process.pid for process in self.processes]).values():
            ticks += sum(int(field) for field in fields[11:15])
        return ticks / os.sysconf("SC_CLK_TCK")

    def stop(self):
        # The client goes first: what the server started for it then ends by itself.
        for process in reversed(self.processes):
            process.terminate()
            try:
                process.wait(5)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
            self.wait_for_children()
        self.processes = []

    def wait_for_children(self):
        own = {process.pid for process in self.processes}
        end = time.monotonic() + 5
        while set(process_tree(own)) - own and time.monotonic() < end:
            time.sleep(0.02)


class Direct(Tunnel):
    """No tunnel: what the machine and the measuring program can do at most."""

    name = "direct"

    def start(self):
        self.port = self.target_port


class Tandem(Tunnel):
    name = "tandem"
    paths = ["127.0.0.2"]
    program = None
    congestion = None
    option = "tcp"
    limits = []

    def start(self):
        if not self.program.is_file():
            raise Failure(f"{self.program} is missing; run ./dev build")
        made = run(self.program, "cert", "--out", self.directory / "cert", "--name", "localhost")
        pin = re.search(r"pin:[0-9a-fA-F]+", made).group(0)
        secret = self.directory / "secret"
        secret.write_text(os.urandom(24).hex() + "\n")
        secret.chmod(0o600)
        self.link_port = free_port(socket.SOCK_DGRAM)
        link = ["--secret", secret] + (["--congestion", self.congestion] if self.congestion else [])
        log = self.spawn("server.out", self.program, "server", "--cert", self.directory / "cert/cert.pem",
                         "--key", self.directory / "cert/key.pem", "--listen", str(self.link_port),
                         "--allow", "* * 127.0.0.1 *", "--log", self.directory / "server.log", *link,
                         *(word for limit in self.limits for word in ("--limit", limit)))
        self.wait_for_line("^listening ", log)
        paths = [word for path in self.paths for word in ("--path", path)]
        log = self.spawn("client.out", self.program, "client", f"127.0.0.1:{self.link_port}", "--trust", pin, *paths,
                         f"--{self.option}", f"127.0.0.1:0=127.0.0.1:{self.target_port}",
                         "--log", self.directory / "client.log", *link)
        self.port = int(self.wait_for_line(rf"^forwarding {self.option} 127\.0\.0\.1:(\d+)", log).group(1))


class TandemTwoPaths(Tandem):
    name = "tandem, 2 paths"
    paths = ["127.0.0.2", "127.0.0.3"]


class Ssh(Tunnel):
    name = "ssh -L"

    def start(self):
        for key in ("host_key", "user_key"):
            run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", self.directory / key)
        if os.geteuid() == 0:
            os.makedirs("/run/sshd", mode=0o755, exist_ok=True)  # sshd asks for it as root
        ssh_port = free_port()
        config = self.directory / "sshd_config"
        config.write_text("\n".join([
            f"Port {ssh_port}", "ListenAddress 127.0.0.1", f"HostKey {self.directory}/host_key",
            f"AuthorizedKeysFile {self.directory}/user_key.pub", "StrictModes no", "UsePAM no", "PidFile none",
            "PasswordAuthentication no", "PermitRootLogin prohibit-password", "AllowTcpForwarding yes", ""]))
        log = self.spawn("sshd.log", "/usr/sbin/sshd", "-D", "-e", "-f", config)
        self.wait_for_port(ssh_port, log)
        self.port = free_port()
        user = pwd.getpwuid(os.geteuid()).pw_name
        log = self.spawn("ssh.log", "ssh", "-N", "-F", "none", "-i", self.directory / "user_key",
                         "-o", "IdentitiesOnly=yes", "-o", "BatchMode=yes", "-o", "StrictHostKeyChecking=no",
                         "-o", "UserKnownHostsFile=/dev/null", "-o", "ExitOnForwardFailure=yes",
                         "-L", f"127.0.0.1:{self.port}:127.0.0.1:{self.target_port}",
                         "-p", str(ssh_port), f"{user}@127.0.0.1")
        self.wait_for_port(self.port, log)


class Stunnel(Tunnel):
    name = "stunnel"

    def start(self):
        key, certificate = self.directory / "key.pem", self.directory / "cert.pem"
        run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
            "-subj", "/CN=localhost", "-keyout", key, "-out", certificate)
        tls_port, self.port = free_port(), free_port()
        common = ["foreground = yes", "pid =", "debug = 4", "sslVersion = TLSv1.3", "[bench]"]
        log = self.run_end("server", common + [
            f"accept = 127.0.0.1:{tls_port}", f"connect = 127.0.0.1:{self.target_port}",
            f"cert = {certificate}", f"key = {key}"])
        self.wait_for_port(tls_port, log)
        log = self.run_end("client", common + [
            "client = yes", f"accept = 127.0.0.1:{self.port}", f"connect = 127.0.0.1:{tls_port}",
            "verifyPeer = yes", f"CAfile = {certificate}"])
        self.wait_for_port(self.port, log)

    def run_end(self, name, lines):
        config = self.directory / f"{name}.conf"
        config.write_text("\n".join(lines) + "\n")
        return self.spawn(f"{name}.log", "stunnel", config)


ALL = {"direct": Direct, "tandem": Tandem, "tandem2": TandemTwoPaths, "ssh": Ssh, "stunnel": Stunnel}
