#!/usr/bin/env python3
"""How long tovrin-sim takes to simulate an hour of 1,000 conns.

The configuration: 334 ordered groups of two uplinks each, and a conn over
every group with a long-running up command, all tested every 30 s (1,002
conns and 334 groups). The script: every minute one primary uplink fails
and comes back two minutes later, an operator restarts a conn every five
minutes, and at half time the file is reloaded with 1% of the conns
changed. The floor is tovrin-check loading the same file (the daemon's
parser and fix-ups, which any run pays), measured in the same run.

    bench/sim_bench.py BUILD_DIR [--runs 5] [--append FILE.md]

Prints a Markdown section (or appends it to FILE.md) with the targets;
exits 1 when one is missed. Wall time counts what a person waits; CPU time
what the simulation costs, which a busy machine does not inflate.
"""

import argparse
import datetime
import os
import resource
import statistics
import subprocess
import sys
import tempfile
import time

GROUPS = 334  # two uplinks and one conn over each: 1,002 conns


def config(changed=()):
    out = ["global", "\tkeepalive 30", ""]
    for g in range(GROUPS):
        out += [f"orderedgroup up{g}", f"\tmember a{g}", f"\tmember b{g}",
                "\tfailforwardperiod 120", "\tlog none", ""]
        for m in ("a", "b"):
            out += [f"conn {m}{g}", f"\ttest check {m}{g}", "\ttestdelay 5",
                    "\ttestperiod 30", "\tlog none", ""]
        period = 31 if g in changed else 30
        out += [f"conn c{g}", f"\tparent up{g}", f"\tup tunnel {g}", f"\ttest check c{g}",
                "\ttestdelay 5", f"\ttestperiod {period}", "\tlog none", ""]
    return "\n".join(out)


def script(reload_path):
    out = []
    for minute in range(60):
        g = minute * 4 % GROUPS
        out.append(f"at {minute}m test a{g} fails")
        if minute + 2 < 60:
            out.append(f"at {minute + 2}m test a{g} passes")
        if minute % 5 == 0:
            out.append(f"at {minute}m cmd c{(g + 1) % GROUPS},cli,restart")
    out.append(f"at 30m reload {reload_path}")
    out.append("end 1h")
    return "\n".join(out) + "\n"


def timed(argv):
    """(wall seconds, CPU seconds, standard output) of one run."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    done = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    elapsed = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    if done.returncode != 0:
        sys.exit(f"{argv[0]} failed ({done.returncode}): {done.stderr.decode()}")
    cpu = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return elapsed, cpu, done.stdout


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("build")
    ap.add_argument("--runs", type=int, default=5)
    ap.add_argument("--append", help="append the section to this Markdown file")
    args = ap.parse_args()
    sim = os.path.join(args.build, "tools", "tovrin-sim")
    check = os.path.join(args.build, "tools", "tovrin-check")
    with tempfile.TemporaryDirectory() as work:
        conf, new, what_if = (os.path.join(work, n) for n in ("a.conf", "b.conf", "hour.sim"))
        with open(conf, "w") as f:
            f.write(config())
        with open(new, "w") as f:
            f.write(config(changed=set(range(0, GROUPS, 10))))
        with open(what_if, "w") as f:
            f.write(script(new))
        floors, hours, cpus, lines = [], [], [], 0
        for _ in range(args.runs):
            floors.append(timed([check, conf])[1])
            elapsed, cpu, out = timed([sim, what_if, conf])
            hours.append(elapsed)
            cpus.append(cpu)
            lines = out.count(b"\n")
    floor, hour, cpu = (statistics.median(v) for v in (floors, hours, cpus))
    doc = ["## Simulator\n",
           f"Measured {datetime.datetime.now().strftime('%Y-%m-%d %H:%M')} on {os.cpu_count()} "
           f"cores (load average {os.getloadavg()[0]:.1f}) with `bench/sim_bench.py`: "
           f"tovrin-sim simulates one hour of {GROUPS * 3:,} conns in {GROUPS} ordered groups, "
           "every conn tested every 30 s, an uplink failing every minute, operator restarts and "
           f"a reload ({lines:,} timeline lines). Medians of {args.runs} runs; the floor is "
           "the CPU time of tovrin-check loading the same file.\n",
           "| what | wall | CPU |\n|---|---|---|",
           f"| floor: tovrin-check loads the file | | {floor * 1000:.1f} ms |",
           f"| tovrin-sim: one hour | {hour * 1000:.0f} ms | {cpu * 1000:.0f} ms |\n"]
    targets = [("one simulated hour of 1,000 conns within 1 s", f"{hour:.3f} s", hour <= 1.0),
               ("... and within 1 s of CPU", f"{cpu:.3f} s", cpu <= 1.0),
               ("one simulated hour within 100× the floor", f"{cpu / floor:.0f}×",
                cpu <= 100 * floor)]
    doc.append("| target | measured | met |\n|---|---|---|")
    doc += [f"| {what} | {measured} | {'yes' if met else '**no**'} |"
            for what, measured, met in targets]
    text = "\n".join(doc) + "\n"
    if args.append:
        with open(args.append, "a") as f:
            f.write("\n" + text)
    print(text)
    return 0 if all(met for _, _, met in targets) else 1


if __name__ == "__main__":
    sys.exit(main())
