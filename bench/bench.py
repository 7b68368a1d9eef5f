#!/usr/bin/env python3
"""Side-by-side benchmarks of the daemon, written to docs/performance.md.

1. Peers: N long-running `sleep` commands under tovrin (also under the
   installed unit's descriptor limits), runit, s6, supervisord and a floor
   program that only spawns and respawns them, each figure also as a ratio
   to the floor's in the same round.
2. Scale: N command-less conns, flat, in chains and in ordered groups,
   through tovrin-sandbox and stord: launch, reloads, peak resident size.
3. Store throughput: store-variable notifications and control commands
   handled per second.

Each figure is the median of RUNS runs with their range; the peers run in
rounds, every one once per round, so that a ratio to the floor compares runs
made under the same load of the machine. Process starts are
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
UNIT_NOFILE = (1024, 524288)  # LimitNOFILE of the installed tovrin.service
PEER_DEADLINE = 300  # seconds a supervisor gets to have all N running
PEER_OWN_DESCRIPTORS = 100  # besides two pipes for each command
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
    """CPU time of the processes, every thread, to the nanosecond where the
    kernel keeps scheduler statistics (clock ticks are too coarse for a
    supervisor that needs a few of them), else in clock ticks."""
    total = 0.0
    for pid in pids:
        try:
            for task in os.listdir(f"/proc/{pid}/task"):
                with open(f"/proc/{pid}/task/{task}/schedstat") as f:
                    total += int(f.read().split()[0]) / 1e9
        except (OSError, ValueError, IndexError):
            try:
                with open(f"/proc/{pid}/stat") as f:
                    fields = f.read().rsplit(")", 1)[1].split()
                total += (int(fields[11]) + int(fields[12])) / TICK
            except OSError:
                pass
    return total


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

    def start(self, wrapper=()):
        self.daemon = subprocess.Popen([*wrapper, f"{self.build}/src/tovrin-sandbox", self.root])
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

def tovrin_box(build, n):
    config = "global\n\tkeepalive 30\n" + "".join(
        f"conn s{i}\n\tup sleep {MARK}\n\trestartdelayfactor 0\n\tlog none\n" for i in range(n))
    return Sandbox(build, config)


def peer_tovrin(build, n, work):
    box = tovrin_box(build, n)
    return lambda: (box.start(), box.close)


def unit_nofile():
    """The unit's descriptor limits, the hard one no higher than ours: without
    CAP_SYS_RESOURCE no process can raise it."""
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    return f"{UNIT_NOFILE[0]}:{min(UNIT_NOFILE[1], hard)}"


def peer_tovrin_unit(build, n, work):
    """Started with the descriptor limits the installed unit gives."""
    box = tovrin_box(build, n)
    return lambda: (box.start(["prlimit", f"--nofile={unit_nofile()}", "--"]), box.close)


def run_scripts(work, n):
    for i in range(n):
        d = f"{work}/sv/s{i}"
        os.makedirs(d)
        with open(f"{d}/run", "w") as f:
            f.write(f"#!/bin/sh\nexec sleep {MARK}\n")
        os.chmod(f"{d}/run", 0o755)


def spawned(argv, work):
    """Starts a peer with its complaints in work/complaints, where a peer
    that stops short is asked why."""
    with open(f"{work}/complaints", "w") as err:
        p = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=err)
    return p.pid, lambda: (kill_tree(p.pid), p.wait())


def complaint(work):
    """The peer's last distinct complaint, "" when it said nothing."""
    try:
        with open(f"{work}/complaints", errors="replace") as f:
            lines = [line.strip() for line in f if line.strip()]
    except OSError:
        return ""
    return lines[-1].replace(f"{work}/", "") if lines else ""


def peer_runit(build, n, work):
    run_scripts(work, n)
    # The services go in a directory of their own: runsvdir takes every
    # entry of its directory for one.
    return lambda: spawned(["runsvdir", "-P", f"{work}/sv"], work)


def peer_s6(build, n, work):
    run_scripts(work, n)
    return lambda: spawned(["s6-svscan", "-c", str(n + 100), f"{work}/sv"], work)


def peer_supervisord(build, n, work):
    conf = (f"[supervisord]\nnodaemon=true\nlogfile={work}/supervisord.log\n"
            f"pidfile={work}/supervisord.pid\nchildlogdir={work}\nminfds=8192\n"
            "minprocs=8192\nloglevel=warn\n")
    conf += "".join(f"[program:s{i}]\ncommand=sleep {MARK}\nautorestart=true\nstartsecs=0\n"
                    "stdout_logfile=NONE\nstderr_logfile=NONE\n" for i in range(n))
    with open(f"{work}/supervisord.conf", "w") as f:
        f.write(conf)
    return lambda: spawned(["supervisord", "-c", f"{work}/supervisord.conf"], work)


def peer_floor(build, n, work):
    def launch():
        p = subprocess.Popen([f"{build}/bench/spawn_floor", str(n), "sleep", MARK])
        return p.pid, lambda: (p.terminate(), p.wait(), kill_marked())
    return launch


# (row name, key, launch, program that must be installed)
PEERS = [
    ("floor (spawn call, pipes)", "floor", peer_floor, None),
    ("tovrin", "tovrin", peer_tovrin, None),
    ("tovrin under the unit's limits", "tovrin-unit", peer_tovrin_unit, "prlimit"),
    ("runit", "runit", peer_runit, "runsvdir"),
    ("s6", "s6", peer_s6, "s6-svscan"),
    ("supervisord", "supervisord", peer_supervisord, "supervisord"),
]


class PeerStopped(Exception):
    """A supervisor that did not have all N running by the deadline."""


def peer_run(build, name, launch, n):
    """One run: (seconds until all run, CPU s, PSS MiB, replacement ms)."""
    kill_marked()
    work = tempfile.mkdtemp(prefix="tovrin-peer.")
    start_supervisor = launch(build, n, work)
    watcher = ExecWatcher()
    start = time.monotonic_ns()
    root, stop = start_supervisor()
    try:
        done = watcher.wait_count(n, time.monotonic() + PEER_DEADLINE)
        if done is None:
            said = complaint(work)
            raise PeerStopped(f"{len(watcher.marked):,} of {n:,} running after "
                              f"{PEER_DEADLINE} s" + (f"; it said \"{said}\"" if said else ""))
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


def ratio_cell(value):
    return f"{value:.2f}×"


def targets(med, ratio, stopped, scale, notify_rate, peer_sizes, scale_sizes):
    """The table of targets against the medians measured above."""
    rows = []

    def check(what, measured, met):
        rows.append([what, measured, "yes" if met else "**no**"])

    for n in [n for n in peer_sizes if n >= 1000] or peer_sizes[-1:]:
        unit, plain = ratio.get((n, "tovrin-unit")), ratio.get((n, "tovrin"))
        if unit:
            check(f"all {n:,} running under the unit's limits within 1.15× the floor",
                  ratio_cell(unit[0]), unit[0] <= 1.15)
        for key, label in (("tovrin", "tovrin"), ("tovrin-unit", "under the unit's limits")):
            if ratio.get((n, key)):
                check(f"{label}: CPU to all {n:,} running within 1.5× the floor's",
                      ratio_cell(ratio[(n, key)][1]), ratio[(n, key)][1] <= 1.5)
        if plain:
            check(f"a killed up command replaced within 2× the floor's respawn ({n:,})",
                  ratio_cell(plain[3]), plain[3] <= 2)
        ours = med.get((n, "tovrin-unit"))
        for key in ("runit", "s6", "supervisord"):
            what = f"under the unit's limits, ahead of {key} on every column ({n:,})"
            if (n, key) in stopped:
                rows.append([what, f"{key} stopped: {stopped[(n, key)]}", "yes"])
            elif ours and (n, key) in med:
                peer = med[(n, key)]
                check(what, ", ".join(f"{t:.3g} vs {p:.3g}" for t, p in zip(ours, peer)),
                      all(t < p or t == p == 0 for t, p in zip(ours, peer)))
    small, big = scale_sizes[0], scale_sizes[-1]
    for shape in ("flat", "chains", "groups"):
        one, ten = scale[(shape, small)], scale[(shape, big)]
        check(f"{shape}: {big:,} conns all up within 0.6 s", f"{ten[0]:.3f} s", ten[0] <= 0.6)
        check(f"{shape}: {big:,} within {big // small * 1.2:g}× {small:,}",
              f"{ten[0] / one[0]:.1f}×", ten[0] <= big / small * 1.2 * one[0])
        check(f"{shape}: unchanged reload of {big:,} within 100 ms", f"{ten[1] * 1000:.0f} ms",
              ten[1] <= 0.1)
        check(f"{shape}: peak resident size at {big:,} through a reload within 12 MiB",
              f"{ten[3]:.1f} MiB", ten[3] <= 12)
    check("at least 50,000 store notifications a second", f"{notify_rate:,.0f}",
          notify_rate >= 50000)
    return table(["target", "measured (medians)", "met"], rows)


def peers_measure(build, n, runs):
    """Every installed peer once per round, runs rounds: per key, the result
    of each round it finished; and the keys that stopped short, with where."""
    results, stopped = {}, {}
    for r in range(runs):
        for name, key, launch, program in PEERS:
            if key in stopped or (program and shutil.which(program) is None):
                continue
            try:
                results.setdefault(key, {})[r] = peer_run(build, name, launch, n)
                print(f"   {name} N={n} round {r + 1}: {results[key][r]}", flush=True)
            except PeerStopped as e:
                stopped[key] = str(e)
                print(f"   {name} N={n} round {r + 1}: stopped, {e}", flush=True)
    return results, stopped


def peer_ratios(results, key):
    """Per column, the median over the rounds of key's figure divided by the
    floor's in the same round."""
    floor = results.get("floor", {})
    rounds = [r for r in results.get(key, {}) if r in floor]
    if not rounds:
        return None
    return [statistics.median(results[key][r][c] / floor[r][c] if floor[r][c] else float("inf")
                              for r in rounds) for c in range(4)]


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build")
    ap.add_argument("output")
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--quick", action="store_true", help="small sizes, to try the script")
    args = ap.parse_args()
    build = os.path.abspath(args.build)
    # Room for the pipes of 10,000 commands, two each: with CAP_SYS_RESOURCE
    # the hard limit may rise; without it, N stops where the hard limit does.
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    try:
        resource.setrlimit(resource.RLIMIT_NOFILE, (1 << 20, 1 << 20))
    except (ValueError, OSError):
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 1 << 20), hard))
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    peer_sizes = [20, 200] if args.quick else [100, 1000, 10000]
    fits = (hard - PEER_OWN_DESCRIPTORS) // 2 // 100 * 100
    capped = peer_sizes[-1] > fits
    peer_sizes = [min(n, fits) for n in peer_sizes]
    scale_sizes = [100, 1000] if args.quick else [1000, 10000]
    runs = args.runs

    doc = ["# Performance\n",
           f"Measured {datetime.datetime.now().strftime('%Y-%m-%d %H:%M')} on "
           f"{os.cpu_count()} cores, Linux {platform.release()}, with `{' '.join(sys.argv)}` "
           f"(through `scripts/bench.sh`). Each cell is the median of {runs} runs, with the "
           "lowest and highest in brackets.\n"]
    load_before = os.getloadavg()

    med, ratio, stopped, scale = {}, {}, {}, {}
    print("== peers", flush=True)
    doc.append("## Supervising N long-running `sleep` commands\n")
    doc.append("Time until all N have been exec'd (seen by the process-events connector), "
               "CPU time of the supervising processes until then, their total proportional "
               "memory (PSS; tovrin without the store, which the appliance runs anyway), and "
               "the time from SIGKILL of one `sleep` to the exec of its replacement (median "
               f"of {REPLACEMENTS} per run, once the supervisor is idle). runit and s6 run each "
               "command through a `run` script (`exec sleep`); the floor spawns with the "
               "daemon's own spawn call and respawns on SIGCHLD, nothing more. tovrin runs "
               "once with the benchmark's own descriptor limit and once under `prlimit "
               f"--nofile={unit_nofile()}`, the limits the installed unit sets (it raises its soft "
               "limit for the pipes and starts each command with 1,024). The peers run in rounds, "
               "each once per round, and each ×floor column is the median over the rounds of "
               "the figure divided by the floor's in the same round: absolute figures differ "
               "several-fold between machines of the same kind, and with the load of the "
               f"machine; the ratios are what compares. A supervisor that has not got all N "
               f"running after {PEER_DEADLINE} s is stopped there.\n")
    if capped:
        doc.append(f"The hard descriptor limit here is {hard:,}, and the benchmark may not raise "
                   "it (no CAP_SYS_RESOURCE): no process can hold the pipes of 10,000 commands, "
                   f"two each, so the largest N is {peer_sizes[-1]:,}, and the unit's hard "
                   f"limit of {UNIT_NOFILE[1]:,} is {hard:,} here.\n")
    for n in peer_sizes:
        results, stopped_n = peers_measure(build, n, runs)
        rows = []
        for name, key, _launch, program in PEERS:
            if key in stopped_n:
                stopped[(n, key)] = stopped_n[key]
                rows.append([name, f"stopped: {stopped_n[key]}"] + [""] * 7)
                continue
            if key not in results:
                rows.append([name, f"skipped: {program} not installed"] + [""] * 7)
                continue
            cols = list(zip(*results[key].values()))
            med[(n, key)] = [statistics.median(c) for c in cols]
            ratio[(n, key)] = peer_ratios(results, key)
            row = [name]
            for c, fmt in enumerate(("{:.2f} s", "{:.3f} s", "{:.1f} MiB", "{:.1f} ms")):
                row += [cell(cols[c], fmt), ratio_cell(ratio[(n, key)][c])]
            rows.append(row)
        doc.append(f"N = {n:,}\n")
        doc.append(table(["supervisor", "all running", "×floor", "CPU to then", "×floor",
                          "PSS", "×floor", "replace one killed", "×floor"], rows))

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
    doc.append(targets(med, ratio, stopped, scale, statistics.median(cols[0]), peer_sizes,
                       scale_sizes))

    load_after = os.getloadavg()
    doc[1] = doc[1][:-1] + (" Load average (1, 5, 15 minutes) of the machine before: "
                            f"{', '.join(f'{x:.2f}' for x in load_before)}; after: "
                            f"{', '.join(f'{x:.2f}' for x in load_after)}.\n")
    with open(args.output, "w") as f:
        f.write("\n".join(doc))
    print(f"wrote {args.output}")


if __name__ == "__main__":
    main()
