"""Measures iperf3's TCP through tandem's VPN beside OpenVPN and nebula, between two network namespaces. Needs root.

The namespaces are joined by a pair of devices without a limit. All tunnels stand all the time; every round measures each
in turn, both ways, so that whatever else the machine does falls on all alike. The table has the medians with the lowest
and the highest, and tandem's ratios.
"""

import argparse
import json
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "bench/rig"))

import rig as rigs  # noqa: E402
import tunnels  # noqa: E402

CLIENT, SERVER = "10.90.0.1", "10.90.0.2"  # outside the tunnels


class Vpn:
    """`server_address` answers inside the tunnel once `start` has returned."""

    name = ""
    server_address = None

    def __init__(self, rig, directory, chosen):
        self.rig = rig
        self.directory = directory
        self.chosen = chosen
        self.processes = []

    def spawn(self, namespace, log, *command):
        path = self.directory / log
        with open(path, "wb") as out:
            process = self.rig.start(namespace, *command, stdout=out, stderr=out, cwd=self.directory)
        self.processes.append(process)
        return path

    def cpu_seconds(self):
        ticks = 0
        for fields in tunnels.process_tree([process.pid for process in self.processes]).values():
            ticks += sum(int(field) for field in fields[11:15])
        return ticks / os.sysconf("SC_CLK_TCK")

    def wait_until_answering(self):
        end = time.monotonic() + 20
        while time.monotonic() < end:
            ping = self.rig.start(self.rig.client, "ping", "-c1", "-W1", self.server_address, stdout=subprocess.DEVNULL)
            if ping.wait() == 0:
                return
            time.sleep(0.1)
        logs = "\n".join(log.read_text(errors="replace")[-800:] for log in self.directory.glob("*.log"))
        raise tunnels.Failure(f"{self.name}: {self.server_address} does not answer:\n{logs}")


class Direct(Vpn):
    """No tunnel: what the kernel and iperf3 can do at most."""

    name = "direct"
    server_address = SERVER

    def start(self):
        pass


class Tandem(Vpn):
    name = "tandem"
    server_address = "10.91.1.1"

    def start(self):
        program = self.chosen.build / "bin/tandem"
        made = tunnels.run(program, "cert", "--out", self.directory / "tls", "--name", "bench")
        pin = re.search(r"pin:[0-9a-fA-F]+", made).group(0)
        secret = self.directory / "secret"
        secret.write_text(os.urandom(24).hex() + "\n")
        secret.chmod(0o600)
        log = self.spawn(self.rig.server, "server.out", program, "server", "--cert", "tls/cert.pem", "--key", "tls/key.pem",
                         "--secret", secret, "--log", "server.log",
                         "--allow-vpn", "*;address:10.91.1.0/24;mtu:65535")
        wait_for_text(log, "listening")
        mtu = f";mtu:{self.chosen.mtu}" if self.chosen.mtu else ""
        self.spawn(self.rig.client, "client.out", program, "client", SERVER, "--secret", secret, "--trust", pin, "--path", "l0",
                   "--log", "client.log", "--vpn", f"tun:;address:10.91.1.2/24{mtu};remote:'address:10.91.1.1/24'")
        self.wait_until_answering()


class OpenVpn(Vpn):
    name = "openvpn"
    server_address = "10.91.2.1"

    def start(self):
        prints = {}
        for end in ("server", "client"):
            tunnels.run("openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes", "-days", "2",
                        "-subj", f"/CN={end}", "-keyout", self.directory / f"{end}.key", "-out", self.directory / f"{end}.crt")
            prints[end] = tunnels.run("openssl", "x509", "-in", self.directory / f"{end}.crt", "-noout", "-fingerprint",
                                      "-sha256").partition("=")[2].strip()
        common = ["--dev", "tun", "--proto", "udp", "--data-ciphers", "AES-128-GCM", "--disable-dco", "--keepalive", "10", "60"]
        self.spawn(self.rig.server, "server.log", "openvpn", *common, "--local", SERVER, "--ifconfig", "10.91.2.1", "10.91.2.2",
                   "--tls-server", "--dh", "none", "--cert", "server.crt", "--key", "server.key",
                   "--peer-fingerprint", prints["client"])
        self.spawn(self.rig.client, "client.log", "openvpn", *common, "--remote", SERVER, "--nobind",
                   "--ifconfig", "10.91.2.2", "10.91.2.1", "--tls-client", "--cert", "client.crt", "--key", "client.key",
                   "--peer-fingerprint", prints["server"])
        self.wait_until_answering()


class Nebula(Vpn):
    name = "nebula"
    server_address = "10.91.3.1"

    def start(self):
        tunnels.run("nebula-cert", "ca", "-name", "bench", "-out-crt", self.directory / "ca.crt", "-out-key",
                    self.directory / "ca.key")
        for end, address in (("server", "10.91.3.1/24"), ("client", "10.91.3.2/24")):
            tunnels.run("nebula-cert", "sign", "-ca-crt", self.directory / "ca.crt", "-ca-key", self.directory / "ca.key",
                        "-name", end, "-ip", address, "-out-crt", self.directory / f"{end}.crt",
                        "-out-key", self.directory / f"{end}.key")
            (self.directory / f"{end}.yml").write_text(f"""
pki: {{ca: {self.directory}/ca.crt, cert: {self.directory}/{end}.crt, key: {self.directory}/{end}.key}}
static_host_map: {{"10.91.3.1": ["{SERVER}:4242"]}}
lighthouse: {{am_lighthouse: {str(end == "server").lower()}, hosts: {[] if end == "server" else ["10.91.3.1"]}}}
listen: {{host: 0.0.0.0, port: {4242 if end == "server" else 0}}}
cipher: aes
tun: {{dev: neb0, mtu: 1300}}
firewall:
  outbound: [{{port: any, proto: any, host: any}}]
  inbound: [{{port: any, proto: any, host: any}}]
""")
            self.spawn(getattr(self.rig, end), f"{end}.log", "nebula", "-config", self.directory / f"{end}.yml")
        self.wait_until_answering()


ALL = {"direct": Direct, "tandem": Tandem, "openvpn": OpenVpn, "nebula": Nebula}
COLUMNS = (("up", "up Mbit/s"), ("down", "down Mbit/s"), ("cpu", "CPU s/GiB"), ("ping", "idle ping ms"))


def wait_for_text(path, text):
    end = time.monotonic() + 20
    while text not in path.read_text(errors="replace"):
        if time.monotonic() > end:
            raise tunnels.Failure(f"not ready: {path.read_text(errors='replace')}")
        time.sleep(0.02)


def iperf(rig, vpn, seconds, reverse):
    server = rig.start(rig.server, "iperf3", "-s", "-1", "-B", vpn.server_address, "--forceflush", stdout=subprocess.PIPE)
    while "listening" not in (line := server.stdout.readline()):
        if not line:
            raise tunnels.Failure(f"{vpn.name}: iperf3 does not listen")
    try:
        client = rig.start(rig.client, "iperf3", "-c", vpn.server_address, "-t", seconds, "-J", *(["-R"] if reverse else []),
                           stdout=subprocess.PIPE)
        report = json.loads(client.communicate(timeout=seconds + 30)[0])
    finally:
        rig.stop(server)
    if "error" in report:
        raise tunnels.Failure(f"{vpn.name}: iperf3: {report['error']}")
    return report["end"]["sum_received"]["bits_per_second"] / 1e6, report["end"]["sum_received"]["bytes"]


def measure(rig, vpn, seconds):
    ping = rig.start(rig.client, "ping", "-c20", "-i0.01", "-q", vpn.server_address, stdout=subprocess.PIPE).communicate()[0]
    before = vpn.cpu_seconds()
    up, up_bytes = iperf(rig, vpn, seconds, False)
    down, down_bytes = iperf(rig, vpn, seconds, True)
    return {"up": up, "down": down, "cpu": (vpn.cpu_seconds() - before) / ((up_bytes + down_bytes) / 2**30),
            "ping": float(re.search(r"= [\d.]+/([\d.]+)/", ping).group(1))}


def arguments():
    parser = argparse.ArgumentParser(prog="dev bench vpn", description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5, help="measurements of each (5)")
    parser.add_argument("--seconds", type=int, default=5, help="of one transfer (5)")
    parser.add_argument("--mtu", type=int, help="of tandem's interfaces, if not what they have by themselves")
    parser.add_argument("--only", default=",".join(ALL), metavar="NAME,...", help=f"what to measure ({','.join(ALL)})")
    parser.add_argument("--json", type=pathlib.Path, help="write every measurement to this file, an object a line")
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="where the programs are built")
    chosen = parser.parse_args()
    chosen.build = chosen.build.resolve()
    chosen.only = chosen.only.split(",")
    if set(chosen.only) - set(ALL):
        parser.error("unknown: " + ", ".join(set(chosen.only) - set(ALL)))
    return chosen


def print_table(results):
    def cell(values):
        return f"{statistics.median(values):.4g} ({min(values):.4g}-{max(values):.4g})"

    print("\n" + " " * 20 + "".join(heading.rjust(26) for _, heading in COLUMNS))
    for name, rounds in results.items():
        print(name.ljust(20) + "".join(cell([each[key] for each in rounds]).rjust(26) for key, _ in COLUMNS))
    for name in ("openvpn", "nebula"):
        if name not in results or "tandem" not in results:
            continue
        ratios = (statistics.median(each[key] for each in results["tandem"]) /
                  statistics.median(each[key] for each in results[name]) for key, _ in COLUMNS)
        print(f"tandem / {name}".ljust(20) + "".join(f"{ratio:.2f}x".rjust(26) for ratio in ratios))
    print("\nCPU is that of the tunnel's processes, both ends, per GiB carried; less is better there and with ping.")


def main():
    chosen = arguments()
    rigs.end_on_signals()
    results = {key: [] for key in chosen.only}
    with tempfile.TemporaryDirectory(prefix="tandem-bench.") as work, rigs.Rig(chosen.build / "bin/rig_link") as rig:
        rig.add_veth()
        vpns = {}
        for key in chosen.only:
            directory = pathlib.Path(work) / key
            directory.mkdir()
            vpns[key] = ALL[key](rig, directory, chosen)
            vpns[key].start()
        for index in range(chosen.rounds):
            for key, vpn in vpns.items():
                done = measure(rig, vpn, chosen.seconds)
                results[key].append(done)
                print(f"round {index + 1}: {key}: " + ", ".join(f"{name} {done[name]:.4g}" for name, _ in COLUMNS), flush=True)
                if chosen.json:
                    with open(chosen.json, "a") as out:
                        out.write(json.dumps({"load": os.getloadavg()[0], "round": index + 1, "name": key, **done}) + "\n")
    print_table(results)
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except (tunnels.Failure, rigs.Failure) as failure:
        sys.exit(f"bench: {failure}")
    except KeyboardInterrupt:
        sys.exit(130)
