#!/usr/bin/python3
"""A whole cabin: one simulator, N passenger processes, one shared link.

The simulator and the passengers run in two network namespaces joined by a
veth pair whose both ends are limited with a tbf qdisc (the cabin's Wi-Fi
link; each direction gets the whole rate, which a real half-duplex link does
not). Where namespaces cannot be made, everything runs on loopback without a
limit, and the output says so.

Phases, each measured:
  steady    one update every --interval seconds: per update, the time from
            the simulator's push until each passenger shows that update's
            picture, and the updates some passenger never showed;
  outages   each of --outages in turn, every passenger back on the map
            before the next; for each, the TCP connection attempts (SYNs)
            the server's side of the link sees per 100 ms:
              planned  the simulator stopped with SIGTERM (it closes the
                       event channels with 1012) and started again on the
                       same port after --down seconds: the time from it
                       listening until every passenger shows a map again;
              crash    the same with SIGKILL (connections dropped without a
                       word): the same time, and the attempts while it was down;
              link     the passengers' side of the link down for --down
                       seconds and up again (the passengers watch the
                       network): the time from the link up until each is
                       live again;
              dead     the link silently drops everything both ways for
                       --dead seconds (a tbf that passes nothing): the time
                       until each passenger's error notification, and its
                       CPU time meanwhile;
  rest      no updates for --rest seconds: each passenger's CPU time and
            resident memory.

  bench/cabin_scale/run.py --build build/release --passengers 300 --rate 54mbit
  bench/cabin_scale/run.py --short --build build/debug      (the test command's run)
  bench/cabin_scale/run.py --build build/release --passengers 300 --delay 50   (a distant access point)

--short (the planned restart only) exits non-zero only on a crash, a
passenger that never shows a picture, or one not back on the map within 5 s
of the restart; the full run reports each goal and exits non-zero when the
harness itself fails. The link and dead outages need the namespaces.
"""

import argparse
import ctypes
import os
import shutil
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time
from pathlib import Path

SERVER_IP, PASSENGER_IP = "10.199.0.1", "10.199.0.2"


class Failure(Exception):
    pass


def log(text):
    print(f"cabin: {text}", flush=True)


# ---- the link ---------------------------------------------------------------


class Cabin:
    """The two namespaces and the veth between them, or plain loopback."""

    def __init__(self, rate, use_namespaces, delay_ms=0):
        tag = str(os.getpid())
        self.server_ns, self.passenger_ns = f"qelcabin-s{tag}", f"qelcabin-p{tag}"
        self.server_if, self.passenger_if = f"qcs{tag}", f"qcp{tag}"
        self.made = []
        self.namespaces = False
        self.rate = rate
        self.delay_ms = delay_ms
        if use_namespaces:
            try:
                self._make()
                self.namespaces = True
            except (OSError, subprocess.CalledProcessError) as error:
                log(f"network namespaces cannot be made here ({error}): loopback, without the link limit")
                self.remove()
        self.host = SERVER_IP if self.namespaces else "127.0.0.1"
        self.sniff_if = self.server_if if self.namespaces else "lo"

    def _ip(self, *args):
        subprocess.run(["ip", *args], check=True, capture_output=True, text=True)

    def _make(self):
        for ns in (self.server_ns, self.passenger_ns):
            self._ip("netns", "add", ns)
            self.made.append(ns)
            self._ip("-n", ns, "link", "set", "lo", "up")
            self._ip("netns", "exec", ns, "true")  # some containers make them but cannot enter them
        self._ip("link", "add", self.server_if, "netns", self.server_ns, "type", "veth", "peer", "name",
                 self.passenger_if, "netns", self.passenger_ns)
        for ns, dev, ip in ((self.server_ns, self.server_if, SERVER_IP),
                            (self.passenger_ns, self.passenger_if, PASSENGER_IP)):
            self._ip("-n", ns, "addr", "add", f"{ip}/24", "dev", dev)
            self._ip("-n", ns, "link", "set", dev, "up")
            self._shape(ns, dev)

    def _ends(self):
        return ((self.server_ns, self.server_if), (self.passenger_ns, self.passenger_if))

    def _shape(self, ns, dev):
        """The link's delay and rate on one end."""
        tc = ["ip", "netns", "exec", ns, "tc", "qdisc", "add", "dev", dev]
        if self.delay_ms:
            # A distant access point: each way delayed, the rate limit below it.
            added = subprocess.run([*tc, "root", "handle", "1:", "netem", "delay", f"{self.delay_ms}ms"],
                                   capture_output=True, text=True)
            if added.returncode != 0:
                log(f"netem cannot delay the link here ({added.stderr.strip()}): no added delay")
                self.delay_ms = 0
        if self.rate:
            # A queue of 100 ms at the link's rate, like an access point's.
            parent = ["parent", "1:1"] if self.delay_ms else ["root"]
            subprocess.run([*tc, *parent, "tbf", "rate", self.rate, "burst", "32kb", "latency", "100ms"],
                           check=True, capture_output=True, text=True)

    def set_dead(self, dead):
        """Makes the link drop everything both ways without a word (a tbf whose
        bucket is smaller than any packet), or carries it again as before."""
        for ns, dev in self._ends():
            tc = ["ip", "netns", "exec", ns, "tc", "qdisc"]
            subprocess.run([*tc, "del", "dev", dev, "root"], capture_output=True)
            if dead:
                subprocess.run([*tc, "add", "dev", dev, "root", "tbf", "rate", "8bit", "burst", "1", "limit", "1"],
                               check=True, capture_output=True, text=True)
            else:
                self._shape(ns, dev)

    def set_passenger_link(self, up):
        self._ip("-n", self.passenger_ns, "link", "set", self.passenger_if, "up" if up else "down")

    def server_prefix(self):
        return ["ip", "netns", "exec", self.server_ns] if self.namespaces else []

    def passenger_prefix(self):
        return ["ip", "netns", "exec", self.passenger_ns] if self.namespaces else []

    def describe(self):
        if not self.namespaces:
            return "loopback, no link limit"
        return f"veth between two namespaces, tbf {self.rate} each way" if self.rate else "veth, no limit"

    def remove(self):
        for ns in reversed(self.made):
            subprocess.run(["ip", "netns", "del", ns], capture_output=True)
        self.made = []


# ---- counting connection attempts ------------------------------------------


def count_syns(interface, port, out_path):
    """Writes the arrival time of every TCP SYN to `port` on `interface`."""
    # Classic BPF: IPv4, TCP, first fragment, destination port, SYN without ACK.
    program = [(0x28, 0, 0, 12), (0x15, 0, 11, 0x800), (0x30, 0, 0, 23), (0x15, 0, 9, 6),
               (0x28, 0, 0, 20), (0x45, 7, 0, 0x1FFF), (0xB1, 0, 0, 14), (0x48, 0, 0, 16),
               (0x15, 0, 4, port), (0x50, 0, 0, 27), (0x54, 0, 0, 0x12), (0x15, 0, 1, 0x02),
               (0x06, 0, 0, 0x40000), (0x06, 0, 0, 0)]
    code = ctypes.create_string_buffer(b"".join(struct.pack("HBBI", *op) for op in program))
    fprog = struct.pack("HL", len(program), ctypes.addressof(code))
    sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(0x0003))
    sock.setsockopt(socket.SOL_SOCKET, 26, fprog)  # SO_ATTACH_FILTER
    sock.bind((interface, 0))
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    with open(out_path, "w", buffering=1) as out:
        print("ready", file=out)
        while True:
            _, address = sock.recvfrom(128)
            if address[2] != socket.PACKET_OUTGOING:  # loopback shows each packet twice
                print(f"{time.time():.4f}", file=out)


# ---- processes --------------------------------------------------------------


class Processes:
    """Every child the harness starts, so that every exit path ends them."""

    def __init__(self):
        self.children = []

    def start(self, argv, stdout, stderr, env=None):
        with open(stdout, "wb") as out, open(stderr, "wb") as err:
            child = subprocess.Popen(argv, stdout=out, stderr=err, stdin=subprocess.DEVNULL, env=env)
        self.children.append(child)
        return child

    def stop(self, child, timeout=10):
        if child.poll() is None:
            child.terminate()
            try:
                child.wait(timeout)
            except subprocess.TimeoutExpired:
                child.kill()
                child.wait()

    def stop_all(self):
        for child in self.children:
            if child.poll() is None:
                child.terminate()
        deadline = time.time() + 10
        for child in self.children:
            self.stop(child, max(0.1, deadline - time.time()))


def make_certificate(work, host):
    """A CA and a server certificate for `host`, kept across the restart."""
    def openssl(*args):
        subprocess.run(["openssl", *args], check=True, capture_output=True)

    ec = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    openssl("req", "-x509", *ec, "-keyout", work / "ca.key", "-out", work / "ca.pem", "-days", "2", "-subj",
            "/CN=cabin-scale CA", "-addext", "basicConstraints=critical,CA:TRUE", "-addext",
            "keyUsage=critical,keyCertSign")
    openssl("req", *ec, "-keyout", work / "server.key", "-out", work / "server.csr", "-subj", f"/CN={host}")
    (work / "server.ext").write_text(f"subjectAltName=IP:{host}\nbasicConstraints=CA:FALSE\n")
    openssl("x509", "-req", "-in", work / "server.csr", "-CA", work / "ca.pem", "-CAkey", work / "ca.key",
            "-CAcreateserial", "-out", work / "server.pem", "-days", "2", "-extfile", work / "server.ext")


class Simulator:
    def __init__(self, processes, cabin, binary, work):
        self.processes, self.cabin, self.binary, self.work = processes, cabin, binary, work
        self.runs = 0
        self.child = None
        self.port = 0

    def start(self, interval):
        """Starts it and waits for its "listening" line; returns the time it listens."""
        self.runs += 1
        out, err = self.work / f"sim{self.runs}.out", self.work / f"sim{self.runs}.log"
        argv = [*self.cabin.server_prefix(), str(self.binary), "--host", self.cabin.host, "--port",
                str(self.port), "--cert", str(self.work / "server.pem"), "--key",
                str(self.work / "server.key"), "--interval", str(interval)]
        self.child = self.processes.start(argv, out, err, env={**os.environ, "TZ": "UTC"})
        for _ in range(300):
            line = out.read_text().split("\n", 1)[0]
            if line.startswith("listening"):
                self.port = int(line.rsplit(":", 1)[1])
                return time.time()
            if self.child.poll() is not None:
                raise Failure("the simulator did not start:\n" + err.read_text())
            time.sleep(0.1)
        raise Failure("the simulator did not report its port")

    def stop(self, kill=False):
        if kill:
            self.child.kill()
            self.child.wait()
        else:
            self.processes.stop(self.child)

    def log_times(self, run, words):
        """[(time, fields)] of run `run`'s log lines whose message starts with
        `words` (its clock is UTC, to the millisecond)."""
        day = time.time() // 86400 * 86400
        found = []
        for line in (self.work / f"sim{run}.log").read_text().splitlines():
            parts = line.split()
            if len(parts) > len(words) and parts[1] == "cabin-sim:" and parts[2:2 + len(words)] == words:
                h, m, s = parts[0].split(":")
                t = day + int(h) * 3600 + int(m) * 60 + float(s)
                if t > time.time() + 60:  # logged before midnight
                    t -= 86400
                found.append((t, parts[2:]))
        return found

    def pushes(self, run):
        """{update: time pushed} of run `run`."""
        return {int(fields[2]): t for t, fields in self.log_times(run, ["pushed", "update"])}


# The phases of a passenger's trace, in order, as the passenger prints them.
PHASES = ("update received", "queued", "connected", "TLS done", "first byte", "body done", "decoded", "shown")


def breakdown(pushed, trace):
    """Seconds spent from the push to each phase of `trace`, phase by phase
    (a phase not reached, such as the connect of a kept connection, costs 0)."""
    spent, previous = {}, pushed
    for name, at in zip(PHASES, trace):
        if at:
            spent[name] = max(0.0, at - previous)
            previous = at
        else:
            spent[name] = 0.0
    return spent


class Passenger:
    def __init__(self, index, child, out):
        self.index, self.child, self.out = index, child, out
        self.pictures = []  # (time, update, bytes)
        self.traces = {}  # update -> the phases' times (see PHASES) and whether the connection was reused
        self.errors = []
        self.phases = []  # (time, phase name)
        self.started_kib = None
        self.read = 0

    def poll(self):
        text = self.out.read_bytes()
        end = text.rfind(b"\n") + 1
        for line in text[self.read:end].decode().splitlines():
            parts = line.split()
            if len(parts) == 4 and parts[1] == "picture":
                self.pictures.append((float(parts[0]), int(parts[2]), int(parts[3])))
            elif len(parts) == 12 and parts[1] == "trace":
                self.traces[int(parts[2])] = ([float(v) for v in parts[3:11]], parts[11] == "1")
            elif len(parts) == 3 and parts[1] == "started":
                self.started_kib = int(parts[2])
            elif len(parts) == 2 and parts[1] == "error":
                self.errors.append(float(parts[0]))
            elif len(parts) >= 3 and parts[1] == "phase":
                self.phases.append((float(parts[0]), " ".join(parts[2:])))
        self.read = end

    def back_after(self, stopped):
        """When the first picture after losing the map at `stopped` came."""
        lost = next((t for t in self.errors if t >= stopped), stopped)
        return next((t for t, *_ in self.pictures if t > lost), None)

    def live_after(self, since):
        """When the passenger was live again after `since`: at `since` when it
        never left, else when it next became live (None: not yet)."""
        left = next((t for t, name in self.phases if t >= since and name != "live"), None)
        if left is None:
            return since if self.phases and self.phases[-1][1] == "live" else None
        return next((t for t, name in self.phases if t > left and name == "live"), None)

    def error_after(self, since):
        return next((t for t in self.errors if t >= since), None)


def cpu_and_memory(pid):
    """(CPU seconds, resident MiB) of a process, all its threads; schedstat
    counts nanoseconds where stat counts ticks of 10 ms."""
    cpu = 0.0
    for task in Path(f"/proc/{pid}/task").iterdir():
        try:
            cpu += int((task / "schedstat").read_text().split()[0]) / 1e9
        except (FileNotFoundError, ProcessLookupError):
            pass  # a thread that ended meanwhile
    fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    rss = int(fields[21]) * os.sysconf("SC_PAGE_SIZE") / 2**20
    return cpu, rss


def bits_per_second(rate):
    """tc's "54mbit" and the like, in bit/s."""
    for suffix, factor in (("gbit", 1e9), ("mbit", 1e6), ("kbit", 1e3), ("bit", 1)):
        if rate.endswith(suffix):
            return float(rate[:-len(suffix)]) * factor
    return float(rate)


def percentile(values, p):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(p / 100 * len(ordered)))] if ordered else float("nan")


# ---- the run ----------------------------------------------------------------


def wait_for(passengers, processes_alive, condition, timeout):
    deadline = time.time() + timeout
    while True:
        for p in passengers:
            p.poll()
        processes_alive()
        if all(condition(p) for p in passengers) or time.time() >= deadline:
            return all(condition(p) for p in passengers)
        time.sleep(0.25)


def outage(kind, args, work, sim, cabin, passengers, alive, syn_out):
    """One outage of `kind` (see the module's text) and its figures. Times are
    from the moment the way back opened: the server listening again, or the
    link carrying again. The simulator comes back without periodic updates:
    a restart's first update is the map to come back to."""
    result = {}
    began = time.time()
    if kind in ("planned", "crash"):
        sim.stop(kill=kind == "crash")
        if kind == "planned":
            began = sim.log_times(sim.runs, ["stopped"])[-1][0]
        log(f"{kind}: simulator stopped ({'SIGTERM' if kind == 'planned' else 'SIGKILL'}); "
            f"starting it again in {args.down} s")
        time.sleep(args.down)
        sim.start(args.rest_interval)
        opened = sim.log_times(sim.runs, ["update", "1", "rendered"])[0][0]

        # Live again: the event channel up and the map data loaded. (The
        # picture stays on screen throughout; a restarted simulator's first
        # picture is not necessarily new to a passenger.)
        def back_at(p):
            return p.live_after(began)
    elif kind == "link":
        cabin.set_passenger_link(False)
        log(f"link: the passengers' side down for {args.down} s")
        wait_for(passengers, alive, lambda p: False, args.down)
        cabin.set_passenger_link(True)
        opened = time.time()

        def back_at(p):
            return p.live_after(began)
    else:
        cabin.set_dead(True)
        log(f"dead: the link drops everything for {args.dead} s")
        before = [cpu_and_memory(p.child.pid)[0] for p in passengers]
        wait_for(passengers, alive, lambda p: False, args.dead)
        cpu = [(cpu_and_memory(p.child.pid)[0] - b) * 1000 for p, b in zip(passengers, before)]
        cabin.set_dead(False)
        opened = time.time()
        noticed = [p.error_after(began) - began for p in passengers if p.error_after(began) is not None]
        result.update(noticed=max(noticed) if len(noticed) == len(passengers) else None,
                      noticed_median=statistics.median(noticed) if noticed else None,
                      unnoticed=len(passengers) - len(noticed), cpu=cpu)
        log(f"dead: {len(noticed)} of {len(passengers)} passengers told of the error, the last "
            f"{max(noticed, default=float('nan')):.1f} s after the link went silent (median "
            f"{statistics.median(noticed) if noticed else float('nan'):.1f} s); CPU per passenger over the "
            f"{args.dead:.0f} s median {statistics.median(cpu):.1f} ms, max {max(cpu):.1f} ms")

        def back_at(p):
            return p.live_after(began)

    done = wait_for(passengers, alive, lambda p: back_at(p) is not None, args.back_timeout)
    times = [max(0.0, back_at(p) - opened) for p in passengers if back_at(p) is not None]
    result.update(began=began, opened=opened, back=max(times) if done else None,
                  median=statistics.median(times) if times else None, missing=len(passengers) - len(times))
    way = "the link carries again" if kind in ("link", "dead") else "the server listens again"
    if done:
        log(f"{kind}: every passenger back on the map {max(times):.1f} s after {way} "
            f"(median {statistics.median(times):.1f} s; the outage lasted {opened - began:.1f} s)")
    else:
        log(f"{kind}: {len(passengers) - len(times)} passenger(s) still without a map {args.back_timeout} s "
            f"after {way}")
    time.sleep(2)
    # The event channels' attempts, from the passengers' own accounts (each
    # attempt shows as "connecting"), and every TCP connection the server's
    # side of the link sees: those add the HTTPS connection each passenger
    # makes for the map data once its event channel is up.
    end = opened + (max(times) if times else args.back_timeout)
    low, high = int((began - 2 - opened) * 10 // 1), int((end + 2 - opened) * 10 // 1)

    def per_tenth(moments):
        buckets = {}
        for t in moments:
            if began - 2 <= t <= end + 2:
                key = int((t - opened) * 10 // 1)
                buckets[key] = buckets.get(key, 0) + 1
        return buckets

    attempts = per_tenth(t for p in passengers for t, name in p.phases if name == "connecting")
    syns = per_tenth(float(line) for line in syn_out.read_text().split()[1:]) if syn_out else {}
    (work / f"attempts-{kind}.dat").write_text("".join(
        f"{k / 10:.1f} {attempts.get(k, 0)} {syns.get(k, 0)}\n" for k in range(low, high + 1)))
    result.update(attempt_peak=max(attempts.values(), default=0), attempt_total=sum(attempts.values()),
                  attempts_while_down=sum(v for k, v in attempts.items() if k < 0))
    log(f"{kind}: {result['attempt_total']} event channel attempts ({result['attempts_while_down']} while the way "
        f"back was closed), at most {result['attempt_peak']} in 100 ms (N/10 = {len(passengers) / 10:.0f})")
    if syn_out:
        result.update(syn_peak=max(syns.values(), default=0), syn_total=sum(syns.values()))
        log(f"{kind}: {result['syn_total']} TCP connections at the server (event channels and HTTPS), at most "
            f"{result['syn_peak']} in 100 ms")
    return result


def run(args, work, processes, cabin):
    build = Path(args.build)
    sim_bin = build / "tools/cabin-sim/cabin-sim"
    passenger_bin = build / "bench/cabin_scale/cabin-passenger"
    for binary in (sim_bin, passenger_bin):
        if not binary.exists():
            raise Failure(f"{binary} is missing: build the cabin-sim and cabin-passenger targets")
    make_certificate(work, cabin.host)
    sim = Simulator(processes, cabin, sim_bin, work)
    results = {"N": args.passengers, "link": cabin.describe()}

    log(f"{args.passengers} passengers at {args.resolution}, an update every {args.interval} s, {cabin.describe()}")
    sim.start(args.interval)

    syn_out = work / "syn.txt"
    sniffer = processes.start([*cabin.server_prefix(), sys.executable, __file__, "--count-syn", cabin.sniff_if,
                               str(sim.port), str(syn_out)], work / "syn.log", work / "syn.err")
    for _ in range(50):
        if syn_out.exists() or sniffer.poll() is not None:
            break
        time.sleep(0.1)
    counting = sniffer.poll() is None
    if not counting:
        log("connection attempts are not counted (no packet socket here)")

    passengers = []
    (work / "p").mkdir(exist_ok=True)
    for i in range(args.passengers):
        out = work / "p" / f"{i:03d}.out"
        child = processes.start([*cabin.passenger_prefix(), str(passenger_bin), "--host", cabin.host, "--port",
                                 str(sim.port), "--ca-file", str(work / "ca.pem"), "--resolution",
                                 args.resolution, "--watch-network"], out, work / "p" / f"{i:03d}.err")
        passengers.append(Passenger(i, child, out))

    crashed = []

    def alive():
        for p in passengers:
            if p.child.poll() is not None and p not in crashed:
                crashed.append(p)
                log(f"passenger {p.index} exited with {p.child.returncode}: "
                    f"{(work / 'p' / f'{p.index:03d}.err').read_text()[-500:]}")
        if crashed:
            raise Failure(f"{len(crashed)} passenger(s) crashed")
        if sim.child.poll() is not None:
            raise Failure("the simulator exited: " + (work / f"sim{sim.runs}.log").read_text()[-500:])

    # Warm-up: every passenger on the map.
    started = time.time()
    if not wait_for(passengers, alive, lambda p: p.pictures, args.join_timeout):
        missing = [p.index for p in passengers if not p.pictures]
        raise Failure(f"{len(missing)} passenger(s) never showed a picture: {missing[:20]}")
    results["join"] = time.time() - started
    log(f"every passenger shows a map {results['join']:.1f} s after the start")

    # Steady state.
    steady_from = time.time()
    wait_for(passengers, alive, lambda p: False, args.steady)
    steady_to = time.time()
    pushes = {u: t for u, t in sim.pushes(1).items() if steady_from <= t <= steady_to - args.interval}
    latencies, never, floors, lasts = [], {}, [], []
    for update, pushed in sorted(pushes.items()):
        shown = [next(((t, size) for t, u, size in p.pictures if u == update), None) for p in passengers]
        never_here = sum(1 for s in shown if s is None)
        if never_here:
            never[update] = never_here
        here = [max(0.0, t - pushed) for t, _ in filter(None, shown)]
        latencies += here
        if here and cabin.namespaces and cabin.rate:
            # The link's floor: every passenger's picture sent back to back at
            # the link's rate (TCP, TLS and HTTP headers not counted).
            floors.append(sum(size for _, size in filter(None, shown)) * 8 / bits_per_second(cabin.rate))
            lasts.append(max(here))
    # Where the last passenger's time went, per update, from its trace.
    spent = {name: [] for name in PHASES}
    for update, pushed in sorted(pushes.items()):
        traced = [(p.traces[update][0], p) for p in passengers if update in p.traces]
        if not traced:
            continue
        last, _ = max(traced, key=lambda item: item[0][-1])
        for name, seconds in breakdown(pushed, last).items():
            spent[name].append(seconds)
    results.update(breakdown={name: statistics.median(v) for name, v in spent.items() if v})
    # The trace's phases are libcurl's timers placed on the library's clock:
    # in order, they add up to the time from the update to the screen.
    mismatch = []
    for p in passengers:
        for update, (phases, _) in p.traces.items():
            if update in pushes and phases[0] and phases[-1]:
                mismatch.append(abs(sum(breakdown(phases[0], phases).values()) - (phases[-1] - phases[0])))
    results.update(phase_mismatch=max(mismatch) if mismatch else None, traces=len(mismatch))
    if mismatch:
        log(f"steady: the phases of {len(mismatch)} traces add up to their update-to-screen time within "
            f"{max(mismatch) * 1000:.2f} ms")
    if results["breakdown"]:
        log("steady: where the last passenger's time went (median over updates): " + ", ".join(
            f"{name} +{seconds * 1000:.0f} ms" for name, seconds in results["breakdown"].items()))
    results.update(updates=len(pushes), latencies=latencies, never=never, floors=floors, lasts=lasts)
    (work / "latency.dat").write_text("".join(f"{v:.4f}\n" for v in sorted(latencies)))
    if latencies:
        log(f"steady: {len(pushes)} updates x {len(passengers)} passengers: update to picture median "
            f"{statistics.median(latencies):.3f} s, p99 {percentile(latencies, 99):.3f} s, max {max(latencies):.3f} s; "
            f"updates some passenger never showed: {len(never)} ({sum(never.values())} pictures missed)")
    if floors:
        pictures = [size for p in passengers for _, u, size in p.pictures if u in pushes]
        log(f"steady: the link's floor per update (every picture, {statistics.median(pictures) / 1024:.1f} KiB "
            f"median, back to back at {cabin.rate}) {statistics.median(floors):.3f} s; the last passenger's picture "
            f"came after {statistics.median(lasts):.3f} s (median over updates, "
            f"{statistics.median(lasts) / statistics.median(floors):.2f}x the floor)")

    # The outages, in turn; each ends with every passenger back on the map.
    results["outages"] = {}
    for kind in args.outages:
        if kind in ("link", "dead") and not cabin.namespaces:
            log(f"{kind}: needs the two namespaces; not measured here")
            continue
        results["outages"][kind] = outage(kind, args, work, sim, cabin, passengers, alive,
                                          syn_out if counting else None)
    back = all(o["back"] is not None for o in results["outages"].values())

    # At rest: no updates (the restarted simulator's interval is long).
    if args.rest > 0 and back:
        time.sleep(args.settle)
        before = [cpu_and_memory(p.child.pid) for p in passengers]
        sim_before = cpu_and_memory(sim.child.pid)
        wait_for(passengers, alive, lambda p: False, args.rest)
        after = [cpu_and_memory(p.child.pid) for p in passengers]
        sim_after = cpu_and_memory(sim.child.pid)
        cpu = [(a[0] - b[0]) * 1000 for a, b in zip(after, before)]
        rss = [a[1] for a in after]
        started_rss = [p.started_kib / 1024 for p in passengers if p.started_kib]
        results.update(rest_cpu=cpu, rest_rss=rss, sim_rest_cpu=(sim_after[0] - sim_before[0]) * 1000)
        log(f"at rest for {args.rest} s: CPU per passenger median {statistics.median(cpu):.1f} ms, max "
            f"{max(cpu):.1f} ms; resident memory median {statistics.median(rss):.1f} MiB, max {max(rss):.1f} MiB "
            f"(before the service existed: median {statistics.median(started_rss):.1f} MiB); "
            f"simulator {results['sim_rest_cpu']:.0f} ms")

    alive()
    return results


def report(args, results, work):
    """Goals of the full run, and the plots."""
    n = results["N"]
    lat = results["latencies"]
    goals = [
        ("every passenger shows every update", not results["never"], f"{len(results['never'])} updates missed"),
        ("p99 update to picture under 2 s", bool(lat) and percentile(lat, 99) < 2,
         f"p99 {percentile(lat, 99):.3f} s" if lat else "no data"),
    ]
    if results.get("phase_mismatch") is not None:
        goals.append(("the traces' phases add up to the update-to-screen time within 1 ms",
                      results["phase_mismatch"] < 0.001,
                      f"{results['phase_mismatch'] * 1000:.2f} ms at most over {results['traces']} traces"))

    def seconds(value):
        return f"{value:.1f} s" if value is not None else "not all"

    # Each outage's way back, against its goal.
    for kind, within, what in (("planned", 3, "of the server listening again after SIGTERM (1012)"),
                               ("crash", 10, "of the server listening again after SIGKILL"),
                               ("link", 3, "of the link coming up, watching the network"),
                               ("dead", None, None)):
        o = results["outages"].get(kind)
        if o is None:
            continue
        if within:
            goals.append((f"{kind}: every passenger back within {within} s {what}",
                          o["back"] is not None and o["back"] <= within, seconds(o["back"])))
        if kind in ("planned", "crash"):
            goals.append((f"{kind}: peak event channel attempts per 100 ms at most N/10", o["attempt_peak"] <= n / 10,
                          f"{o['attempt_peak']} against {n / 10:.0f}; {o['attempts_while_down']} while the server "
                          f"was down; TCP connections of both kinds at most {o.get('syn_peak', '?')} in 100 ms"))
        if kind == "dead":
            # A silent channel is pinged after half of its 20 s dead interval:
            # two ping intervals.
            goals.append(("dead: every passenger's error notification within two ping intervals (20 s)",
                          o["noticed"] is not None and o["noticed"] <= 20,
                          f"{seconds(o['noticed'])}; CPU per passenger over the {args.dead:.0f} s median "
                          f"{statistics.median(o['cpu']):.1f} ms"))
    for what, met, value in goals:
        log(f"goal {'met' if met else 'MISSED'}: {what} ({value})")
    if args.plots:
        plot(work, args, results)


def plot(work, args, results):
    out = Path(args.plots)
    out.mkdir(parents=True, exist_ok=True)
    n = results["N"]
    p99 = percentile(results["latencies"], 99)
    script = f"""
set terminal pngcairo size 800,450 font ",10"
set grid
set output "{out}/cabin_scale_latency.png"
set title "Update to picture, {n} passengers, {results['link']}"
set xlabel "seconds from the server's push to the picture shown"
set ylabel "pictures"
set style fill solid 0.6
binwidth = 0.05
bin(x) = binwidth * floor(x / binwidth) + binwidth / 2
set arrow from {p99}, graph 0 to {p99}, graph 1 nohead dt 2 lc rgb "red"
set label "p99" at {p99}, graph 0.95 offset 0.5,0 tc rgb "red"
"""
    if results["floors"]:
        floor = statistics.median(results["floors"])
        script += f"""
set arrow from {floor}, graph 0 to {floor}, graph 1 nohead dt 3 lc rgb "black"
set label "every picture at the link's rate" at {floor}, graph 0.88 offset 0.5,0
"""
    script += f"""
plot "{work}/latency.dat" using (bin($1)):(1.0) smooth freq with boxes lc rgb "#3060a0" notitle
"""
    kinds = [kind for kind in results["outages"] if (work / f"attempts-{kind}.dat").exists()]
    if kinds:
        titles = {"planned": "planned restart (SIGTERM, 1012)", "crash": "crash (SIGKILL)",
                  "link": "the passengers' link down and up", "dead": "a silent link"}
        script += f"""
unset arrow
unset label
set terminal pngcairo size 900,{260 * len(kinds)} font ",10"
set output "{out}/cabin_scale_outages.png"
set multiplot layout {len(kinds)},1 title "Attempts per 100 ms around each outage, {n} passengers"
set xlabel "seconds from the way back opening (the server listening, the link carrying)"
set ylabel "per 100 ms"
set style fill solid 0.5
"""
        for kind in kinds:
            o = results["outages"][kind]
            back = o["back"] if o["back"] is not None else 0
            script += f"""
set title "{titles[kind]}: all back after {back:.1f} s"
set yrange [0:{max(o.get('syn_peak', 0), o['attempt_peak'], n / 10) * 1.2}]
set arrow 1 from {back}, graph 0 to {back}, graph 1 nohead dt 2 lc rgb "#208020"
set arrow 2 from {o['began'] - o['opened']}, graph 0 to {o['began'] - o['opened']}, graph 1 nohead dt 3 lc rgb "black"
plot "{work}/attempts-{kind}.dat" using 1:3 with boxes lc rgb "#b0b0b0" title "TCP connections at the server", \\
     "{work}/attempts-{kind}.dat" using 1:2 with boxes lc rgb "#3060a0" title "event channel attempts", \\
     {n / 10} with lines dt 2 lc rgb "red" title "N/10"
"""
        script += "unset multiplot\n"
    subprocess.run(["gnuplot"], input=script, text=True, check=True)
    log(f"plots in {out}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--passengers", type=int, default=300)
    parser.add_argument("--rate", default="54mbit", help="tbf rate of the link, or 0 for no limit")
    parser.add_argument("--resolution", default="400x300")
    parser.add_argument("--delay", type=int, default=0, help="ms of delay each way on the link (netem)")
    parser.add_argument("--interval", type=float, default=4)
    parser.add_argument("--steady", type=float, default=60, help="seconds of steady state")
    parser.add_argument("--down", type=float, default=5, help="seconds the server (or the link) is down")
    parser.add_argument("--dead", type=float, default=60, help="seconds the link silently drops everything")
    parser.add_argument("--outages", default="planned,crash,link,dead",
                        help="which outages, in order (planned, crash, link, dead)")
    parser.add_argument("--rest", type=float, default=60, help="seconds at rest")
    parser.add_argument("--join-timeout", type=float, default=120)
    parser.add_argument("--back-timeout", type=float, default=60)
    parser.add_argument("--plots", help="directory for the two PNG plots (gnuplot)")
    parser.add_argument("--out", help="keep the logs here (default: a temporary directory)")
    parser.add_argument("--no-namespaces", action="store_true")
    parser.add_argument("--short", action="store_true", help="the test command's run: N=20, about 30 s")
    parser.add_argument("--count-syn", nargs=3, help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.count_syn:
        return count_syns(args.count_syn[0], int(args.count_syn[1]), args.count_syn[2])
    if args.short:
        args.passengers, args.interval, args.steady, args.down = 20, 2, 8, 2
        args.rest, args.join_timeout, args.back_timeout, args.plots = 0, 30, 40, None
        args.outages = "planned"
    args.outages = [kind for kind in args.outages.split(",") if kind]
    unknown = set(args.outages) - {"planned", "crash", "link", "dead"}
    if unknown:
        parser.error(f"unknown outages: {', '.join(sorted(unknown))}")
    args.rest_interval, args.settle = 86400, 5
    # Said now, not after minutes of running.
    if args.plots and not shutil.which("gnuplot"):
        log("--plots needs gnuplot, which is not installed: run scripts/bootstrap.sh --bench "
            "(Debian's gnuplot-nox), or leave out --plots")
        return 2
    rate = None if args.rate in ("0", "none") else args.rate

    # Every exit path ends what was started: signals become SystemExit.
    for s in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(s, lambda number, _: sys.exit(128 + number))
    processes = Processes()
    work = Path(args.out) if args.out else Path(tempfile.mkdtemp(prefix="cabin-scale-"))
    work.mkdir(parents=True, exist_ok=True)
    cabin = None
    status, keep = 1, False
    try:
        cabin = Cabin(rate, not args.no_namespaces and os.geteuid() == 0, args.delay)
        if args.short and not cabin.namespaces:
            log("short run on loopback: the link is not limited")
        results = run(args, work, processes, cabin)
        if not args.short:
            report(args, results, work)
        planned = results["outages"].get("planned")
        if args.short and planned["back"] is None:
            raise Failure("a passenger is still without a map after the restart")
        # The simulator was stopped as a service manager restarts it (SIGTERM):
        # it announced the restart, and the cabin is back within seconds.
        if args.short and planned["back"] > 5:
            raise Failure(f"the last passenger came back {planned['back']:.1f} s after an announced restart, "
                          "more than 5 s")
        status = 0
    except Failure as failure:
        log(f"FAILED: {failure} (logs in {work})")
        keep = True
    finally:
        processes.stop_all()
        if cabin:
            cabin.remove()
        if not keep and not args.out:  # a failure's logs stay for a look
            shutil.rmtree(work, ignore_errors=True)
    return status


if __name__ == "__main__":
    sys.exit(main())
