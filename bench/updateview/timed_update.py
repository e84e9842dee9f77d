#!/usr/bin/env python3
"""Runs `tavrel --json -s VIEW update` and times it without getting in its way.

Usage: timed_update.py TAVREL VIEW OUT_JSON [--rss PID] [--lookups NAMES]

The update log is followed by its size (one stat every 2 ms); only the bytes it gained are read, so the
poll costs next to nothing however long the log grows, and a record's time is known to about 2 ms. With
--rss the agent's VmRSS is read at each poll.
With --lookups, once 1,000 records are in, the kernel's caches are dropped and every path of NAMES is
lstat'ed and timed (this load on the machine is the point of that run, so its rate is not reported).

Prints one line: "secs apply_secs peak_rss_kib lat_median lat_p90 lat_p99 ended_before_samples first_secs"
(times in seconds from the command's start: to its end, to the last record, to the first record;
latencies in microseconds; "-" where not measured).
"""
import os
import re
import subprocess
import sys
import time

RECORD = re.compile(rb"^(New|Updated|Unload[A-Za-z]*|Hijacked[A-Za-z]*):", re.M)


def rss_kib(pid):
    try:
        with open("/proc/%d/status" % pid) as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0


def lstat_latency(names):
    lat = []
    for p in names:
        t = time.perf_counter_ns()
        os.lstat(p)
        lat.append((time.perf_counter_ns() - t) / 1000)
    lat.sort()
    q = lambda f: lat[min(len(lat) - 1, int(f * len(lat)))]
    return "%.0f %.0f %.0f" % (q(0.5), q(0.9), q(0.99))


def main():
    tavrel, view, out_json = sys.argv[1:4]
    rss_pid, names = None, None
    args = sys.argv[4:]
    while args:
        if args[0] == "--rss":
            rss_pid = int(args[1])
        elif args[0] == "--lookups":
            names = [p for p in open(args[1]).read().split("\n") if p]
        else:
            sys.exit("timed_update.py: unknown argument " + args[0])
        args = args[2:]

    logdir = os.path.join(view, "log")
    is_log = lambda n: n.startswith("update.") and n.endswith(".updt")
    before = set(n for n in os.listdir(logdir) if is_log(n)) if os.path.isdir(logdir) else set()
    peak = 0
    log, offset, tail, count = None, 0, b"", 0
    lat, ended_first = "- - -", "-"

    def poll():
        nonlocal log, offset, tail, count, t_last, t_first
        if log is None and os.path.isdir(logdir):
            fresh = sorted(n for n in os.listdir(logdir) if is_log(n) and n not in before)
            if fresh:
                log = os.path.join(logdir, fresh[-1])
        if log is None:
            return
        try:
            size = os.stat(log).st_size
        except OSError:
            return
        if size <= offset:
            return
        with open(log, "rb") as f:
            f.seek(offset)
            chunk = f.read(size - offset)
        offset += len(chunk)
        # Only whole lines count; a line cut by the read waits for its end.
        data = tail + chunk
        cut = data.rfind(b"\n") + 1
        tail = data[cut:]
        found = len(RECORD.findall(data[:cut]))
        if found:
            count += found
            t_last = time.monotonic_ns()
            if t_first is None:
                t_first = t_last

    t0 = time.monotonic_ns()
    t_last = t0
    t_first = None
    with open(out_json, "wb") as out:
        proc = subprocess.Popen([tavrel, "--json", "-s", view, "update"], stdout=out)
        while proc.poll() is None:
            poll()
            if rss_pid:
                peak = max(peak, rss_kib(rss_pid))
            if names is not None and lat == "- - -" and count > 1000:
                with open("/proc/sys/vm/drop_caches", "w") as f:
                    f.write("3\n")
                lat = lstat_latency(names)
                ended_first = "1" if proc.poll() is not None else "0"
            time.sleep(0.002)
    t1 = time.monotonic_ns()
    poll()
    print("%.3f %.3f %d %s %s %.3f" % ((t1 - t0) / 1e9, (t_last - t0) / 1e9, peak, lat, ended_first,
                                       ((t_first or t_last) - t0) / 1e9))
    return proc.returncode


if __name__ == "__main__":
    sys.exit(main())
