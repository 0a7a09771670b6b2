"""Measures UDP through tandem's forward beside socat and a plain relay, on the loopback of one machine.

Every round measures each in turn, so that whatever else the machine does falls on all alike; the table has the medians.
tandem is two processes and encrypts; the others are one process and do not.
"""

import argparse
import json
import os
import pathlib
import socket
import statistics
import subprocess
import sys
import tempfile

import tunnels

ROOT = pathlib.Path(__file__).resolve().parent.parent
SIZES = (100, 500, 1400)


class TandemUdp(tunnels.Tandem):
    """The forward of --udp in the place of --tcp."""

    option = "udp"


class Socat(tunnels.Tunnel):
    name = "socat"

    def start(self):
        self.port = tunnels.free_port(socket.SOCK_DGRAM)
        log = self.spawn("socat.log", "socat", f"UDP4-LISTEN:{self.port},bind=127.0.0.1,fork,reuseaddr",
                         f"UDP4:127.0.0.1:{self.target_port}")
        self.wait_for(lambda: bound(self.port), log)


class Relay(tunnels.Tunnel):
    name = "plain relay"
    program = None

    def start(self):
        self.port = tunnels.free_port(socket.SOCK_DGRAM)
        log = self.spawn("relay.log", self.program, "relay", str(self.port), str(self.target_port))
        self.wait_for(lambda: bound(self.port), log)


ALL = {"tandem": TandemUdp, "socat": Socat, "relay": Relay}


def bound(port):
    lines = pathlib.Path("/proc/net/udp").read_text().splitlines()[1:]
    return any(line.split()[1].endswith(f":{port:04X}") for line in lines)


def arguments():
    parser = argparse.ArgumentParser(prog="dev bench udp", description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5, help="measurements of each (5)")
    parser.add_argument("--seconds", type=float, default=2, help="of one flow (2)")
    parser.add_argument("--rate", type=int, default=20000, help="datagrams a second of the flow whose loss is told (20000)")
    parser.add_argument("--queries", type=int, default=1000, help="new sources, each asking once (1000)")
    parser.add_argument("--only", default=",".join(ALL), metavar="NAME,...", help=f"what to measure ({','.join(ALL)})")
    parser.add_argument("--json", type=pathlib.Path, help="write every measurement to this file, an object a line")
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="where the programs are built")
    chosen = parser.parse_args()
    chosen.only = chosen.only.split(",")
    if set(chosen.only) - set(ALL):
        parser.error("unknown: " + ", ".join(set(chosen.only) - set(ALL)))
    return chosen


class Bench:
    def __init__(self, chosen, work):
        self.chosen = chosen
        self.work = pathlib.Path(work)
        self.program = chosen.build / "bin/udp_bench"

    def words(self, *command):
        done = subprocess.run([self.program, *map(str, command)], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=600)
        if done.returncode != 0:
            raise tunnels.Failure(done.stderr.strip())
        return [int(word) for word in done.stdout.split()]

    def with_tunnel(self, key, measure):
        """A fresh tunnel for every measurement: none inherits the queues of the one before."""
        target = tunnels.free_port(socket.SOCK_DGRAM)
        with tempfile.TemporaryDirectory(dir=self.work) as directory:
            tunnel = ALL[key](pathlib.Path(directory), target)
            try:
                tunnel.start()
                return measure(tunnel, target)
            finally:
                tunnel.stop()

    def flow(self, tunnel, target, size):
        seconds = self.chosen.seconds
        self.words("flow", target, tunnel.port, size, 1000, 0.2)  # the source's way is made
        before = tunnel.cpu_seconds()
        _, heard = self.words("flow", target, tunnel.port, size, 0, seconds)
        cpu = tunnel.cpu_seconds() - before
        sent, kept = self.words("flow", target, tunnel.port, size, self.chosen.rate, seconds)
        return {"rate": heard / seconds, "cpu": cpu / heard * 1e6 if heard else 0, "loss": 100 * (1 - kept / sent)}

    def queries(self, tunnel, target):
        answerer = subprocess.Popen([self.program, "answer", str(target)])
        try:
            while not bound(target):
                pass
            return {"answered": self.words("query", tunnel.port, self.chosen.queries)[0]}
        finally:
            answerer.terminate()
            answerer.wait()

    def measure(self, key):
        result = {}
        for size in SIZES:
            one = self.with_tunnel(key, lambda tunnel, target: self.flow(tunnel, target, size))
            result.update({f"{name} {size}": value for name, value in one.items()})
        result.update(self.with_tunnel(key, self.queries))
        return result


def print_table(results, chosen):
    def row(name, cells):
        print(name.ljust(24) + "".join(cell.rjust(14) for cell in cells))

    row("", [f"{what} {size}" for size in SIZES for what in ("dgram/s", "CPU us", "loss %")] + ["first try"])
    medians = {}
    for name, rounds in results.items():
        medians[name] = {key: statistics.median(each[key] for each in rounds) for key in rounds[0]}
        cells = [f"{medians[name][f'{what} {size}']:.{digits}f}" for size in SIZES
                 for what, digits in (("rate", 0), ("cpu", 1), ("loss", 2))]
        row(name, cells + [f"{min(each['answered'] for each in rounds)}/{chosen.queries}"])
    for name in medians:
        if "tandem" in medians and name != "tandem":
            cells = [f"{medians['tandem'][f'rate {size}'] / medians[name][f'rate {size}']:.2f}x" for size in SIZES]
            row(f"tandem / {name}", [word for cell in cells for word in (cell, "", "")])
    print(f"\ndgram/s: heard when sent as fast as it goes. loss: of {chosen.rate} a second. first try: the worst round.")


def main():
    chosen = arguments()
    tunnels.Tandem.program = chosen.build / "bin/tandem"
    Relay.program = chosen.build / "bin/udp_bench"
    results = {ALL[key].name: [] for key in chosen.only}
    with tempfile.TemporaryDirectory(prefix="tandem-bench.") as work:
        bench = Bench(chosen, work)
        for index in range(chosen.rounds):
            for key in chosen.only:
                done = bench.measure(key)
                results[ALL[key].name].append(done)
                print(f"round {index + 1}: {ALL[key].name}: " + ", ".join(f"{name} {value:.2f}" for name, value in done.items()),
                      flush=True)
                if chosen.json:
                    with open(chosen.json, "a") as out:
                        out.write(json.dumps({"load": os.getloadavg()[0], "round": index + 1, "name": key, **done}) + "\n")
    print_table(results, chosen)
    return 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except tunnels.Failure as failure:
        sys.exit(f"bench: {failure}")
    except KeyboardInterrupt:
        sys.exit(130)
