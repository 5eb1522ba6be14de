#!/usr/bin/env python3
"""Benchmark of morvaned against the floor and the usual supervisors.

Run by bench/run through tests/private-dev, as pid 1 of private mount and pid
namespaces with a /dev of their own, where /dev/log is a socket read by
bench/sink.c, so that morvaned logs at its true cost. In that mount namespace
the bench lays the peers bench/run unpacked (BUILD_DIR/peers) over /usr and
keeps its files on a tmpfs (BUILD_DIR/work): nothing is written on the host.
Every supervisor runs the same static child (bench/child.c), copied to that
tmpfs (morvaned's copy is named Morvane.exe), which records when it started;
each measurement is taken from those records and from /proc:

  start-up   launch of the supervisor to the last of N children started
  memory     RSS, PSS and anonymous memory of the supervising processes
             (children excluded), N = 1000
  idle       CPU time and context switches of the supervising processes over
             10 s with N = 100 children running
  restart    one child killed (long after start) to its replacement started

The supervisors run interleaved, REPS times each; the table gives medians
with min and max. Usage: bench.py BUILD_DIR MORVANED [REPS]; BENCH_ONLY (a
comma-separated list) limits the supervisors, for tuning.
"""
import os
import shutil
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

BUILD, MORVANED = sys.argv[1], sys.argv[2]
REPS = int(sys.argv[3]) if len(sys.argv) > 3 else 3
WORK = os.path.join(BUILD, "work")  # a tmpfs while the bench runs
CHILD = os.path.join(WORK, "child")  # every supervisor executes its children from there
FLOOR = os.path.join(BUILD, "floor")
IDLE_SECONDS = 10
SIZES = (100, 1000)


def names(n):
    return ["i%04d" % i for i in range(n)]


def write(path, text, mode=0o644):
    with open(path, "w") as f:
        f.write(text)
    os.chmod(path, mode)


def service_dirs(top, n):
    os.mkdir(top)
    for name in names(n):
        os.mkdir(os.path.join(top, name))
        write(os.path.join(top, name, "run"), "#!/bin/sh\nexec %s %s\n" % (CHILD, name), 0o755)


# Each returns the command line and working directory for N children in DIR.
def floor(d, n):
    return [FLOOR, CHILD, str(n)], d


def morvaned(d, n):
    base = os.path.join(d, "base")
    os.mkdir(base)
    shutil.copy(CHILD, os.path.join(base, "Morvane.exe"))
    for name in names(n):
        write(os.path.join(base, name + ".INI"), "")
    return [MORVANED, "--pidfile=" + os.path.join(d, "morvaned.pid")], base


def runit(d, n):
    service_dirs(os.path.join(d, "service"), n)
    return ["runsvdir", os.path.join(d, "service")], d


def s6(d, n):
    service_dirs(os.path.join(d, "scan"), n)
    limit = ["-c", str(n + 10)] if n > 500 else []  # 500 services by default
    return ["s6-svscan"] + limit + [os.path.join(d, "scan")], d


def supervisord(d, n):
    conf = ["[supervisord]", "nodaemon=true", "minfds=%d" % (4 * n + 1024),
            "logfile=%s/supervisord.log" % d, "pidfile=%s/supervisord.pid" % d,
            "childlogdir=%s" % d]
    for name in names(n):
        conf += ["[program:%s]" % name, "command=%s %s" % (CHILD, name),
                 "autorestart=true", "startsecs=0",
                 "stdout_logfile=NONE", "stderr_logfile=NONE"]
    write(os.path.join(d, "supervisord.conf"), "\n".join(conf) + "\n")
    return ["supervisord", "-n", "-c", os.path.join(d, "supervisord.conf")], d


SUPERVISORS = {"floor": floor, "morvaned": morvaned, "runit": runit, "s6": s6,
               "supervisord": supervisord}
PEERS = os.path.join(BUILD, "peers")


def private_mounts():
    """The peers over /usr and a tmpfs for the runs' files, in this mount namespace only."""
    if os.getpid() != 1:  # outside private-dev's namespaces the sink would bind the host's /dev/log
        sys.exit("bench.py: run it with bench/run, as pid 1 of tests/private-dev's namespaces")
    if os.path.exists(os.path.join(PEERS, "versions")):
        lower = os.path.join(PEERS, "root", "usr")
        if ":" in lower or "," in lower:  # they would split overlayfs's option
            sys.exit("bench.py: the peers' path may not hold ':' or ',': " + lower)
        subprocess.run(["mount", "-t", "overlay", "overlay", "-o", "ro,lowerdir=%s:/usr" % lower,
                        "/usr"], check=True)
    os.makedirs(WORK, exist_ok=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "mode=755", "tmpfs", WORK], check=True)
    shutil.copy(os.path.join(BUILD, "child"), CHILD)


def available():
    found = [k for k, cmd in (("floor", FLOOR), ("morvaned", MORVANED), ("runit", "runsvdir"),
                              ("s6", "s6-svscan"), ("supervisord", "supervisord"))
             if shutil.which(cmd)]
    if os.environ.get("BENCH_ONLY"):  # e.g. "floor,morvaned" while tuning
        found = [k for k in found if k in os.environ["BENCH_ONLY"].split(",")]
    return found


def proc(pid, name):
    try:
        with open("/proc/%d/%s" % (pid, name)) as f:
            return f.read()
    except OSError:
        return ""


def descendants(root):
    """root and every process below it."""
    parent = {}
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            stat = proc(int(entry), "stat")
            if stat:
                parent[int(entry)] = int(stat[stat.rindex(")") + 2:].split()[1])
    found, todo = [], [root]
    while todo:
        pid = todo.pop()
        found.append(pid)
        todo += [p for p, up in parent.items() if up == pid]
    return found


class Run:
    """One supervisor with N children, in a directory of its own."""

    def __init__(self, kind, n, work):
        self.kind, self.n = kind, n
        self.dir = tempfile.mkdtemp(prefix="%s-%d-" % (kind, n), dir=work)
        self.records = os.path.join(self.dir, "records")
        self.cmd, self.cwd = SUPERVISORS[kind](self.dir, n)

    def start(self):
        env = dict(os.environ, BENCH_RECORDS=self.records)
        self.t0 = time.monotonic_ns()
        self.proc = subprocess.Popen(self.cmd, cwd=self.cwd, env=env, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def started(self):
        """name -> list of (pid, start ns), in the order recorded."""
        seen = {}
        try:
            with open(self.records) as f:
                for line in f:
                    name, pid, ns = line.split()
                    seen.setdefault(name, []).append((int(pid), int(ns)))
        except FileNotFoundError:
            pass
        return seen

    def wait_for(self, done, seconds=120):
        deadline = time.monotonic() + seconds
        while not done():
            if time.monotonic() > deadline or self.proc.poll() is not None:
                raise RuntimeError("%s with %d children: gave up waiting" % (self.kind, self.n))
            time.sleep(0.002)

    def startup_seconds(self):
        self.wait_for(lambda: len(self.started()) == self.n)
        return (max(starts[0][1] for starts in self.started().values()) - self.t0) / 1e9

    def supervising(self):
        """The supervisor and its descendants, children excluded."""
        return [p for p in descendants(self.proc.pid)
                if os.path.realpath("/proc/%d/exe" % p) not in (CHILD, self.cwd + "/Morvane.exe")]

    def memory_kib(self):
        total = {"Rss": 0, "Pss": 0, "Anonymous": 0}
        for pid in self.supervising():
            for line in proc(pid, "smaps_rollup").splitlines():
                key = line.split(":")[0]
                if key in total:
                    total[key] += int(line.split()[1])
        return total

    def cpu_and_switches(self):
        ns = switches = 0
        for pid in self.supervising():
            ns += int((proc(pid, "schedstat").split() or ["0"])[0])
            for line in proc(pid, "status").splitlines():
                if "ctxt_switches:" in line:  # voluntary and involuntary
                    switches += int(line.split()[1])
        return ns, switches

    def restart_seconds(self, name="i0042"):
        pid = self.started()[name][-1][0]
        t = time.monotonic_ns()
        os.kill(pid, signal.SIGKILL)
        self.wait_for(lambda: len(self.started()[name]) > 1 and self.started()[name][-1][0] != pid)
        return (self.started()[name][-1][1] - t) / 1e9

    def stop(self):
        # Everything this run started, by pid; the bench is pid 1 here and
        # reaps the orphans.
        for pid in descendants(self.proc.pid):
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
        self.proc.wait()
        reap()
        shutil.rmtree(self.dir, ignore_errors=True)


def reap():
    while True:
        try:
            if os.waitpid(-1, os.WNOHANG)[0] == 0:
                return
        except ChildProcessError:
            return


def measure(kind, work, results):
    small = Run(kind, 100, work)
    small.start()
    try:
        results["startup100"].append(small.startup_seconds())
        time.sleep(1)  # let start-up work settle before the idle window
        ns0, sw0 = small.cpu_and_switches()
        time.sleep(IDLE_SECONDS)
        ns1, sw1 = small.cpu_and_switches()
        results["idle_cpu_ms"].append((ns1 - ns0) / 1e6)
        results["idle_switches"].append(sw1 - sw0)
        results["restart"].append(small.restart_seconds())
    finally:
        small.stop()
    large = Run(kind, 1000, work)
    large.start()
    try:
        results["startup1000"].append(large.startup_seconds())
        time.sleep(1)
        memory = large.memory_kib()
        for key in memory:
            results[key].append(memory[key] / 1024)
        results["restart"].append(large.restart_seconds())
    finally:
        large.stop()


METRICS = [("startup100", "start-up, N=100 (ms)", 1000),
           ("startup1000", "start-up, N=1000 (ms)", 1000),
           ("restart", "restart latency (ms)", 1000),
           ("Rss", "RSS, N=1000 (MiB)", 1),
           ("Pss", "PSS, N=1000 (MiB)", 1),
           ("Anonymous", "anonymous, N=1000 (MiB)", 1),
           ("idle_cpu_ms", "idle CPU over 10 s (ms)", 1),
           ("idle_switches", "idle context switches over 10 s", 1)]


def number(x):
    return "%.0f" % x if x >= 100 else "%.1f" % x if x >= 10 else "%.3g" % x


def cell(values, scale):
    return "%s [%s–%s]" % (number(statistics.median(values) * scale),
                           number(min(values) * scale), number(max(values) * scale))


def main():
    private_mounts()
    kinds = available()
    sink = subprocess.Popen([os.path.join(BUILD, "sink")], stdout=subprocess.PIPE, text=True)
    while not os.path.exists("/dev/log"):
        if sink.poll() is not None:
            sys.exit("bench.py: the sink could not bind /dev/log")
        time.sleep(0.01)
    results = {k: {m[0]: [] for m in METRICS} for k in kinds}
    began = time.monotonic()
    for rep in range(REPS):
        order = kinds[rep % len(kinds):] + kinds[:rep % len(kinds)]
        for kind in order:
            print("rep %d/%d: %s" % (rep + 1, REPS, kind), file=sys.stderr, flush=True)
            measure(kind, WORK, results[kind])

    print("| metric | " + " | ".join(kinds) + " |")
    print("|---|" + "---|" * len(kinds))
    for key, label, scale in METRICS:
        print("| %s | %s |" % (label, " | ".join(cell(results[k][key], scale) for k in kinds)))
    med = {k: {m: statistics.median(v) for m, v in r.items()} for k, r in results.items()}
    print()
    for key, label in (("startup100", "start-up N=100"), ("startup1000", "start-up N=1000"),
                       ("restart", "restart latency")):
        print("%s, median ratio to the floor: %s" % (label, ", ".join(
            "%s %.2fx" % (k, med[k][key] / med["floor"][key]) for k in kinds)))
    m = med["morvaned"]
    ref = med["floor"]
    quiet = max(results["morvaned"]["idle_cpu_ms"] + results["morvaned"]["idle_switches"]) == 0
    targets = [("start-up at N=1000 <= 1.0x the floor", m["startup1000"] <= ref["startup1000"]),
               ("restart latency <= 1.05x the floor", m["restart"] <= 1.05 * ref["restart"]),
               ("anonymous memory <= 0.2 MiB", m["Anonymous"] <= 0.2),
               ("PSS <= 1.0 MiB", m["Pss"] <= 1.0),
               ("no idle CPU and no idle wake-ups", quiet)]
    print()
    for text, ok in targets:
        print("morvaned target: %s: %s" % (text, "met" if ok else "NOT met"))
    sink.terminate()
    print("\n%d repetitions in %.0f s; morvaned sent %s syslog lines to the bench's socket"
          % (REPS, time.monotonic() - began, sink.communicate()[0].strip()))
    if os.path.exists(os.path.join(PEERS, "versions")):
        with open(os.path.join(PEERS, "versions")) as f:
            print("peers unpacked from Debian: " + ", ".join(f.read().splitlines()))


if __name__ == "__main__":
    main()
