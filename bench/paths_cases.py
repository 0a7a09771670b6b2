"""The cases of bench/paths.py: links, what happens on them, and the figures taken from it."""

import dataclasses
import json
import subprocess
import threading
import time

from rig import Failure, Link

SPECIAL = ("quic", "tandem-dev", "tandem-redundant")  # peers that a case must name
WARM_UP = 2.0  # seconds of a bulk flow that its rate leaves out: slow start, and the joining of paths


def link(mbit, round_trip_ms, loss="0"):
    """Half the round trip each way, and a queue of one bandwidth-delay product."""
    queue = max(30_000, int(mbit * 1e6 / 8 * round_trip_ms / 1e3))
    return Link(f"{mbit}M", f"{round_trip_ms / 2}ms", loss, str(queue))


@dataclasses.dataclass(frozen=True)
class Figure:
    """A number of a case: how it is called, what is better, and what it should reach."""

    key: str
    unit: str
    more_is_better: bool = True
    target: float | None = None


@dataclasses.dataclass(frozen=True)
class Case:
    name: str
    links: tuple
    measure: object
    figures: tuple
    seconds: float = 12
    only_peers: tuple = ()  # none: all that carry TCP
    also: tuple = ()  # peers that only some cases concern
    compared_with: str = "mptcp"

    def concerns(self, peer):
        return peer in self.only_peers if self.only_peers else peer not in SPECIAL or peer in self.also


class Sampler:
    """Reads the links' counters all along, so that a case can say when which link carried how much."""

    PERIOD = 0.05

    def __init__(self, rig):
        self.rig = rig
        self.samples = []
        self.lock = threading.Lock()
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self.sample_all)

    def __enter__(self):
        self.thread.start()
        return self

    def __exit__(self, *_):
        self.stopping.set()
        self.thread.join()

    def sample_all(self):
        while not self.stopping.wait(self.PERIOD):
            with self.lock:
                self.samples.append((time.monotonic(), self.rig.statistics()))

    def switch(self, action, *words):
        """Something done to the rig beside the sampling; returns when it was done."""
        with self.lock:
            action(*words)
        return time.monotonic()

    def delivered(self, number, which, start, end):
        """Bytes a second that a link delivered between two moments."""
        inside = [(at, each[number][which]["out_bytes"]) for at, each in self.samples if start <= at <= end]
        if len(inside) < 2:
            return 0.0
        return (inside[-1][1] - inside[0][1]) / (inside[-1][0] - inside[0][0])

    def timeline(self, step=0.25):
        """For each link and direction, the Mbit/s that it delivered in each such time."""
        if not self.samples or not self.samples[0][1]:
            return []
        first, last = self.samples[0][0], self.samples[-1][0]
        starts = [first + step * i for i in range(int((last - first) / step))]
        return [{which: [round(self.delivered(number, which, at, at + step + self.PERIOD) * 8 / 1e6, 1) for at in starts]
                 for which in ("up", "down")} for number in range(len(self.samples[0][1]))]

    def lateness(self):
        """The share of packets that the rig itself delivered more than a millisecond late, and the worst, in ms."""
        if not self.samples or not self.samples[0][1]:
            return 0.0, 0.0
        last = [side for each in self.samples[-1][1] for side in each.values()]
        worst = max(side["most_late_us"] for _, sample in self.samples for each in sample for side in each.values())
        packets = sum(side["out_packets"] for side in last)
        return sum(side["late_packets"] for side in last) / max(packets, 1), worst / 1000


# --- what flows say ---------------------------------------------------------------------------------------------------


def finish(process, seconds):
    """The JSON object that a flow prints."""
    try:
        output, error = process.communicate(timeout=seconds + 60)
    except subprocess.TimeoutExpired as expired:
        raise Failure("the flow hangs") from expired
    if process.returncode != 0:
        raise Failure(f"the flow failed: {error.strip()}")
    return json.loads(output)


def whole(report):
    if not report["intact"]:
        raise Failure("the end of the stream is missing")
    return report


def rate(report, seconds):
    """Mbit/s of payload from the warm-up to the end of sending."""
    width = report["bin_ms"] / 1000
    bins = report["bins"][int(WARM_UP / width):int(seconds / width)]
    return sum(bins) * 8 / 1e6 / (seconds - WARM_UP)


def timeline(report, step=0.1):
    """Mbit/s of payload in each such time."""
    per = round(step * 1000 / report["bin_ms"])
    bins = report["bins"]
    return [round(sum(bins[i:i + per]) * 8 / 1e6 / step, 1) for i in range(0, len(bins), per)]


def longest_pause(report, start=0.0, end=float("inf")):
    """Milliseconds, of the pauses that reach into the time between two moments."""
    return max((length * 1000 for at, length in report["gaps"] if at + length >= start and at <= end), default=0.0)


def quantile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def shares(case, sampler, seconds, which="down"):
    """How much of each link's rate was used, headers included, in percent."""
    end = sampler.samples[0][0] + seconds
    used = [sampler.delivered(i, which, end - seconds + WARM_UP, end) * 8 for i in range(len(case.links))]
    return [round(100 * each / (float(link.rate.rstrip("M")) * 1e6), 1) for each, link in zip(used, case.links)]


# --- measurements -----------------------------------------------------------------------------------------------------


def bulk(*directions):
    """Flows at once, each with its direction."""

    def measure(case, peer, sampler):
        flows = [peer.flow(direction, case.seconds) for direction in directions]
        reports = [whole(finish(flow, case.seconds)) for flow in flows]
        rates = [rate(report, case.seconds) for report in reports]
        result = {"rate": sum(rates), "rates": rates, "goodput": [timeline(report) for report in reports]}
        result["pause"] = max(longest_pause(each, each["start"] + WARM_UP, each["start"] + case.seconds) for each in reports)
        for which in sorted(set(directions)):
            result[which] = sum(each for each, direction in zip(rates, directions) if direction == which)
            result[f"used_{which}"] = shares(case, sampler, case.seconds, which)
        return result

    return measure


def unlimited(case, peer, _):
    """A bulk flow that only the processors limit."""
    if hasattr(peer, "download"):
        return {"rate": peer.download()}
    return {"rate": rate(whole(finish(peer.flow("down", case.seconds), case.seconds)), case.seconds)}


def objects(size):
    def measure(case, peer, _):
        times = finish(peer.flow("objects", case.seconds, size), case.seconds)["times"]
        return {"per_second": len(times) / case.seconds, "p50": quantile(times, 0.5), "p99": quantile(times, 0.99)}

    return measure


def blackhole(number, start, length):
    """A link that swallows everything for a while, and nobody is told."""

    def measure(case, peer, sampler):
        flow = peer.flow("down", case.seconds)
        time.sleep(start)
        went = sampler.switch(peer.rig.dark, number, True)
        time.sleep(length)
        came = sampler.switch(peer.rig.dark, number, False)
        report = whole(finish(flow, case.seconds))
        wanted = 0.8 * float(case.links[number].rate.rstrip("M")) * 1e6 / 8
        back = next((at - came for at, _ in sampler.samples
                     if at > came + 0.2 and sampler.delivered(number, "down", at - 0.2, at) >= wanted), None)
        return {"pause": longest_pause(report, went - 0.05, came), "pause_after": longest_pause(report, came),
                "back": back if back is not None else case.seconds, "rate": rate(report, case.seconds),
                "goodput": [timeline(report)],
                "gaps": [gap for gap in report["gaps"] if gap[1] > 0.1], "went": went, "came": came}

    return measure


def flapping(number, down_seconds, up_seconds):
    """The client's device is taken down and brought up again, over and over."""

    def measure(case, peer, sampler):
        flow = peer.flow("down", case.seconds)
        time.sleep(WARM_UP)
        end = time.monotonic() + case.seconds - WARM_UP - down_seconds - up_seconds
        pauses_at = []
        while time.monotonic() < end and flow.poll() is None:
            pauses_at.append(sampler.switch(peer.rig.down, number))
            time.sleep(down_seconds)
            sampler.switch(peer.rig.up, number)
            time.sleep(up_seconds)
        report = whole(finish(flow, case.seconds))
        pauses = [longest_pause(report, at - 0.05, at + down_seconds) for at in pauses_at]
        return {"pause": max(pauses), "pauses": pauses, "down_at": pauses_at, "start": report["start"], "goodput": [timeline(report)],
                "gaps": [gap for gap in report["gaps"] if gap[1] > 0.1], "rate": rate(report, case.seconds), "rounds": len(pauses)}

    return measure


def exchange(beside=None):
    """Messages of 200 bytes, fifty a second at most; `beside` starts what competes and returns its process."""

    def measure(case, peer, _):
        other = beside(case, peer) if beside else None
        if other:
            time.sleep(WARM_UP)
        times = finish(peer.flow("exchange", case.seconds, 200, 20), case.seconds)["times"]
        result = {"p50": quantile(times, 0.5), "p99": quantile(times, 0.99), "most": max(times), "count": len(times)}
        if other:
            result["rate"] = rate(whole(finish(other, case.seconds)), case.seconds + WARM_UP)
        return result

    return measure


def own_bulk(case, peer):
    return peer.flow("down", case.seconds + WARM_UP)


def foreign_bulk(case, peer):
    """Plain TCP over the first link, with cubic, which fills the queue; to a server of its own."""
    rig = peer.rig
    peer.start(rig.server, peer.chosen.flow, "serve", 6001, "cubic")
    time.sleep(0.2)
    return rig.start(rig.client, peer.chosen.flow, "down", "10.90.0.2", 6001, case.seconds + WARM_UP, stdout=subprocess.PIPE,
                     stderr=subprocess.PIPE)


UNEQUAL = (link(80, 20), link(20, 80))
LOSSY = (link(80, 20, "1%"), link(20, 80, "1%"))
THREE = (link(60, 20), link(30, 50), link(10, 100))


def rates(target=None):
    return (Figure("rate", "Mbit/s", True, target), Figure("pause", "longest pause, ms", False))


QUANTILES = (Figure("p50", "answer p50, ms", False), Figure("p99", "answer p99, ms", False))

CASES = [
    Case("80/20 + 20/80", UNEQUAL, bulk("down"), rates(92)),
    Case("80/20 + 20/80, 1 % loss", LOSSY, bulk("down"), rates(90)),
    Case("100/10 + 100/10", (link(100, 10), link(100, 10)), bulk("down"), rates(184)),
    Case("50/10 + 50/150", (link(50, 10), link(50, 150)), bulk("down"), rates(92)),
    Case("60/20 + 30/50 + 10/100", THREE, bulk("down"), rates(92)),
    Case("upload", UNEQUAL, bulk("up"), rates()),
    Case("up and down at once", UNEQUAL, bulk("up", "down"),
         (Figure("down", "Mbit/s down", True), Figure("up", "Mbit/s up", True))),
    Case("four connections", UNEQUAL, bulk(*["down"] * 4), rates()),
    Case("64 KiB objects", UNEQUAL, objects(65536), (Figure("per_second", "objects/s", True), *QUANTILES)),
    Case("blackhole of 4 s", UNEQUAL, blackhole(0, 4, 4),
         (Figure("pause", "longest pause, ms", False, 400), Figure("back", "s until back", False, 1), Figure("rate", "Mbit/s")), 14),
    Case("device down and up", UNEQUAL, flapping(0, 1, 2),
         (Figure("pause", "worst pause, ms", False, 200), Figure("rate", "Mbit/s"), Figure("rounds", "rounds")), 20,
         also=("tandem-dev",)),
    Case("200 bytes, both idle", UNEQUAL, exchange(), QUANTILES),
    Case("200 bytes, first saturated", UNEQUAL, exchange(foreign_bulk), (*QUANTILES, Figure("rate", "foreign Mbit/s"))),
    Case("200 bytes beside own bulk", UNEQUAL, exchange(own_bulk), (*QUANTILES, Figure("rate", "bulk Mbit/s"))),
    Case("200 bytes, 5 % loss", (link(80, 20, "5%"), link(20, 80, "5%")), exchange(), QUANTILES,
         also=("tandem-redundant",)),
    Case("one path, no limit", (), unlimited, (Figure("rate", "Mbit/s"),), 10, ("tandem", "tcp", "quic"), compared_with="quic"),
]
