#!/usr/bin/env python3
"""Checks what the links promise, by ping and iperf3: rate and round trip within 3 %, the share and the repetition of losses,
the queue's limit, darkness, a device that goes and comes back, and refusals. Needs root, iperf3 and iputils-ping."""

import argparse
import json
import pathlib
import re
import subprocess
import sys
import time

from rig import Failure, Link, Rig, SERVER, end_on_signals

TOLERANCE = 0.03
IP_AND_UDP = 28
PAYLOAD = 1400


class Wrong(Exception):
    pass


def check(what, holds):
    print(f"{'ok   ' if holds else 'WRONG'} {what}", flush=True)
    if not holds:
        raise Wrong(what)


def near(what, measured, wanted, tolerance=TOLERANCE):
    check(f"{what}: {measured:.4g}, wanted {wanted:.4g} within {tolerance:.0%}", abs(measured - wanted) <= tolerance * wanted)


def run_in(rig, namespace, *command):
    process = rig.start(namespace, *command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    output, error = process.communicate(timeout=60)
    rig.stop(process)
    return process.returncode, output, error


def ping(rig, source, count=40):
    """Answers received, and their median round trip in ms."""
    _, output, _ = run_in(rig, rig.client, "ping", "-n", "-c", count, "-i", "0.02", "-W", "1", "-I", source, SERVER)
    times = sorted(float(each) for each in re.findall(r"time=([0-9.]+)", output))
    return len(times), times[len(times) // 2] if times else None


def blast(rig, number, mbit, seconds, reverse=False):
    """Mbit/s on the wire that arrived while a UDP flow was sent at `mbit`, iperf3's share of losses, and the fullest queue."""
    server = rig.start(rig.server, "iperf3", "-s", "-1", "--forceflush", stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    server.stdout.readline(), server.stdout.readline()  # a line of dashes, then "Server listening"
    which = "down" if reverse else "up"
    command = ["iperf3", "-c", f"10.90.{number}.2", "-B", f"10.90.{number}.1", "-u", "-b", f"{mbit}M", "-l", PAYLOAD, "-t", seconds,
               "-J", *(["-R"] if reverse else [])]
    flow = rig.start(rig.client, *command, stdout=subprocess.PIPE)
    time.sleep(seconds / 4)
    first, at = rig.statistics()[number][which]["out_bytes"], time.monotonic()
    time.sleep(seconds / 2)
    last, then = rig.statistics()[number][which], time.monotonic()
    report = json.loads(flow.communicate()[0])
    rig.stop(flow)
    rig.stop(server)
    if "error" in report:
        raise Failure(f"iperf3: {report['error']}")
    return (last["out_bytes"] - first) * 8 / 1e6 / (then - at), report["end"]["sum"]["lost_percent"] / 100, last["most_queued"]


def rate_and_round_trip(program):
    links = [Link("80M", "10ms", "0", "200k"), Link("20M", "40ms", "0", "200k"), Link("2.5M", "0ms", "0", "20k")]
    with Rig(program) as rig:
        for number, link in enumerate(links):
            rig.add(link)
            for source in (f"10.90.{number}.1", f"l{number}"):
                received, time_ms = ping(rig, source)
                check(f"link {number} answers every ping from {source}", received == 40)
                # 84 bytes take their time on a slow link, each way.
                wanted = 2 * float(link.delay[:-2]) + 2 * 84 * 8 / (float(link.rate[:-1]) * 1e3)
                # The rig gathers its wake-ups, and the machine adds its own.
                check(f"round trip {time_ms} ms, wanted {wanted:.2f} within 3 % or 0.5 ms",
                      abs(time_ms - wanted) <= max(TOLERANCE * wanted, 0.5))
            for reverse in (False, True):
                mbit, _, queued = blast(rig, number, 1.25 * float(link.rate[:-1]), 3, reverse)
                near(f"link {number} {'down' if reverse else 'up'}, Mbit/s", mbit, float(link.rate[:-1]))
                limit = 1000 * int(link.queue[:-1])
                check(f"its queue was full with {queued} bytes of {limit}", limit - 1500 <= queued <= limit)


def losses(program):
    """The share, and that the same seed loses the same packets."""
    seen = []
    for seed in (7, 7, 8):
        with Rig(program) as rig:
            rig.add(Link("none", "1ms", "5%"), seed)
            # Before iperf3's own TCP: only pings pass, so the order of packets is the same each time.
            _, output, _ = run_in(rig, rig.client, "ping", "-n", "-c", 300, "-i", "0.005", "-W", "1", SERVER)
            seen.append(tuple(map(int, re.findall(r"icmp_seq=(\d+)", output))))
            if seed == 8:
                rig.configure(0, Link("none", "1ms", "1%"))
                _, lost, _ = blast(rig, 0, 20, 4)
                check(f"1 % loss on 7000 packets is seen as {lost:.2%}", 0.006 <= lost <= 0.014)
    check("the same seed loses the same packets", seen[0] == seen[1] and len(seen[0]) < 300)
    check("another seed loses others", seen[0] != seen[2])


def darkness_and_devices(program):
    with Rig(program) as rig:
        rig.add(Link("10M", "5ms"))
        rig.add(Link("10M", "5ms"))
        rig.dark(0, True)
        check("nothing passes in the dark", ping(rig, "10.90.0.1", 10)[0] == 0)
        check("darkness is one link's", ping(rig, "10.90.1.1", 10)[0] == 10)
        rig.dark(0, False)
        check("light again", ping(rig, "10.90.0.1", 10)[0] == 10)
        for _ in range(3):
            rig.down(0)
            check("a device that is down carries nothing", ping(rig, "l0", 5)[0] == 0)
            rig.up(0)
            check("and carries again when it is up", ping(rig, "10.90.0.1", 5)[0] == 5)
        rig.command("delay", 0, "50ms", "down")
        near("the delay of one direction, ms", ping(rig, "10.90.0.1", 10)[1], 55)
        for command in ("rate 0 20X", "rate 0 -1", "delay 0 10", "loss 0 2", "dark 0 maybe", "rate 9 1M", "rate 0 1M sideways", "x"):
            try:
                rig.command(command)
                check(f"'{command}' is refused", False)
            except Failure:
                pass
        check("what cannot be understood is refused", True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--program", type=pathlib.Path, help="rig_link (build/release/bin/rig_link)")
    program = parser.parse_args().program
    end_on_signals()
    for test in (rate_and_round_trip, losses, darkness_and_devices):
        test(program)


if __name__ == "__main__":
    try:
        main()
    except (Failure, Wrong) as error:
        sys.exit(f"selftest: {error}")
