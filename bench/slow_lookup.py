#!/usr/bin/env python3
"""A slow name lookup must hold up neither the other channel nor the exit.

Runs qelmaps-demo against the simulator under a host name whose lookup is
slow, in a network namespace of its own (unshare), where /etc/resolv.conf
names a small name server on 127.0.0.1:53 (the system's) and
QEL_DNS_SERVERS, where a case sets it, names a second one on
127.0.0.1:5353. Both channels look the cabin's name up with the library's
own resolver on the loop, which asks the configured server when there is
one and the system's otherwise; each server answers after its own delay:

  nothing slow:                the event channel and the picture arrive;
  configured server slow:      nothing arrives in time, nothing asks the
                               system's server;
  system's server slow:        the same without QEL_DNS_SERVERS.

In every case the demo must exit within 0.5 s of its --duration, with the
slowed lookups still under way. Prints one row per case with the questions
each name server received; exits 1 when a case misses what it must show.

  bench/slow_lookup.py BUILD_DIR [--delay 8] [--duration 2] [--slack 0.5]

Needs unshare(1) and permission to make user and network namespaces;
exits 77 (skipped) without them.
"""

import argparse
import os
import re
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

NAME = "cabin.slow.test"
MARK = "QELMAPS_SLOW_LOOKUP_INSIDE"
SKIP = 77


class NameServer:
    """Answers A questions for NAME with 127.0.0.1 after `delay` seconds,
    AAAA questions with no address after the same delay, and anything else
    at once with "no such name"."""

    def __init__(self, port, delay):
        self.delay = delay
        self.questions = []
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.bind(("127.0.0.1", port))
        threading.Thread(target=self.serve, daemon=True).start()

    def serve(self):
        while True:
            query, peer = self.sock.recvfrom(512)
            if len(query) < 17:
                continue
            at, labels = 12, []
            while at < len(query) and query[at] != 0:
                labels.append(query[at + 1 : at + 1 + query[at]].decode("ascii", "replace").lower())
                at += 1 + query[at]
            qtype = struct.unpack("!H", query[at + 1 : at + 3])[0]
            question = query[12 : at + 5]
            name = ".".join(labels)
            self.questions.append((time.monotonic(), name, qtype))
            ours = name == NAME
            answer = b""
            if ours and qtype == 1:
                answer = b"\xc0\x0c" + struct.pack("!HHIH", 1, 1, 60, 4) + socket.inet_aton("127.0.0.1")
            flags = 0x8180 if ours else 0x8183
            reply = query[:2] + struct.pack("!HHHHH", flags, 1, 1 if answer else 0, 0, 0) + question + answer
            delay = self.delay if ours else 0
            timer = threading.Timer(delay, self.sock.sendto, (reply, peer))
            timer.daemon = True  # an answer still due must not hold up the script's end
            timer.start()


def run_case(build, port, ca_file, duration, system_delay, ares_delay, configured, servers):
    servers["system"].delay = system_delay
    servers["ares"].delay = ares_delay
    for server in servers.values():
        server.questions.clear()
    env = dict(os.environ)
    env.pop("QEL_DNS_SERVERS", None)
    if configured:
        env["QEL_DNS_SERVERS"] = "127.0.0.1:5353"
    command = [f"{build}/tools/qelmaps-demo/qelmaps-demo", "--host", NAME, "--port", str(port), "--ca-file",
               ca_file, "--resolution", "400x300", "--duration", str(duration), "--log-level", "4"]
    started = time.monotonic()
    demo = subprocess.Popen(command, env=env, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    seen = {}

    def follow(stream, patterns):
        for line in stream:
            for key, pattern in patterns.items():
                if key not in seen and re.search(pattern, line):
                    seen[key] = time.monotonic() - started

    readers = [threading.Thread(target=follow, args=(demo.stdout, {"picture": r"IMAGE_DID_CHANGE \d+x\d+"})),
               threading.Thread(target=follow, args=(demo.stderr, {"event channel": r"Event channel to .* connected"}))]
    for reader in readers:
        reader.start()
    code = demo.wait(timeout=duration + 30)
    exited = time.monotonic() - started
    for reader in readers:
        reader.join()
    asked = {which: len(server.questions) for which, server in servers.items()}
    return {"code": code, "exit": exited, **seen, "asked": asked}


def inside(args):
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    with tempfile.TemporaryDirectory() as directory:
        resolv = os.path.join(directory, "resolv.conf")
        with open(resolv, "w") as f:
            # One try, and longer than the slowest answer, so that the system
            # resolver waits for it rather than asking again.
            f.write("nameserver 127.0.0.1\noptions timeout:30 attempts:1\n")
        subprocess.run(["mount", "--bind", resolv, "/etc/resolv.conf"], check=True)
        cert, key = os.path.join(directory, "cert.pem"), os.path.join(directory, "key.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1",
                        "-nodes", "-days", "2", "-subj", f"/CN={NAME}", "-addext", f"subjectAltName=DNS:{NAME}",
                        "-keyout", key, "-out", cert], check=True, capture_output=True)
        servers = {"system": NameServer(53, 0), "ares": NameServer(5353, 0)}
        sim = subprocess.Popen([f"{args.build}/tools/cabin-sim/cabin-sim", "--cert", cert, "--key", key,
                                "--interval", "0.5", "--resolutions", "400x300"],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        try:
            port = int(re.search(r":(\d+)$", sim.stdout.readline().strip()).group(1))
            # (name, system server's delay, configured server's delay, QEL_DNS_SERVERS set,
            #  what must arrive within 1 s, the server no question may reach)
            cases = [("nothing slow", 0, 0, True, ("event channel", "picture"), "system"),
                     ("configured server slow", 0, args.delay, True, (), "system"),
                     ("system's server slow", args.delay, 0, False, (), "ares")]
            failed = False
            print(f"lookup of {NAME}: {args.delay:g} s where slowed; demo --duration {args.duration:g} s")
            print(f"{'case':24} {'exit':>8} {'exit - duration':>16} {'event channel':>14} {'picture':>9}  questions: system configured")
            for name, system_delay, ares_delay, configured, must_arrive, unasked in cases:
                r = run_case(args.build, port, cert, args.duration, system_delay, ares_delay, configured, servers)
                late = r["exit"] - args.duration

                def when(key):
                    return f"{r[key]:.3f} s" if key in r else "-"

                print(f"{name:24} {r['exit']:6.3f} s {late:+14.3f} s {when('event channel'):>14} "
                      f"{when('picture'):>9}  {r['asked']['system']:>6} {r['asked']['ares']:>7}")
                if (r["code"] != 0 or late > args.slack or r["asked"][unasked] != 0 or
                        any(r.get(key, 1e9) > 1.0 for key in must_arrive)):
                    failed = True
            return 1 if failed else 0
        finally:
            sim.terminate()
            sim.wait()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("build")
    parser.add_argument("--delay", type=float, default=8)
    parser.add_argument("--duration", type=float, default=2)
    # The exit may come this much after the duration; the test command allows
    # more on a busy machine, still far less than the lookup takes.
    parser.add_argument("--slack", type=float, default=0.5)
    args = parser.parse_args()
    args.build = os.path.abspath(args.build)
    if os.environ.get(MARK):
        return inside(args)
    try:
        probe = subprocess.run(["unshare", "-rnm", "true"], capture_output=True)
    except FileNotFoundError:
        probe = None
    if probe is None or probe.returncode != 0:
        print("slow_lookup: cannot make a network namespace here (unshare -rnm); skipped")
        return SKIP
    env = dict(os.environ, **{MARK: "1"})
    return subprocess.run(["unshare", "-rnm", sys.executable, os.path.abspath(__file__), *sys.argv[1:]],
                          env=env).returncode


if __name__ == "__main__":
    sys.exit(main())
