#!/usr/bin/env python3
"""Two network namespaces and the links between them.

Link i leads from 10.90.i.1 (device l<i>, client's namespace) to 10.90.i.2 (server's). The server has one address more,
10.91.0.1, which every link reaches: at the client the source address or the device chooses the link, and without either
the first link that is up is taken.

As a program: makes the links, prints the namespaces' names and passes what it reads to rig_link (`dark 0 on`, `stats`,
...; `down 0` and `up 0` switch the client's device); everything is gone at the end of the input.
"""

import argparse
import dataclasses
import json
import os
import pathlib
import signal
import subprocess
import sys

SERVER = "10.91.0.1"
ROOT = pathlib.Path(__file__).resolve().parent.parent.parent

# Room for several bandwidth-delay products; what the kernel offers by default (4 MiB at the sender) would be what limits
# a transfer over all links.
SYSCTLS = {
    "net.ipv4.tcp_rmem": "4096 131072 33554432",
    "net.ipv4.tcp_wmem": "4096 131072 33554432",
    "net.ipv4.conf.all.rp_filter": "0",
    "net.ipv4.conf.default.rp_filter": "0",
    "net.ipv6.conf.all.disable_ipv6": "1",
    "net.ipv6.conf.default.disable_ipv6": "1",
    "net.ipv4.tcp_no_metrics_save": "1",
}


class Failure(Exception):
    pass


@dataclasses.dataclass
class Link:
    """What a link is like, in rig_link's words; the delay is one way, the queue is each direction's."""

    rate: str = "none"
    delay: str = "0ms"
    loss: str = "0"
    queue: str = "1M"

    @staticmethod
    def parse(text):
        """From "80M,10ms,loss=1%,queue=200k"; rate and delay come first."""
        words = text.split(",")
        if len(words) < 2:
            raise argparse.ArgumentTypeError(f"not RATE,DELAY[,loss=SHARE][,queue=BYTES]: '{text}'")
        link = Link(words[0], words[1])
        for word in words[2:]:
            name, _, value = word.partition("=")
            if name not in ("loss", "queue"):
                raise argparse.ArgumentTypeError(f"neither loss nor queue: '{word}'")
            setattr(link, name, value)
        return link


def run(*command):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True)
    if done.returncode != 0:
        raise Failure(f"{' '.join(command)}: {done.stderr.strip()}")
    return done.stdout


def stop_process(process, seconds=5):
    """Ends a process that this program started."""
    if process.poll() is None:
        process.terminate()
        try:
            process.wait(seconds)
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def require():
    """Refuses, with the reason, what cannot work here."""
    if os.geteuid() != 0:
        raise Failure("network namespaces and TUN devices need root")
    if not os.path.exists("/dev/net/tun"):
        raise Failure("/dev/net/tun is missing: the kernel's tun driver is not loaded, or this container does not have it")


class Rig:
    """A context manager. Processes started by it end with it."""

    def __init__(self, program=None):
        require()
        self.program = program or ROOT / "build/release/bin/rig_link"
        if not os.access(self.program, os.X_OK):
            raise Failure(f"{self.program} is missing: build the target rig_link")
        self.client = f"tandem-c-{os.getpid()}"
        self.server = f"tandem-s-{os.getpid()}"
        self.links = []
        self.processes = []
        self.control = None
        self.made = []

    def __enter__(self):
        try:
            for name in (self.client, self.server):
                run("ip", "netns", "add", name)
                self.made.append(name)
                run("ip", "-n", name, "link", "set", "lo", "up")
                for key, value in SYSCTLS.items():
                    run("ip", "netns", "exec", name, "sysctl", "-qw", f"{key}={value}")
            run("ip", "-n", self.server, "addr", "add", f"{SERVER}/32", "dev", "lo")
            self.control = subprocess.Popen([self.program], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, bufsize=1)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for process in reversed(self.processes):
            stop_process(process)
        if self.control:
            self.control.stdin.close()
            self.control.wait()
        for name in self.made:
            subprocess.run(["ip", "netns", "del", name], check=False)
        self.made = []

    def command(self, *words):
        """One command to rig_link; its answer without the "ok"."""
        line = " ".join(map(str, words))
        self.control.stdin.write(line + "\n")
        answer = self.control.stdout.readline()
        if not answer.startswith("ok"):
            raise Failure(f"rig_link: {line}: {answer.strip() or 'it has ended'}")
        return answer[2:].strip()

    def add(self, link, seed=1):
        number = int(self.command("add", self.client, f"l{len(self.links)}", self.server, f"l{len(self.links)}"))
        self.links.append(link)
        for name in (self.client, self.server):
            device = ("dev", f"l{number}")
            # The packets that a link may have to take at once; what waits is the link's own business.
            run("ip", "-n", name, "link", "set", *device, "mtu", "1500", "txqueuelen", "10000")
            host = 1 if name == self.client else 2
            run("ip", "-n", name, "addr", "add", f"10.90.{number}.{host}/24", *device)
        self.command("seed", number, seed + number)
        self.configure(number, link)
        run("ip", "-n", self.server, "link", "set", f"l{number}", "up")
        for selector in (("from", f"10.90.{number}.1"), ("oif", f"l{number}")):
            run("ip", "-n", self.client, "rule", "add", *selector, "lookup", str(100 + number))
        self.up(number)
        return number

    def add_veth(self):
        """Instead of links: a pair of devices l0 without a limit, with the addresses of link 0. Only the processors' speed
        limits what passes."""
        run("ip", "-n", self.client, "link", "add", "l0", "type", "veth", "peer", "name", "l0", "netns", self.server)
        for host, name in ((1, self.client), (2, self.server)):
            run("ip", "-n", name, "addr", "add", f"10.90.0.{host}/24", "dev", "l0")
            run("ip", "-n", name, "link", "set", "l0", "up")
        run("ip", "-n", self.client, "route", "add", SERVER, "via", "10.90.0.2")

    def configure(self, number, link):
        self.links[number] = link
        for field in dataclasses.fields(link):
            self.command(field.name, number, getattr(link, field.name))

    def down(self, number):
        """Takes the client's device down; the kernel forgets the routes over it."""
        run("ip", "-n", self.client, "link", "set", f"l{number}", "down")

    def up(self, number):
        """Brings the client's device up, with its routes, as a network manager would."""
        run("ip", "-n", self.client, "link", "set", f"l{number}", "up")
        run("ip", "-n", self.client, "route", "replace", "default", "dev", f"l{number}", "table", str(100 + number))
        run("ip", "-n", self.client, "route", "replace", "default", "dev", f"l{number}", "metric", str(10 + number))

    def dark(self, number, on):
        self.command("dark", number, "on" if on else "off")

    def statistics(self):
        return json.loads(self.command("stats"))

    def start(self, namespace, *command, **popen):
        """A process in one of the namespaces, which ends with the rig."""
        popen.setdefault("stdin", subprocess.DEVNULL)
        process = subprocess.Popen(["ip", "netns", "exec", namespace, *map(str, command)], text=True, **popen)
        self.processes.append(process)
        return process

    def stop(self, process):
        stop_process(process)
        if process in self.processes:
            self.processes.remove(process)


def end_on_signals():
    """SIGTERM and SIGHUP unwind like SIGINT does, so that the namespaces are removed."""
    for number in (signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit(1))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--link", action="append", type=Link.parse, required=True, metavar="RATE,DELAY[,loss=P][,queue=B]")
    parser.add_argument("--seed", type=int, default=1, help="of the losses (1)")
    parser.add_argument("--program", type=pathlib.Path, help="rig_link (build/release/bin/rig_link)")
    chosen = parser.parse_args()
    end_on_signals()
    with Rig(chosen.program) as rig:
        for link in chosen.link:
            rig.add(link, chosen.seed)
        print(rig.client, rig.server, flush=True)
        for line in sys.stdin:
            words = line.split()
            try:
                if len(words) == 2 and words[0] in ("down", "up"):
                    getattr(rig, words[0])(int(words[1]))
                    print("ok", flush=True)
                elif words:
                    print(f"ok {rig.command(*words)}".rstrip(), flush=True)
            except (Failure, ValueError) as error:
                print("error:", error, flush=True)


if __name__ == "__main__":
    try:
        main()
    except Failure as failure:
        sys.exit(f"rig: {failure}")
