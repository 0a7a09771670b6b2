#!/usr/bin/env python3
"""Measures tandem, kernel MPTCP and TCP over the same links between two namespaces and prints one table.

A link is written RATE/ROUND TRIP (Mbit/s, ms); its queue holds one bandwidth-delay product, drop-tail. Every
round measures each peer in turn with the same seed of losses; the table has medians, with the lowest and the highest in
brackets. Every measurement is also a JSON line.
"""

import argparse
import json
import os
import pathlib
import platform
import statistics
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "bench/rig"))

import paths_cases  # noqa: E402
import paths_peers  # noqa: E402
from rig import Failure, Rig, end_on_signals, require  # noqa: E402


def arguments():
    parser = argparse.ArgumentParser(prog="bench/paths.py", description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5, help="measurements of each peer in each case (5)")
    parser.add_argument("--only", default="", metavar="TEXT,...", help="cases whose names contain one of these, or their numbers")
    parser.add_argument("--peers", default="tandem,mptcp,tcp,tandem-1,tandem-dev,tandem-redundant,quic", metavar="NAME,...",
                        help=f"of {','.join(paths_peers.ALL)} (all; quic is the QUIC library's example pair)")
    parser.add_argument("--seconds", type=float, help="of each measurement, instead of the case's own")
    parser.add_argument("--congestion", default="bbr", help="tandem's, and the kernel's where it has it (bbr)")
    parser.add_argument("--seed", type=int, default=1, help="of the first round's losses (1)")
    parser.add_argument("--json", type=pathlib.Path, help="where the lines go (build/paths.jsonl)")
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/release", help="where the programs are built")
    parser.add_argument("--tandem", type=pathlib.Path, help="the program, if not the build's")
    parser.add_argument("--list", action="store_true", help="list the cases")
    chosen = parser.parse_args()
    chosen.peers = chosen.peers.split(",")
    unknown = set(chosen.peers) - set(paths_peers.ALL)
    if unknown or chosen.rounds < 1:
        parser.error(f"unknown peers: {', '.join(unknown)}" if unknown else "rounds start at 1")
    chosen.cases = pick(chosen.only)
    if not chosen.cases:
        parser.error("no case has such a name (see --list)")
    chosen.tandem = chosen.tandem or chosen.build / "bin/tandem"
    chosen.flow = chosen.build / "bin/rig_flow"
    chosen.link = chosen.build / "bin/rig_link"
    chosen.json = chosen.json or ROOT / "build/paths.jsonl"
    return chosen


def pick(only):
    words = [word for word in only.split(",") if word]
    return [case for number, case in enumerate(paths_cases.CASES, 1)
            if not words or any(word == str(number) or (not word.isdigit() and word in case.name) for word in words)]


def kernel_congestion(wanted):
    """What TCP and MPTCP use: the same if the kernel lets a namespace choose it."""
    settings = pathlib.Path("/proc/sys/net/ipv4")
    allowed = (settings / "tcp_allowed_congestion_control").read_text().split()
    if wanted in allowed:
        return wanted
    instead = "cubic" if "cubic" in allowed else (settings / "tcp_congestion_control").read_text().strip()
    print(f"paths: this kernel allows {', '.join(allowed)}, not {wanted}: TCP and MPTCP use {instead}", file=sys.stderr)
    return instead


def measure(case, peer_name, chosen, work, seed):
    """The figures of one measurement, with what the rig itself did."""
    with Rig(chosen.link) as rig:
        for each in case.links:
            rig.add(each, seed)
        if not case.links:
            rig.add_veth()
        with paths_peers.ALL[peer_name](rig, chosen, work) as peer, paths_cases.Sampler(rig) as sampler:
            before = peer.cpu_seconds()
            try:
                result = case.measure(case, peer, sampler)
            except Failure as failure:
                raise Failure(f"{failure}\n{peer.output()}") from failure
            if before is not None:
                result["cpu"] = round(peer.cpu_seconds() - before, 2)
            result["late_share"], result["late_ms"] = sampler.lateness()
            result["links"] = sampler.timeline()
    return result


def collect(case, chosen, work, log):
    results = {name: [] for name in chosen.peers if case.concerns(name)}
    for number in range(chosen.rounds):
        for name in results:
            line = {"case": case.name, "peer": name, "round": number, "at": time.time(), "load": os.getloadavg()[0]}
            try:
                result = measure(case, name, chosen, work, chosen.seed + number)
                results[name].append(result)
                line.update(result)
            except Failure as failure:
                line["failure"] = str(failure)
                print(f"paths: {case.name}: {name}, round {number}: {failure}", file=sys.stderr, flush=True)
            print(json.dumps(line), file=log, flush=True)
    return results


# --- the table --------------------------------------------------------------------------------------------------------


def number(value):
    return f"{value:.2f}" if value < 10 else f"{value:.1f}" if value < 100 else f"{value:.0f}"


def cell(values, rounds):
    if not values:
        return "failed"
    text = number(statistics.median(values))
    if len(values) > 1:
        text += f" ({number(min(values))}-{number(max(values))})"
    return text if len(values) == rounds else f"{text}, {rounds - len(values)} failed"


def ratio(results, other, key, more_is_better):
    ours, theirs = ([each[key] for each in results.get(name, [])] for name in ("tandem", other))
    if not ours or not theirs or not statistics.median(theirs) or not statistics.median(ours):
        return ""
    quotient = statistics.median(ours) / statistics.median(theirs)
    return f"{quotient if more_is_better else 1 / quotient:.2f}"


def rows(case, results, chosen):
    for figure in case.figures:
        target = "" if figure.target is None else f"{'>=' if figure.more_is_better else '<'} {figure.target:g}"
        yield [case.name, figure.unit, target, *(cell([each[figure.key] for each in results[name]], chosen.rounds) if name in results else ""
               for name in chosen.peers), ratio(results, case.compared_with, figure.key, figure.more_is_better)]


def table(lines):
    widths = [max(len(line[i]) for line in lines) for i in range(len(lines[0]))]
    lines.insert(1, ["-" * width for width in widths])
    return "\n".join("| " + " | ".join(word.ljust(width) for word, width in zip(line, widths)) + " |" for line in lines)


def note_on_rig(everything):
    worst = max((each["late_ms"] for results in everything for each in results), default=0)
    share = max((each["late_share"] for results in everything for each in results), default=0)
    return (f"The rig's own lateness: at most {share:.2%} of a measurement's packets by more than 1 ms, the worst by {worst:.1f} ms. "
            "Ratio: tandem to mptcp (without a limit: to quic), above 1 is better for tandem.")


def main():
    chosen = arguments()
    if chosen.list:
        for at, case in enumerate(paths_cases.CASES, 1):
            print(f"{at:2} {case.name}")
        return 0
    require()
    for program in (chosen.tandem, chosen.flow, chosen.link):
        if not os.access(program, os.X_OK):
            raise Failure(f"{program} is missing: build the targets tandem, rig_link and rig_flow")
    chosen.kernel_congestion = kernel_congestion(chosen.congestion)
    if chosen.seconds:
        chosen.cases = [paths_cases.dataclasses.replace(case, seconds=chosen.seconds) for case in chosen.cases]
    end_on_signals()
    chosen.json.parent.mkdir(parents=True, exist_ok=True)
    lines = [["case", "figure", "target", *chosen.peers, "ratio"]]
    everything = []
    with tempfile.TemporaryDirectory(prefix="tandem-paths-") as work, open(chosen.json, "a") as log:
        for case in chosen.cases:
            results = collect(case, chosen, pathlib.Path(work), log)
            everything += results.values()
            lines += rows(case, results, chosen)
            print(f"paths: {case.name}: done", file=sys.stderr, flush=True)
    print(f"{time.strftime('%Y-%m-%d')}, {platform.release()}, {os.cpu_count()} cores, load {os.getloadavg()[0]:.1f}; "
          f"congestion control: tandem {chosen.congestion}, kernel {chosen.kernel_congestion}; {chosen.rounds} rounds\n")
    print(table(lines))
    print("\n" + note_on_rig(everything))
    return 0 if all(len(results) == chosen.rounds for results in everything) else 1


if __name__ == "__main__":
    try:
        sys.exit(main())
    except Failure as failure:
        sys.exit(f"paths: {failure}")
