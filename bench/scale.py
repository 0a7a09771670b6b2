#!/usr/bin/env python3
"""Measures what a crowd costs: memory and goodput of tandem with thousands of forwarded TCP connections, the price of a
handshake at the server, and a transfer beside a flood of first packets.

Everything runs on the loopback of one machine. Memory is the resident set of each end, so it holds what the allocator
keeps; a connection's share is the difference over the number of connections.
"""

import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

import tunnels

ROOT = pathlib.Path(__file__).resolve().parent.parent
ALPN = "tndm"
REST_SECONDS = 60
# The whole crowd is one client, which comes faster than one client may by default.
LIMITS = ["rate=50000", "total-rate=50000"]


def arguments():
    parser = argparse.ArgumentParser(prog="bench/scale.py", description=__doc__.splitlines()[0])
    parser.add_argument("--idle", type=int, default=10000, help="idle connections (10000)")
    parser.add_argument("--busy", type=int, default=1000, help="busy connections beside them (1000)")
    parser.add_argument("--seconds", type=float, default=6, help="of each goodput (6)")
    parser.add_argument("--rounds", type=int, default=3, help="of each goodput (3)")
    parser.add_argument("--handshakes", type=int, default=500, help="one after the other (500)")
    parser.add_argument("--flood", type=int, default=2000, help="first packets a second (2000)")
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="where the programs are built")
    return parser.parse_args()


class Target:
    """The server of the crowd."""

    def __init__(self, program):
        self.process = subprocess.Popen([program, "serve"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        self.port = int(self.process.stdout.readline())

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()


class Caller:
    """The calling end of the crowd; `ask` gives one command and returns its answer."""

    def __init__(self, program, port):
        self.process = subprocess.Popen([program, "call", str(port)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True, bufsize=1)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait()

    def ask(self, *words):
        self.process.stdin.write(" ".join(map(str, words)) + "\n")
        answer = self.process.stdout.readline()
        if not answer:
            raise tunnels.Failure(f"{' '.join(map(str, words))}: {self.process.stderr.read().strip()}")
        return json.loads(answer)


def resident_kib(process):
    for line in pathlib.Path(f"/proc/{process.pid}/status").read_text().splitlines():
        if line.startswith("VmRSS:"):
            return int(line.split()[1])
    raise tunnels.Failure(f"{process.args[0]} has ended")


def cpu_seconds(process):
    fields = tunnels.stat_fields(process.pid)
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def come_to_rest(tandem):
    """Seconds until the tunnel has carried what the closed connections of a crowd had under way."""
    start = time.monotonic()
    while time.monotonic() - start < REST_SECONDS:
        before = sum(cpu_seconds(process) for process in tandem.processes)
        time.sleep(0.5)
        if sum(cpu_seconds(process) for process in tandem.processes) - before < 0.05:
            break
    return time.monotonic() - start


def busy(caller, count, chosen, tandem=None):
    """Median Mbit/s, and the last run's answer. With `tandem`, a run begins when what the one before left behind is gone."""
    runs = []
    for _ in range(chosen.rounds):
        runs.append(caller.ask("busy", count, chosen.seconds))
        runs[-1]["rest"] = come_to_rest(tandem) if tandem else 0
    return statistics.median(run["mbit"] for run in runs), runs[-1]


def crowd(tandem, chosen):
    program = chosen.build / "bin/crowd"
    with Caller(program, tandem.port) as caller:
        caller.ask("busy", 1, 1)
        before = [resident_kib(process) for process in tandem.processes]
        single, _ = busy(caller, 1, chosen)
        opened = caller.ask("idle", chosen.idle)["seconds"]
        after = [resident_kib(process) for process in tandem.processes]
        print(f"{chosen.idle} idle connections: opened in {opened:.1f} s, {chosen.idle / opened:.0f} a second")
        for name, one, two in zip(("server", "client"), before, after):
            print(f"  memory at the {name}: {one / 1024:.0f} MiB before, {two / 1024:.0f} MiB after, "
                  f"{(two - one) / chosen.idle:.2f} KiB a connection")
        print(f"  one byte over each of them, there and back: {caller.ask('ping', chosen.idle)['seconds']:.2f} s")
        beside, _ = busy(caller, 1, chosen)
        many, last = busy(caller, chosen.busy, chosen, tandem)
        full = [resident_kib(process) for process in tandem.processes]
        print(f"goodput of one connection alone {single:.0f} Mbit/s; beside the idle ones {beside:.0f}; of {chosen.busy} beside "
              f"them {many:.0f}: {many / single:.2f} of one alone (target 0.8), {many / beside:.2f} of one beside them")
        print(f"  of those, the slowest got {last['least_kib']:.0f} KiB, the fastest {last['most_kib']:.0f} KiB; "
              f"all had begun after {last['started']:.1f} s; memory {full[0] / 1024:.0f} MiB at the server, "
              f"{full[1] / 1024:.0f} MiB at the client; at rest {last['rest']:.1f} s after they were closed")
        print(f"  the idle ones afterwards: {caller.ask('ping', chosen.idle)['seconds']:.2f} s there and back")


def handshakes(tandem, chosen):
    server = tandem.processes[0]
    port = str(tandem.link_port)
    before = cpu_seconds(server)
    done = subprocess.run([chosen.build / "bin/quic_calls", "handshakes", port, ALPN, str(chosen.handshakes)],
                          capture_output=True, text=True)
    if done.returncode != 0:
        raise tunnels.Failure(done.stderr.strip())
    used = cpu_seconds(server) - before
    print(f"{chosen.handshakes} handshakes in {float(done.stdout):.2f} s: {1000 * used / chosen.handshakes:.2f} ms of the "
          "server's CPU each")


def flood(tandem, chosen):
    with Caller(chosen.build / "bin/crowd", tandem.port) as caller:
        alone, _ = busy(caller, 1, chosen)
        beside = []
        for _ in range(chosen.rounds):
            command = [chosen.build / "bin/quic_calls", "flood", str(tandem.link_port), ALPN, str(chosen.flood), str(chosen.seconds)]
            with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as attack:
                if attack.stdout.readline() != "ready\n":
                    raise tunnels.Failure(attack.stderr.read().strip())
                attack.stdin.write("\n")
                attack.stdin.flush()
                beside.append(caller.ask("busy", 1, chosen.seconds)["mbit"])
                sent = int(attack.communicate()[0])
        share = statistics.median(beside) / alone
        print(f"a transfer alone {alone:.0f} Mbit/s; beside {sent / chosen.seconds:.0f} forged first packets a second "
              f"{statistics.median(beside):.0f} ({min(beside):.0f}-{max(beside):.0f}): {share:.2f} (target 0.8)")


def main():
    chosen = arguments()
    tunnels.Tandem.program = chosen.build / "bin/tandem"
    failures = 0
    with tempfile.TemporaryDirectory(prefix="tandem-scale.") as work, Target(chosen.build / "bin/crowd") as target:
        for part in (crowd, handshakes, flood):
            directory = pathlib.Path(work) / part.__name__
            directory.mkdir()
            tandem = tunnels.Tandem(directory, target.port)
            tandem.limits = LIMITS
            try:
                tandem.start()
                part(tandem, chosen)
            except tunnels.Failure as failure:
                failures += 1
                print(f"{part.__name__}: {failure}", file=sys.stderr)
                for log in sorted(directory.glob("*.log")):
                    print(f"  {log.name}: " + " | ".join(log.read_text(errors="replace").splitlines()[-5:]), file=sys.stderr)
            finally:
                tandem.stop()
            sys.stdout.flush()
    return 1 if failures else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
