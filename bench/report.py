"""Writes the results as docs/performance.md and its plot."""

import os
import platform
import subprocess
import time

import matplotlib

matplotlib.use("svg")
import matplotlib.pyplot as plt

PEERS = {
    "ip monitor": "address and route log",
    "ifplugd": "link changes",
    "vnstatd": "port counters",
    "triggerhappy": "button",
    "collectd": "port counters every second, in files",
    "shell loop": "LEDs and button, twice a second",
}


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return "\n".join(lines + ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows])


def number(value):
    return f"{value:,.0f}" if value >= 100 or value == int(value) else f"{value:.1f}"


def ratio(ours, floor):
    return f"{ours / floor:.2f}"


def heap_total(calls):
    return sum(calls.values())


def is_ours(caller):
    return caller.startswith(("(anonymous namespace)", "platform_", "display_", "kelo_", "main"))


def goals(results):
    """Rows of figure, floor, goal, reached, what keeps it from the floor."""
    calls, instructions = results["calls"]["second"], results["instructions"]
    hour, day, beside = results["hour"], results["day"], results["beside"]
    heap = instructions["daemon"]["heap"]
    streams = ", ".join(f"{count:.0f} `{function}` from `{caller.split('@')[0].strip('_')}`"
                        for (caller, function), count in sorted(heap.items()))
    sums = {key: sum(beside[name][key] for name in PEERS) for key in ("private", "cpu")}
    return [
        ("system calls in an idle second", "raw calls on epoll", 1.03,
         calls["daemon"] / calls["floor"],
         "Nothing. Timers that fall into different milliseconds would add a wait or two."),
        ("instructions of an LED tick", "libevent and stdio", 1.1,
         instructions["daemon"]["tick"] / instructions["event_floor"]["tick"],
         "stdio is nearly all of both: an `fopen`, an `fprintf` and an `fclose` for each LED. That "
         "is how the driver's lines are written, so the floor does it too."),
        ("heap calls in an idle second, our own code", "none", 0,
         sum(count for (caller, _), count in heap.items() if is_ours(caller)),
         f"Nothing. stdio takes {streams}: the `FILE` of each LED, the snapshot and the button. "
         "Their buffers are ours; the `FILE` itself cannot be had for nothing, as no standard call "
         "opens a stream in memory of the caller's."),
        ("private dirty memory after an hour",
         "an empty libevent program, same libraries and receive buffer", 1.05,
         hour["daemon"]["an hour"]["private dirty"] / hour["empty"]["an hour"]["private dirty"],
         "A page more of the heap, for streams and records. The receive buffer, 16,400 bytes of the "
         "stack that are cleared for every message, is documented."),
        ("private dirty memory after a day", "itself after an hour", 1,
         day["last hour"] / day["first hour"],
         "Nothing."),
        ("latency from kernel event to log line", "raw calls on epoll", 1.1,
         results["latency"]["to floor"],
         "libevent's loop, and three formatting calls for a record where one would do. "
         f"Beside `ip monitor address` it is {results['latency']['to ip monitor']:.2f}: that keeps "
         "a cache of names, where each new address here asks the kernel twice."),
        ("CPU of an address event, ignored interface", "raw calls on epoll", 1.1,
         results["message cpu"]["to floor"], "The same."),
        ("exec to first LED, milliseconds", "", 1.5, results["start"]["daemon"],
         "The dynamic linker and eight libraries: the empty program takes "
         f"{results['start']['empty']:.2f} there."),
        ("exec to first LED", "an empty libevent program, same libraries", 1.2,
         results["start"]["to empty"],
         "More symbols to bind, and the netlink socket, which comes first."),
        ("private memory", "the sum of the peers", 0.2,
         beside["daemon"]["private"] / sums["private"], ""),
        ("CPU", "the sum of the peers", 1 / 3, beside["daemon"]["cpu"] / sums["cpu"], ""),
    ]


def first_line(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout.splitlines()[0]


def conditions():
    """When this was measured, what, and on what."""
    machine = platform.uname()
    return (f"Measured {time.strftime('%F')} at commit {first_line('git', 'describe', '--always', '--dirty')} on "
            f"{machine.machine} with {os.cpu_count()} cores, Linux {machine.release}, {first_line('gcc', '--version')}.")


def write(results, folder):
    calls, instructions = results["calls"], results["instructions"]
    beside, hour, day = results["beside"], results["hour"], results["day"]
    rows = goals(results)
    parts = ["""# What the daemon costs

`scripts/bench` measures this and writes this page. All figures are of one run on one machine, with
the host's build and its C library. System calls, instructions and heap calls are counted. Times are
medians of runs in turns, with real-time priority where root ran it; only their ratios mean something
elsewhere. The platform libraries make no system call here, so only the daemon's own cost shows. The
display is in the signal mode, with a signal and the link up.

The daemon is measured beside minimal rewrites, called its floors and kept in `bench/`: `floor.cpp`
does the same with raw calls on epoll, `event_floor.cpp` has the same timers on libevent, and
`empty.cpp` is a libevent program that only waits, with a receive buffer as large.

""" + conditions() + """

![What the daemon costs](performance.svg)

## Goals
""", table(("figure", "beside", "goal, at most", "reached", "", "what keeps it from its floor"),
           [(figure, floor or "-", f"{goal:.2f}", f"{reached:.2f}",
             "met" if round(reached, 2) <= round(goal, 2) else "**missed**", why or "-")
            for figure, floor, goal, reached, why in rows]),
             """
## System calls

Counted by strace: the calls of one job, the daemon's beside the smallest program's.
""", table(("job", "daemon", "floor", "ratio"),
           [(job, number(calls["job"]["daemon"][job]), number(calls["job"]["floor"][job]),
             ratio(calls["job"]["daemon"][job], calls["job"]["floor"][job]))
            for job in calls["job"]["daemon"]]
           + [("an idle second", number(calls["second"]["daemon"]),
               number(calls["second"]["floor"]),
               ratio(calls["second"]["daemon"], calls["second"]["floor"]))]),
             """
Each wake-up adds the wait itself. On the WAN, `system(3)` ignores two signals and blocks a third
while its command runs, which a bare vfork and wait do not.

## Instructions

Counted by callgrind, inclusive of the libraries, without the event loop. The floor of the timers'
jobs is `event_floor.cpp`, that of the messages `floor.cpp`.
"""]
    lines = []
    for job in ("tick", "snapshot", "button", *list(calls["job"]["daemon"])[3:]):
        floor = instructions["event_floor" if job in ("tick", "snapshot", "button") else "floor"]
        lines.append((job, number(instructions["daemon"][job]), number(floor[job]),
                      ratio(instructions["daemon"][job], floor[job])))
    parts += [table(("job", "daemon", "floor", "ratio"), lines), """
Both clear their whole receive buffer for every message. A record of the daemon's log takes three
formatting calls, and its address is written out twice, once for the log and once for the hook; one of
each is enough for the floor. The button's value is read by `fscanf`, a stream and
a number parser for one digit; the floor reads into a buffer. Heap calls of a new address: """ + (
        ", ".join(f"{count:.0f} `{function}`" for (_, function), count in
                  instructions["daemon"]["new address, ignored interface", "heap"].items())
        or "none") + """, its record.

## Memory and a day's work

After ten seconds and an hour on a virtual clock under the real libevent, with address changes and a
display command in between; the median of some lives, as the stack begins anywhere in its page. KiB.
""", table(("program", "after", "resident", "proportional", "private", "private dirty"),
           [(name, when, *(number(sizes[key]) for key in
                           ("resident", "proportional", "private", "private dirty")))
            for name, lives in hour.items() for when, sizes in lives.items()]), f"""
One more daemon lived through a day: private dirty {day['first hour']} KiB after the first hour, {
    day['last hour']} after the last. Its hours took {day['to event_floor']:.2f} times the CPU of those of
`event_floor`, all of them {day['cpu seconds']:.1f} CPU seconds of the measuring machine.

## Messages

- Latency over {results['latency']['events']} address events, in turns: {
    results['latency']['to floor']:.2f} times the floor's, {
    results['latency']['to ip monitor']:.2f} times that of `ip monitor address`.
- Largest burst of address changes while the program cannot run, of which none is lost: daemon {
    results['burst']['daemon']}, floor {results['burst']['floor']}, `ip monitor` {
    results['burst']['ip monitor']}. The socket's 16 KiB receive buffer sets it, which is documented.

## Table size

Time of one operation as a multiple of its time with a single record; the look-up and the removal
are of the oldest, the last of the list. The scan is linear, as documented, behind a name look-up in
the kernel that costs more than a thousand records do.
"""]
    base = results["tables"][1]
    parts.append(table(("records", *base), [
        (f"{size:,}", *(ratio(row[key], base[key]) for key in base))
        for size, row in results["tables"].items()]))
    parts.append("""
## Beside the peers

Everything at the same time for a minute, in one namespace, with an address that comes or goes every
second. CPU as a share of the daemon's, memory in KiB.
""")
    lines = [(name, PEERS.get(name, "all of it" if name == "daemon" else "-"), sizes["resident"],
              sizes["proportional"], sizes["private"], sizes["private dirty"],
              f"{sizes['wakeups']:.1f}", ratio(sizes["cpu"], beside["daemon"]["cpu"]))
             for name, sizes in beside.items()]
    parts.append(table(("program", "job", "resident", "proportional", "private", "private dirty",
                        "wakeups a second", "CPU"), lines))
    (folder / "performance.md").write_text("\n".join(parts) + "\n")
    plot(results, rows, folder / "performance.svg")


def plot(results, rows, path):
    plt.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "kelo", "font.size": 9,
                         "font.family": "sans-serif", "axes.spines.top": False,
                         "axes.spines.right": False})
    figure, (goal_axes, table_axes, peer_axes) = plt.subplots(
        1, 3, figsize=(14, 4.2), width_ratios=(1.2, 1, 1), layout="constrained")

    shown = [(figure, reached / goal) for figure, _, goal, reached, _ in rows if goal][::-1]
    goal_axes.barh([name for name, _ in shown], [share for _, share in shown], color="#4c78a8")
    goal_axes.axvline(1, color="#e45756")
    goal_axes.set_title("Reached, as a share of the goal (red)")

    tables = results["tables"]
    for key in tables[1]:
        table_axes.loglog(list(tables), [row[key] / tables[1][key] for row in tables.values()],
                          marker="o", label=key)
    table_axes.set_title("Time by table size (1 record = 1)")
    table_axes.set_xlabel("records")
    table_axes.set_yticks([1, 2, 5], ["1", "2", "5"])
    table_axes.minorticks_off()
    table_axes.legend(frameon=False)

    beside = results["beside"]
    for column, key in enumerate(("private", "private dirty", "cpu")):
        total = sum(beside[name][key] for name in PEERS)
        peer_axes.bar(2 * column, beside["daemon"][key] / total, color="black",
                      label="" if column else "daemon")
        bottom = 0
        for colour, name in enumerate(PEERS):
            share = beside[name][key] / total
            peer_axes.bar(2 * column + 0.8, share, bottom=bottom, color=f"C{colour}",
                          label="" if column else name)
            bottom += share
    peer_axes.set_xticks([0.4, 2.4, 4.4], ["private memory", "private dirty", "CPU"])
    peer_axes.set_title("The daemon, and its peers together (= 1)")
    peer_axes.legend(frameon=False, loc="center left", bbox_to_anchor=(1, 0.5))
    figure.savefig(path, metadata={"Date": None, "Creator": None})
