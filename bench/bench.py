#!/usr/bin/env python3
"""Side-by-side benchmarks of the daemon, written to docs/performance.md.

1. Peers: N long-running `sleep` commands under tovrin, runit, s6,
   supervisord and a floor program that only spawns and respawns them.
2. Scale: N command-less conns, flat, in chains and in ordered groups,
   through tovrin-sandbox and stord: launch, reloads, peak resident size.
3. Store throughput: store-variable notifications and control commands
   handled per second.

Each figure is the median of RUNS runs with their range. Process starts are
seen through the kernel's process-events connector, which stamps each exec
with the monotonic clock, so nothing scans /proc while the clock runs.

    bench/bench.py BUILD_DIR OUTPUT.md [--runs 5] [--quick]
"""

import argparse
import datetime
import os
import platform
import resource
import shutil
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time

MARK = "86399"  # the sleep argument that marks the benchmark's processes
TICK = os.sysconf("SC_CLK_TCK")
REPLACEMENTS = 15  # killed sleeps timed per run
PAGE_KIB = os.sysconf("SC_PAGE_SIZE") // 1024


class ExecWatcher:
    """Exec events of every process, from the kernel's process connector."""

    def __init__(self):
        self.sock = socket.socket(socket.AF_NETLINK, socket.SOCK_DGRAM, 11)
        self.sock.setsockopt(socket.SOL_SOCKET, 33, 64 << 20)  # SO_RCVBUFFORCE
        self.sock.bind((os.getpid(), 1))
        header = struct.pack("=IHHII", 40, 3, 0, 0, os.getpid())
        cn = struct.pack("=IIIIHH", 1, 1, 0, 0, 4, 0)
        self.sock.send(header + cn + struct.pack("=I", 1))  # listen
        self.marked = {}  # pid of a marked sleep -> monotonic ns of its exec

    def poll(self, timeout):
        """Reads events for up to timeout seconds; returns new marked pids."""
        self.sock.settimeout(timeout)
        new = []
        try:
            while True:
                data = self.sock.recv(65536)
                self.sock.settimeout(0)
                what, _cpu, stamp = struct.unpack_from("=IIQ", data, 36)
                if what != 2:  # exec
                    continue
                pid = struct.unpack_from("=I", data, 52)[0]
                if pid in self.marked:
                    continue
                try:
                    with open(f"/proc/{pid}/cmdline", "rb") as f:
                        argv = f.read().split(b"\0")
                except OSError:
                    continue
                if argv[:2] == [b"sleep", MARK.encode()]:
                    self.marked[pid] = stamp
                    new.append(pid)
        except (BlockingIOError, socket.timeout):
            pass
        return new

    def wait_count(self, n, deadline):
        """Monotonic ns of the n-th marked exec, or None at the deadline."""
        while len(self.marked) < n:
            if time.monotonic() > deadline:
                return None
            self.poll(0.2)
        return sorted(self.marked.values())[n - 1]


def children_map():
    kids = {}
    for name in os.listdir("/proc"):
        if name.isdigit():
            try:
                with open(f"/proc/{name}/stat") as f:
                    ppid = int(f.read().rsplit(")", 1)[1].split()[1])
                kids.setdefault(ppid, []).append(int(name))
            except (OSError, IndexError, ValueError):
                pass
    return kids


def is_marked(pid):
    try:
        with open(f"/proc/{pid}/cmdline", "rb") as f:
            return f.read().split(b"\0")[:2] == [b"sleep", MARK.encode()]
    except OSError:
        return False


def supervisors(root):
    """The root and its descendants, without the supervised sleeps."""
    kids = children_map()
    found, todo = [], [root]
    while todo:
        pid = todo.pop()
        if not is_marked(pid):
            found.append(pid)
            todo.extend(kids.get(pid, []))
    return found


def cpu_seconds(pids):
    total = 0
    for pid in pids:
        try:
            with open(f"/proc/{pid}/stat") as f:
                fields = f.read().rsplit(")", 1)[1].split()
            total += int(fields[11]) + int(fields[12])
        except OSError:
            pass
    return total / TICK


def pss_mib(pids):
    total = 0
    for pid in pids:
        try:
            with open(f"/proc/{pid}/smaps_rollup") as f:
                for line in f:
                    if line.startswith("Pss:"):
                        total += int(line.split()[1])
        except OSError:
            pass
    return total / 1024


def peak_rss_mib(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmHWM:"):
                return int(line.split()[1]) / 1024
    return 0.0


def settle(pids, timeout=30):
    """Waits until the processes have used no CPU for half a second."""
    deadline = time.monotonic() + timeout
    last = cpu_seconds(pids)
    while time.monotonic() < deadline:
        time.sleep(0.5)
        now = cpu_seconds(pids)
        if now == last:
            return
        last = now


def kill_tree(root):
    kids = children_map()
    todo, pids = [root], []
    while todo:
        pid = todo.pop()
        pids.append(pid)
        todo.extend(kids.get(pid, []))
    for pid in pids:
        try:
            os.kill(pid, signal.SIGKILL)
        except OSError:
            pass


def kill_marked():
    subprocess.run(["pkill", "-KILL", "-f", f"^sleep {MARK}$"], check=False)
    deadline = time.monotonic() + 30
    while time.monotonic() < deadline:
        if subprocess.run(["pgrep", "-f", f"^sleep {MARK}$"], capture_output=True).returncode:
            return
        time.sleep(0.05)


def wait_socket(path):
    for _ in range(400):
        if os.path.exists(path):
            return
        time.sleep(0.01)
    raise RuntimeError(f"no socket at {path}")


class Sandbox:
    """stord and tovrin-sandbox in a private root."""

    def __init__(self, build, config):
        self.build = build
        self.root = tempfile.mkdtemp(prefix="tovrin-bench.")
        for d in ("etc/config", "var/run", "var/log", "proc", "tmp"):
            os.makedirs(f"{self.root}/{d}")
        self.write_config(config)
        self.socket = f"{self.root}/var/run/stord.sock"
        self.log = f"{self.root}/var/log/tovrin.log"
        self.store = subprocess.Popen([f"{build}/tools/stord/stord", "--socket", self.socket],
                                      stdout=subprocess.DEVNULL)
        wait_socket(self.socket)
        self.daemon = None

    def write_config(self, text):
        with open(f"{self.root}/etc/config/tovrin.conf", "w") as f:
            f.write(text)

    def probe(self, *args, **kw):
        return subprocess.Popen([f"{self.build}/bench/store_probe", self.socket, *args],
                                stdout=subprocess.PIPE, text=True, **kw)

    def start(self):
        self.daemon = subprocess.Popen([f"{self.build}/src/tovrin-sandbox", self.root])
        return self.daemon.pid

    def log_count(self, text):
        try:
            with open(self.log) as f:
                return f.read().count(text)
        except OSError:
            return 0

    def close(self):
        for p in (self.daemon, self.store):
            if p is not None:
                p.kill()
                p.wait()
        shutil.rmtree(self.root, ignore_errors=True)


def wait_probe(probe, timeout=600):
    out, _ = probe.communicate(timeout=timeout)
    if probe.returncode != 0:
        raise RuntimeError(f"store_probe failed: {out!r}")
    return float(out.split()[-1])


def ready(probe):
    line = probe.stdout.readline()
    if line.strip() != "ready":
        raise RuntimeError(f"store_probe said {line!r}")


# --- 1. peers -------------------------------------------------------------

# Each peer's setup runs before the clock starts (run scripts written, the
# store up); it returns the launch, which starts the supervisor and returns
# its pid and how to stop it.

def peer_tovrin(build, n, work):
    config = "global\n\tkeepalive 30\n" + "".join(
        f"conn s{i}\n\tup sleep {MARK}\n\trestartdelayfactor 0\n\tlog none\n" for i in range(n))
    box = Sandbox(build, config)
    return lambda: (box.start(), box.close)


def run_scripts(work, n):
    for i in range(n):
        d = f"{work}/s{i}"
        os.makedirs(d)
        with open(f"{d}/run", "w") as f:
            f.write(f"#!/bin/sh\nexec sleep {MARK}\n")
        os.chmod(f"{d}/run", 0o755)


def spawned(argv):
    p = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return p.pid, lambda: (kill_tree(p.pid), p.wait())


def peer_runit(build, n, work):
    run_scripts(work, n)
    return lambda: spawned(["runsvdir", "-P", work])


def peer_s6(build, n, work):
    run_scripts(work, n)
    return lambda: spawned(["s6-svscan", "-c", str(n + 100), work])


def peer_supervisord(build, n, work):
    conf = (f"[supervisord]\nnodaemon=true\nlogfile={work}/supervisord.log\n"
            f"pidfile={work}/supervisord.pid\nchildlogdir={work}\nminfds=8192\n"
            "minprocs=8192\nloglevel=warn\n")
    conf += "".join(f"[program:s{i}]\ncommand=sleep {MARK}\nautorestart=true\nstartsecs=0\n"
                    "stdout_logfile=NONE\nstderr_logfile=NONE\n" for i in range(n))
    with open(f"{work}/supervisord.conf", "w") as f:
        f.write(conf)
    return lambda: spawned(["supervisord", "-c", f"{work}/supervisord.conf"])


def peer_floor(build, n, work):
    def launch():
        p = subprocess.Popen([f"{build}/bench/spawn_floor", str(n), "sleep", MARK])
        return p.pid, lambda: (p.terminate(), p.wait(), kill_marked())
    return launch


PEERS = [
    ("floor (spawn call, pipes)", "spawn_floor", peer_floor),
    ("tovrin", "tovrin-sandbox", peer_tovrin),
    ("runit", "runsvdir", peer_runit),
    ("s6", "s6-svscan", peer_s6),
    ("supervisord", "supervisord", peer_supervisord),
]


def peer_run(build, name, launch, n):
    """One run: (seconds until all run, CPU s, PSS MiB, replacement ms)."""
    kill_marked()
    work = tempfile.mkdtemp(prefix="tovrin-peer.")
    start_supervisor = launch(build, n, work)
    watcher = ExecWatcher()
    start = time.monotonic_ns()
    root, stop = start_supervisor()
    try:
        done = watcher.wait_count(n, time.monotonic() + 300)
        if done is None:
            raise RuntimeError(f"{name}: only {len(watcher.marked)} of {n} ran")
        procs = supervisors(root)
        cpu, pss = cpu_seconds(procs), pss_mib(procs)
        time.sleep(2)  # past any restart throttle of a fresh service
        settle(procs)
        watcher.poll(0)
        replacements = []
        for victim in list(watcher.marked)[:REPLACEMENTS]:
            before = set(watcher.marked)
            killed = time.monotonic_ns()
            os.kill(victim, signal.SIGKILL)
            deadline = time.monotonic() + 30
            while set(watcher.marked) == before and time.monotonic() < deadline:
                watcher.poll(0.05)
            new = set(watcher.marked) - before
            if not new:
                raise RuntimeError(f"{name}: a killed sleep was not replaced")
            replacements.append((watcher.marked[new.pop()] - killed) / 1e6)
            time.sleep(0.2)
        return ((done - start) / 1e9, cpu, pss, statistics.median(replacements))
    finally:
        stop()
        kill_marked()
        shutil.rmtree(work, ignore_errors=True)


# --- 2. scale -------------------------------------------------------------

def scale_config(shape, n, changed=()):
    text = "global\n\tkeepalive 60\n"
    for i in range(n):
        text += f"conn c{i}\n\tlog none\n"
        if shape == "chains" and i % 10:
            text += f"\tparent c{i - 1}\n"
        if i in changed:
            text += "\ttestperiod 5\n"
    if shape == "groups":
        for g in range(n // 10):
            text += f"orderedgroup g{g}\n\tlog none\n" + "".join(
                f"\tmember c{i}\n" for i in range(g * 10, g * 10 + 10))
    return text


def scale_final(shape, n):
    if shape == "groups":
        return [f"up={2 * (n // 10)}", f"tested={n - n // 10}"]
    return [f"up={n}"]


def timed_reload(box, pid):
    finished = box.log_count("Finished Reloading Config")
    start = time.monotonic()
    os.kill(pid, signal.SIGHUP)
    while box.log_count("Finished Reloading Config") == finished:
        if time.monotonic() - start > 300:
            raise RuntimeError("reload never finished")
        time.sleep(0.001)
    return time.monotonic() - start


def scale_run(build, shape, n):
    """One run: (launch s, unchanged reload s, 1% reload s, peak RSS MiB)."""
    box = Sandbox(build, scale_config(shape, n))
    try:
        probe = box.probe("wait", *scale_final(shape, n))
        ready(probe)
        start = time.monotonic()
        pid = box.start()
        launch = wait_probe(probe) - start
        unchanged = timed_reload(box, pid)
        box.write_config(scale_config(shape, n, set(range(0, n, 100))))
        edited = timed_reload(box, pid)
        return (launch, unchanged, edited, peak_rss_mib(pid))
    finally:
        box.close()


# --- 3. store throughput --------------------------------------------------

def store_run(build, values, commands):
    """One run: (notifications/s, commands/s)."""
    n = commands
    config = "global\n\tkeepalive 60\nconn c0\n\tlog none\n\tstord_var v bench.key\n" + "".join(
        f"conn c{i}\n\tlog none\n" for i in range(1, n))
    box = Sandbox(build, config)
    try:
        probe = box.probe("wait", f"up={n}")
        ready(probe)
        box.start()
        wait_probe(probe)
        # Values, then one stop as a marker: the store keeps the order, so
        # once c0 is down every value before it was handled.
        probe = box.probe("wait", f"up={n - 1}", "down=1")
        ready(probe)
        setter = box.probe("set", "bench.key", str(values))
        start = wait_probe(setter)
        subprocess.run([f"{build}/bench/store_probe", box.socket, "cmd", "stop", "0", "1"],
                       check=True, stdout=subprocess.DEVNULL)
        notify_rate = values / (wait_probe(probe) - start)
        probe = box.probe("wait", f"down={n}")
        ready(probe)
        sender = box.probe("cmd", "stop", "1", str(n - 1))
        start = wait_probe(sender)
        command_rate = (n - 1) / (wait_probe(probe) - start)
        return (notify_rate, command_rate)
    finally:
        box.close()


# --- tables ---------------------------------------------------------------

def cell(values, fmt):
    med = statistics.median(values)
    return f"{fmt.format(med)} ({fmt.format(min(values))}–{fmt.format(max(values))})"


def table(head, rows):
    out = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    out += ["| " + " | ".join(r) + " |" for r in rows]
    return "\n".join(out) + "\n"


def targets(peers, scale, notify_rate, n, sizes):
    """The table of targets against the medians measured above."""
    rows = []

    def check(what, measured, met):
        rows.append([what, measured, "yes" if met else "**no**"])

    floor, tovrin = peers.get((n, "spawn_floor")), peers.get((n, "tovrin-sandbox"))
    if floor and tovrin:
        check(f"all {n:,} running within 1.15× the floor", f"{tovrin[0] / floor[0]:.2f}×",
              tovrin[0] <= 1.15 * floor[0])
        check(f"a killed up command replaced within 2× the floor's respawn ({n:,})",
              f"{tovrin[3]:.1f} ms against {floor[3]:.1f} ms", tovrin[3] <= 2 * floor[3])
        for program, name in (("runsvdir", "runit"), ("s6-svscan", "s6"),
                              ("supervisord", "supervisord")):
            peer = peers.get((n, program))
            if peer:
                check(f"ahead of {name} on every column ({n:,})",
                      ", ".join(f"{t:.3g} vs {p:.3g}" for t, p in zip(tovrin, peer)),
                      all(t < p or t == p == 0 for t, p in zip(tovrin, peer)))
    small, big = sizes[0], sizes[-1]
    for shape in ("flat", "chains", "groups"):
        one, ten = scale[(shape, small)], scale[(shape, big)]
        check(f"{shape}: {big:,} conns all up within 0.6 s", f"{ten[0]:.3f} s", ten[0] <= 0.6)
        check(f"{shape}: {big:,} within {big // small * 1.2:g}× {small:,}",
              f"{ten[0] / one[0]:.1f}×", ten[0] <= big / small * 1.2 * one[0])
        check(f"{shape}: unchanged reload of {big:,} within 100 ms", f"{ten[1] * 1000:.0f} ms",
              ten[1] <= 0.1)
        check(f"{shape}: peak resident size at {big:,} within 16 MiB", f"{ten[3]:.1f} MiB",
              ten[3] <= 16)
    check("at least 50,000 store notifications a second", f"{notify_rate:,.0f}",
          notify_rate >= 50000)
    return table(["target", "measured (medians)", "met"], rows)


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build")
    ap.add_argument("output")
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--quick", action="store_true", help="small sizes, to try the script")
    args = ap.parse_args()
    build = os.path.abspath(args.build)
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 1 << 20), hard))
    peer_sizes = [20] if args.quick else [100, 1000]
    scale_sizes = [100, 1000] if args.quick else [1000, 10000]
    runs = args.runs

    doc = ["# Performance\n",
           f"Measured {datetime.datetime.now().strftime('%Y-%m-%d %H:%M')} on "
           f"{os.cpu_count()} cores, Linux {platform.release()}, with `{' '.join(sys.argv)}` "
           f"(through `scripts/bench.sh`). Each cell is the median of {runs} runs, with the "
           "lowest and highest in brackets.\n"]

    peers, scale = {}, {}
    print("== peers", flush=True)
    doc.append("## Supervising N long-running `sleep` commands\n")
    doc.append("Time until all N have been exec'd (seen by the process-events connector), "
               "CPU time of the supervising processes until then, their total proportional "
               "memory (PSS; tovrin without the store, which the appliance runs anyway), and "
               "the time from SIGKILL of one `sleep` to the exec of its replacement (median "
               f"of {REPLACEMENTS} per run, once the supervisor is idle). runit and s6 run each command through a `run` script "
               "(`exec sleep`); the floor spawns with the daemon's own spawn call and "
               "respawns on SIGCHLD, nothing more.\n")
    for n in peer_sizes:
        rows = []
        for name, program, launch in PEERS:
            if program not in ("spawn_floor", "tovrin-sandbox") and shutil.which(program) is None:
                rows.append([name, "skipped: not installed", "", "", ""])
                continue
            results = []
            for _ in range(runs):
                results.append(peer_run(build, name, launch, n))
                print(f"   {name} N={n}: {results[-1]}", flush=True)
            cols = list(zip(*results))
            peers[(n, program)] = [statistics.median(c) for c in cols]
            rows.append([name, cell(cols[0], "{:.2f} s"), cell(cols[1], "{:.2f} s"),
                         cell(cols[2], "{:.1f} MiB"), cell(cols[3], "{:.1f} ms")])
        doc.append(f"N = {n:,}\n")
        doc.append(table(["supervisor", "all running", "CPU to then", "PSS",
                          "replace one killed"], rows))

    print("== scale", flush=True)
    doc.append("## Scale: conns without commands\n")
    doc.append("tovrin-sandbox with stord: from launch until every status key in the store "
               "reads its final state (groups: every group and its active member up, the other "
               "members tested); a SIGHUP reload of the same file and one with 1% of the conns "
               "changed, each until \"Finished Reloading Config\" is logged; the daemon's peak "
               "resident size. Chains are ten conns each the parent of the next; groups are "
               "ordered groups of ten members.\n")
    rows = []
    for shape in ("flat", "chains", "groups"):
        for n in scale_sizes:
            results = []
            for _ in range(runs):
                results.append(scale_run(build, shape, n))
                print(f"   {shape} N={n}: {results[-1]}", flush=True)
            cols = list(zip(*results))
            scale[(shape, n)] = [statistics.median(c) for c in cols]
            rows.append([shape, f"{n:,}", cell(cols[0], "{:.3f} s"), cell(cols[1], "{:.3f} s"),
                         cell(cols[2], "{:.3f} s"), cell(cols[3], "{:.1f} MiB")])
    doc.append(table(["shape", "conns", "all up", "reload, unchanged", "reload, 1% changed",
                      "peak RSS"], rows))

    print("== store", flush=True)
    values, commands = (2000, 200) if args.quick else (100000, 10000)
    results = []
    for _ in range(runs):
        results.append(store_run(build, values, commands))
        print(f"   {results[-1]}", flush=True)
    cols = list(zip(*results))
    doc.append("## Store throughput\n")
    doc.append(f"{values:,} values set on a key that one conn follows with `stord_var`, "
               f"until a control command sent after them has been handled; {commands - 1:,} "
               f"`stop` commands to as many conns that are up, until all read \"down\". Both "
               "pass through stord.\n")
    doc.append(table(["what", "per second"],
                     [["store-variable notifications", cell(cols[0], "{:,.0f}")],
                      ["control commands", cell(cols[1], "{:,.0f}")]]))

    doc.append("## Targets\n")
    doc.append(targets(peers, scale, statistics.median(cols[0]), peer_sizes[-1], scale_sizes))

    with open(args.output, "w") as f:
        f.write("\n".join(doc))
    print(f"wrote {args.output}")


if __name__ == "__main__":
    main()
