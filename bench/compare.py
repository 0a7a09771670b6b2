"""Measures tandem beside other tunnels on the loopback of one machine and prints one table.

Every round measures each tunnel in turn, so that whatever else the machine does falls on all of them alike; the table
has the medians over the rounds, with the lowest and the highest in brackets.
"""

import argparse
import pathlib
import signal
import statistics
import subprocess
import sys
import tempfile

import tunnels

ROOT = pathlib.Path(__file__).resolve().parent.parent
TIMEOUT_SECONDS = 300

# (key, heading, whether more is better)
COLUMNS = [
    ("down", "down MiB/s", True),
    ("up", "up MiB/s", True),
    ("cpu", "CPU s/GiB", False),
    ("short1", "conn/s, 1 at once", True),
    ("short8", "conn/s, 8 at once", True),
]


def arguments():
    parser = argparse.ArgumentParser(prog="bench/run.sh", description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5, help="measurements of each tunnel (5)")
    parser.add_argument("--mib", type=int, default=1024, help="size of a bulk transfer in MiB (1024)")
    parser.add_argument("--connections", type=int, default=500, help="short connections a measurement (500)")
    parser.add_argument("--only", default=",".join(tunnels.ALL), metavar="NAME,...",
                        help=f"tunnels to measure ({','.join(tunnels.ALL)})")
    parser.add_argument("--congestion", help="tandem's congestion control, if not its default")
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="where the programs are built")
    chosen = parser.parse_args()
    chosen.only = chosen.only.split(",")
    unknown = set(chosen.only) - set(tunnels.ALL)
    if unknown or min(chosen.rounds, chosen.mib, chosen.connections) < 1:
        parser.error(f"unknown tunnels: {', '.join(unknown)}" if unknown else "counts start at 1")
    return chosen


class Bench:
    def __init__(self, chosen):
        self.chosen = chosen
        self.program = chosen.build / "bin/tcp_bench"

    def seconds(self, *command):
        done = subprocess.run([self.program, *map(str, command)], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                              timeout=TIMEOUT_SECONDS)
        if done.returncode != 0:
            raise tunnels.Failure(done.stderr.strip())
        return float(done.stdout)

    def measure(self, tunnel):
        """One round of one tunnel: a value for each column."""
        mib, count = self.chosen.mib, self.chosen.connections
        before = tunnel.cpu_seconds()
        down = self.seconds("down", tunnel.port, mib << 20)
        up = self.seconds("up", tunnel.port, mib << 20)
        cpu = tunnel.cpu_seconds() - before
        return {
            "down": mib / down,
            "up": mib / up,
            "cpu": cpu / (2 * mib / 1024),
            "short1": count / self.seconds("short", tunnel.port, count, 1),
            "short8": count / self.seconds("short", tunnel.port, count, 8),
        }


def number(value):
    return f"{value:.2f}" if value < 10 else f"{value:.0f}"


def cell(values):
    median = number(statistics.median(values))
    return f"{median} ({number(min(values))}-{number(max(values))})"


def ratio_rows(medians):
    """Each tandem row over each other tunnel, and over the better of them column by column."""
    others = {name: medians[name] for name in ("ssh -L", "stunnel") if name in medians}
    for ours in ("tandem", "tandem, 2 paths"):
        if ours not in medians:
            continue
        for name, theirs in others.items():
            yield f"{ours} / {name}", {key: medians[ours][key] / theirs[key] for key, _, _ in COLUMNS if theirs[key]}
        if len(others) == 2:
            best = {key: (max if more else min)(each[key] for each in others.values()) for key, _, more in COLUMNS}
            yield f"{ours} / better", {key: medians[ours][key] / best[key] for key in best if best[key]}


def print_table(results):
    width = 28
    print("\n" + " " * width + "".join(heading.rjust(22) for _, heading, _ in COLUMNS))
    for name, rounds in results.items():
        print(name.ljust(width) + "".join(cell([each[key] for each in rounds]).rjust(22) for key, _, _ in COLUMNS))
    medians = {name: {key: statistics.median(each[key] for each in rounds) for key, _, _ in COLUMNS}
               for name, rounds in results.items()}
    for name, row in ratio_rows(medians):
        print(name.ljust(width) + "".join((f"{row[key]:.2f}x" if key in row else "-").rjust(22) for key, _, _ in COLUMNS))
    print("\nCPU is that of the tunnel's processes, both ends, per GiB carried; less is better there.", flush=True)


def run_rounds(bench, running, rounds):
    """Measures until all rounds are done; a tunnel that fails drops out. Returns the results and the failures."""
    results = {tunnel.name: [] for tunnel in running}
    failures = {}
    for index in range(rounds):
        for tunnel in running:
            if tunnel.name in failures:
                continue
            try:
                results[tunnel.name].append(bench.measure(tunnel))
            except (tunnels.Failure, subprocess.TimeoutExpired) as error:
                failures[tunnel.name] = f"round {index + 1}: {error}"
                continue
            done = results[tunnel.name][-1]
            print(f"round {index + 1}: {tunnel.name}: " + ", ".join(f"{key} {number(done[key])}" for key, _, _ in COLUMNS),
                  flush=True)
    return {name: rounds_done for name, rounds_done in results.items() if name not in failures}, failures


def main():
    chosen = arguments()
    # An end by signal unwinds like any other: the tunnels' processes and files go.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    tunnels.Tandem.program = chosen.build / "bin/tandem"
    tunnels.Tandem.congestion = chosen.congestion
    bench = Bench(chosen)
    failures = {}
    running = []
    target = subprocess.Popen([bench.program, "target"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    with tempfile.TemporaryDirectory(prefix="tandem-bench.") as work:
        try:
            target_port = int(target.stdout.readline())
            for key in chosen.only:
                directory = pathlib.Path(work) / key
                directory.mkdir()
                tunnel = tunnels.ALL[key](directory, target_port)
                running.append(tunnel)
                try:
                    tunnel.start()
                except tunnels.Failure as error:
                    failures[tunnel.name] = str(error)
            started = [tunnel for tunnel in running if tunnel.name not in failures]
            results, late = run_rounds(bench, started, chosen.rounds)
            failures.update(late)
        finally:
            for tunnel in running:
                tunnel.stop()
            target.terminate()
            target.wait()
    if results:
        print_table(results)
    for name, reason in failures.items():
        print(f"{name}: no result: {reason}", file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
