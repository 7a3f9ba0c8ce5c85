#!/usr/bin/python3
"""Measures what the daemon costs, beside its floors and beside the programs that would do its jobs
otherwise. scripts/bench starts it in namespaces of its own:

    measure.py BUILD OUTPUT    writes OUTPUT/performance.md and OUTPUT/performance.svg
"""

import os
import signal
import statistics
import sys
import time
from pathlib import Path

import report
from lab import (GPIO, IGNORED, RTM_DELADDR, RTM_NEWADDR, WAN, Netlink, Program, TimedProgram,
                 address_message, calls_by_job, enter, link_message, netlink_backlog, profile, run,
                 trace)

build = Path(sys.argv[1]).resolve()
output = Path(sys.argv[2]).resolve()
quiet = {"LD_LIBRARY_PATH": str(build / "bench/lib")}
commands = {"daemon": [str(build / "kelo-monitord")],
            **{name: [str(build / f"bench/bench_{name}")]
               for name in ("floor", "event_floor", "empty")}}
READY = b"switch display mode"
median = statistics.median


def say(text):
    print(f"== {text}", file=sys.stderr, flush=True)


def start(name, listen=2, **options):
    program = Program(commands[name], listen=listen, **quiet, **options)
    if listen == 2 and name in ("daemon", "floor"):
        program.wait_for(READY)
    return program


def addresses():
    """One IPv6 address after another."""
    number = 0
    while True:
        number += 1
        yield f"2001:db8::{number:x}"


KINDS = {
    "link message, changes nothing": lambda address: link_message(),
    "new address, ignored interface":
        lambda address: address_message(RTM_NEWADDR, IGNORED, address),
    "new address, WAN interface": lambda address: address_message(RTM_NEWADDR, WAN, address),
}
MESSAGES = 20


def send_messages(program, kind):
    """Sends messages of a kind one by one, and returns when the last has been dealt with."""
    netlink = Netlink()
    logged = kind.startswith("new")
    for count, address in enumerate(list(zip(range(MESSAGES), addresses())), 1):
        netlink.send(KINDS[kind](address[1]), program.pid)
        while netlink_backlog(program):
            time.sleep(0.002)
        if logged:
            program.wait_for(b"New IPv6 address", count)
    time.sleep(0.3)  # the last hook's command ends


def measure_calls():
    """Counted system calls: of each job, and in ten idle seconds."""
    result = {"job": {}, "second": {}}
    for name in ("daemon", "floor"):
        jobs = result["job"][name] = {}
        program = start(name)
        lines = trace(program, lambda: time.sleep(12.3))
        found = calls_by_job(lines)
        for job in ("tick", "snapshot", "button"):
            whole = found[job][1:-1]
            assert len({len(calls) for calls in whole}) == 1, whole
            jobs[job] = len(whole[0])
        first, last = found["tick"][1][0], found["tick"][21][0]
        ticks = [index for index, line in enumerate(lines) if line is first or line is last]
        result["second"][name] = (ticks[1] - ticks[0]) / 10
        for kind in KINDS:
            found = calls_by_job(trace(program, lambda: send_messages(program, kind)))
            counts = [len(calls) for calls in found["message"]]
            assert len(counts) == MESSAGES, counts
            jobs[kind] = median(counts)
        program.end()
    return result


def measure_instructions():
    """Instructions of each job, and heap calls of an idle second with their callers."""
    functions = {
        "daemon": ("signalTick", "dumpNetwork", "pollResetButton", "ipinfo_netlink_recv"),
        "event_floor": ("jobTick", "jobSnapshot", "jobButton", None),
        "floor": (None, None, None, "receive"),
    }
    result = {}
    for name, (tick, snapshot, button, message) in functions.items():
        jobs = result[name] = {}
        if tick:
            def idle(seconds):
                return profile_of(name, lambda program: time.sleep(seconds))
            short, long = idle(4.3), idle(9.3)
            for job, function in (("tick", tick), ("snapshot", snapshot), ("button", button)):
                jobs[job] = long.per_call(function)
            seconds = long.find(snapshot)[0] - short.find(snapshot)[0]
            heap = long.heap_calls()
            heap.subtract(short.heap_calls())
            jobs["heap"] = {pair: count / seconds for pair, count in heap.items() if count > 0}
        if message:
            for kind in KINDS:
                found = profile_of(name, lambda program: send_messages(program, kind))
                jobs[kind] = found.per_call(message)
                jobs[kind, "heap"] = {pair: count / MESSAGES
                                      for pair, count in found.heap_calls().items()
                                      if "ipaddr_" in pair[0]}
    return result


def profile_of(name, action):
    def ready(program):
        if name in ("daemon", "floor"):
            program.wait_for(READY)
        action(program)
    environment = os.environ.copy()
    os.environ.update(quiet)
    try:
        return profile(commands[name], ready)
    finally:
        os.environ.clear()
        os.environ.update(environment)


HOUR, HOURS, LIVES = 3600, 24, 15


def on_virtual_clock(name):
    """A program after its first ten seconds, with what happens to the daemon there: addresses come
    and go, and a display command."""
    program = TimedProgram(commands[name], build / "bench/bench_clock.so", **quiet)
    program.live(10)
    if name == "daemon":
        netlink = Netlink()
        for kind in (RTM_NEWADDR, RTM_DELADDR):
            for _, address in zip(range(4), addresses()):
                for interface in (IGNORED, WAN):
                    netlink.send(address_message(kind, interface, address), program.pid)
        fifo = os.open("/var/run/kelo-monitord.display", os.O_WRONLY)
        os.write(fifo, b"locateme")
        os.close(fifo)
    return program


def measure_hour():
    """Memory after ten seconds and an hour on the virtual clock: the median of some lives, since
    the stack begins anywhere in its page."""
    sizes = {name: {"10 s": [], "an hour": []} for name in ("daemon", "event_floor", "empty")}
    for _ in range(LIVES):
        for name, lives in sizes.items():
            program = on_virtual_clock(name)
            lives["10 s"].append(program.memory())
            program.live(HOUR - 10)
            lives["an hour"].append(program.memory())
            program.end(signal.SIGKILL)
    return {name: {when: {key: median(size[key] for size in found) for key in found[0]}
                   for when, found in lives.items()} for name, lives in sizes.items()}


def measure_day():
    """A day on the virtual clock, of which the programs do the hours in turns: their CPU, and
    whether the memory of the first hour is that of the last."""
    programs = {name: on_virtual_clock(name) for name in ("event_floor", "daemon")}
    cpu = {name: [] for name in programs}
    memory = []
    for _ in range(HOURS):
        for name, program in programs.items():
            before = program.cpu()
            program.live(HOUR)
            cpu[name].append(program.cpu() - before)
        memory.append(programs["daemon"].memory()["private dirty"])
    for program in programs.values():
        program.end(signal.SIGKILL)
    return {"first hour": memory[0], "last hour": memory[-1],
            "cpu seconds": sum(cpu["daemon"]) / 1e9, **paired(cpu, "event_floor")}


def undisturbed(measurement):
    """A measurement with real-time priority, so that a busy machine does not blur its times; as it
    is where that may not be had."""
    def prioritised():
        try:
            os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1))
        except PermissionError:
            say("without real-time priority, which root alone may take")
            return measurement()
        try:
            return measurement()
        finally:
            os.sched_setscheduler(0, os.SCHED_OTHER, os.sched_param(0))
    return prioritised


STARTS = 101


def measure_start():
    """Milliseconds from starting a program to its first LED command, in turns."""
    GPIO.unlink()
    os.mkfifo(GPIO)
    leds = os.open(GPIO, os.O_RDWR | os.O_NONBLOCK)
    samples = {"empty": [], "daemon": [], "floor": []}
    for _ in range(STARTS):
        for name, times in samples.items():
            os.set_blocking(leds, True)
            null = (os.POSIX_SPAWN_OPEN, 2, "/dev/null", os.O_WRONLY, 0)
            environment = {**os.environ, **quiet}
            begin = time.perf_counter_ns()
            pid = os.posix_spawn(commands[name][0], commands[name], environment,
                                 file_actions=[null])
            os.read(leds, 1)
            times.append((time.perf_counter_ns() - begin) / 1e6)
            os.kill(pid, signal.SIGKILL)
            os.waitpid(pid, 0)
            os.set_blocking(leds, False)
            try:
                while os.read(leds, 65536):
                    pass
            except BlockingIOError:
                pass
    os.close(leds)
    GPIO.unlink()
    GPIO.symlink_to("/dev/null")
    return {**{name: median(times) for name, times in samples.items()},
            **paired(samples, "empty", "floor")}


def paired(samples, *others):
    """The median over the rounds of the daemon's figure beside that of each other program."""
    return {f"to {other}": median(ours / theirs for ours, theirs in
                                  zip(samples["daemon"], samples[other])) for other in others}


ROUNDS, EVENTS, WARM_UP = 60, 10, 3


def listener(name):
    if name != "ip monitor":
        return start(name)
    program = Program(["ip", "monitor", "address"], listen=1)
    netlink = Netlink()
    while not program.read(0.02):  # it may still drop what comes while it asks for the interfaces
        for kind in (RTM_NEWADDR, RTM_DELADDR):
            netlink.send(address_message(kind, IGNORED, "10.0.0.1"))
    while program.read(0.02):
        pass
    return program


def measure_latency():
    """From asking the kernel for an address to the line that reports it, some events in turn."""
    netlink = Netlink()
    medians = {"daemon": [], "floor": [], "ip monitor": []}
    for turn in range(ROUNDS):
        names = list(medians)
        for name in names[turn % 3:] + names[:turn % 3]:
            program = listener(name)
            times = []
            for event in range(WARM_UP + EVENTS):
                address = f"10.1.{turn}.{event + 1}"
                line = f"{address}/".encode()
                begin = time.perf_counter_ns()
                netlink.send(address_message(RTM_NEWADDR, IGNORED, address))
                program.read()
                times.append(time.perf_counter_ns() - begin)
                program.wait_for(line)
                netlink.send(address_message(RTM_DELADDR, IGNORED, address))
                program.wait_for(line, 2)
                while program.read(0.003):
                    pass
            program.end(signal.SIGKILL)
            medians[name].append(median(times[WARM_UP:]))
    return {"events": ROUNDS * EVENTS, **paired(medians, "floor", "ip monitor")}


def measure_burst():
    """The most address changes that arrive while the program cannot run and none of which is
    lost."""
    def survives(name, size):
        program = listener(name)
        netlink = Netlink()
        program.process.send_signal(signal.SIGSTOP)
        names = [f"10.2.{number // 250}.{number % 250 + 1}" for number in range(size)]
        for address in names:
            netlink.send(address_message(RTM_NEWADDR, IGNORED, address))
        program.text = b""
        program.process.send_signal(signal.SIGCONT)
        while program.read(0.2):
            pass
        program.end(signal.SIGKILL)
        for address in names:
            netlink.send(address_message(RTM_DELADDR, IGNORED, address))
        return all(f"{address}/".encode() in program.text for address in names)

    result = {}
    for name in ("daemon", "floor", "ip monitor"):
        good, bad = 0, 4096
        while bad - good > 1:
            middle = (good + bad) // 2
            if survives(name, middle):
                good = middle
            else:
                bad = middle
        result[name] = good
    return result


def measure_message_cpu():
    """CPU of the address events of an ignored interface, new and removed, as fast as the program
    takes them, in turns."""
    samples = {"daemon": [], "floor": []}
    programs = {name: start(name, listen=None, own_run=True) for name in samples}
    time.sleep(0.5)
    netlink = Netlink()
    pair = [address_message(kind, IGNORED, "2001:db8::1") for kind in (RTM_NEWADDR, RTM_DELADDR)]
    for _ in range(21):
        for name, program in programs.items():
            before = program.cpu()
            for _ in range(300):
                for message in pair:
                    netlink.send(message, program.pid)
            while netlink_backlog(program):
                time.sleep(0.002)
            samples[name].append(program.cpu() - before)
    for program in programs.values():
        program.end()
    return paired(samples, "floor")


def measure_tables():
    """Median nanoseconds of an operation by table size."""
    lines = run(str(build / "bench/bench_tables"), capture_output=True, text=True).stdout
    rows = [[int(field) for field in line.split()] for line in lines.splitlines()]
    return {row[0]: dict(zip(("insert", "find", "remove"), row[1:])) for row in rows}


SECONDS = 60


def peer_commands():
    """What would otherwise do the daemon's jobs."""
    root = build / "bench/peers"
    state = Path("/run/peers")
    (state / "triggers").mkdir(parents=True)
    (state / "vnstat").mkdir()
    (state / "vnstat.conf").write_text(f'DatabaseDir "{state}/vnstat"\nUseLogging 0\n')
    (state / "collectd.conf").write_text(
        f'BaseDir "{state}"\nPIDFile "{state}/collectd.pid"\n'
        f'PluginDir "{root}/usr/lib/collectd"\nTypesDB "{root}/usr/share/collectd/types.db"\n'
        f'FQDNLookup false\nInterval 1\nLoadPlugin interface\nLoadPlugin csv\n'
        f'<Plugin csv>\nDataDir "{state}/csv"\n</Plugin>\n')
    (state / "triggers/button.conf").write_text("KEY_RESTART 1 /bin/true\n")
    (state / "leds.sh").write_text(
        "while :; do\n"
        f"  for led in 6 7 8 2 3 4; do echo \"active $led 0\" > {GPIO}; done\n"
        f"  read -r button < {GPIO.with_name('reset_button')}\n"
        "  sleep 0.5\n"
        "done\n")
    return {
        "ip monitor": ["ip", "monitor", "address", "route"],
        "ifplugd": [root / "usr/sbin/ifplugd", "-n", "-s", "-b", "-q", "-f", "-m", "iff",
                    "-i", IGNORED, "-r", "/bin/true"],
        "vnstatd": [root / "usr/sbin/vnstatd", "-n", "--config", state / "vnstat.conf"],
        "triggerhappy": [root / "usr/sbin/thd", "--socket", state / "thd.socket",
                         "--triggers", state / "triggers"],
        "collectd": [root / "usr/sbin/collectd", "-f", "-C", state / "collectd.conf"],
        "shell loop": ["busybox", "sh", state / "leds.sh"],
    }


def measure_beside():
    """A minute in which everything runs at the same time and an address comes or goes every second:
    memory, wakeups and CPU of each."""
    folders = (build / "bench/peers").glob("**/lib/*-linux-gnu")
    libraries = {"LD_LIBRARY_PATH": ":".join(map(str, folders))}
    programs = {name: start(name, listen=None, own_run=True)
                for name in ("daemon", "floor", "event_floor", "empty")}
    for name, command in peer_commands().items():
        programs[name] = Program([str(word) for word in command], **libraries)
    time.sleep(5)
    before = {name: (program.cpu(), program.wakeups()) for name, program in programs.items()}
    begin = time.monotonic()
    netlink = Netlink()
    for second in range(SECONDS):
        netlink.send(address_message(RTM_DELADDR if second % 2 else RTM_NEWADDR, IGNORED,
                                     "10.3.0.1"))
        time.sleep(max(0.0, begin + second + 1 - time.monotonic()))
    result = {}
    for name, program in programs.items():
        if program.process.poll() is not None:
            raise RuntimeError(f"{name} has ended by itself")
        result[name] = {**program.memory(),
                        "wakeups": (program.wakeups() - before[name][1]) / SECONDS}
    for name, program in programs.items():
        result[name]["cpu"] = program.end(signal.SIGKILL) - before[name][0] / 1e9
    return result


enter()
os.sync()  # a file's pages count as private and dirty until they are on the disk
results = {}
for text, name, measurement in (
        ("counting system calls", "calls", measure_calls),
        ("counting instructions", "instructions", measure_instructions),
        ("living through an hour on a virtual clock", "hour", measure_hour),
        ("living through a day on it", "day", measure_day),
        ("starting", "start", undisturbed(measure_start)),
        ("timing address events", "latency", undisturbed(measure_latency)),
        ("finding the largest burst", "burst", measure_burst),
        ("weighing address events", "message cpu", measure_message_cpu),
        ("growing the tables", "tables", measure_tables),
        ("running beside the peers", "beside", measure_beside)):
    if len(sys.argv) > 3 and name not in sys.argv[3:]:
        continue
    say(text)
    begun = time.monotonic()
    results[name] = measurement()
    if len(sys.argv) > 3:
        print(results[name], round(time.monotonic() - begun, 1))
if len(sys.argv) == 3:
    report.write(results, output)
