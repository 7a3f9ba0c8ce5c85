"""The place where everything is measured, and the instruments: namespaces with interfaces of their
own, programs that are started, looked at and ended by their id, strace, callgrind, and netlink."""

import collections
import os
import re
import select
import signal
import socket
import struct
import subprocess
import tempfile
import time
from pathlib import Path

REAL = Path("/mnt")  # the true /proc; /proc itself holds the device's files beside links to it
GPIO = Path("/proc/tc3162/gpio_output")
IGNORED, WAN = "eth7", "nas0_0"
DEADLINE = 60


def run(*command, **options):
    return subprocess.run(command, check=True, **options)


def enter():
    """Turns the fresh namespaces that this process was started in into a device."""
    run("mount", "-t", "proc", "proc", REAL)
    run("mount", "-t", "tmpfs", "proc", "/proc")
    for entry in REAL.iterdir():
        if not entry.name.isdigit():
            Path("/proc", entry.name).symlink_to(entry)
    GPIO.parent.mkdir()
    GPIO.symlink_to("/dev/null")
    GPIO.with_name("reset_button").write_text("0\n")
    run("mount", "-t", "tmpfs", "run", "/run")
    Path("/run/bin").mkdir()
    Path("/run/bin/omci").symlink_to("/bin/true")
    os.environ["PATH"] = "/run/bin:" + os.environ["PATH"]
    for scope in ("all", "default"):  # no messages but those that are asked for
        Path(f"/proc/sys/net/ipv6/conf/{scope}/disable_ipv6").write_text("1\n")
    links = ["link set lo up", "link add br0 type bridge", "link set br0 up"]
    for name in (IGNORED, WAN):
        links += [f"link add {name} type veth peer name {name}_end",
                  f"link set {name} up", f"link set {name}_end up"]
    run("ip", "-batch", "-", input="\n".join(links), text=True)
    time.sleep(2)  # until the links have said that they are up


class Program:
    """A running program; what it says on `listen` (1 or 2) can be waited for."""

    def __init__(self, command, listen=None, own_run=False, **environment):
        if own_run:
            command = ["unshare", "--mount", "--propagation", "unchanged", "sh", "-c",
                       'mount -t tmpfs run /run && exec "$@"', "sh", *command]
        out = {1: subprocess.DEVNULL, 2: subprocess.DEVNULL}
        if listen:
            out[listen] = subprocess.PIPE
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out[1],
                                        stderr=out[2], env={**os.environ, **environment})
        self.pid = self.process.pid
        self.output = self.process.stdout if listen == 1 else self.process.stderr
        self.text = b""

    def read(self, timeout=DEADLINE):
        """What it says next, as soon as it says something; nothing after the timeout."""
        if not select.select([self.output], [], [], timeout)[0]:
            return b""
        new = os.read(self.output.fileno(), 65536)
        self.text += new
        return new

    def wait_for(self, text, count=1):
        end = time.monotonic() + DEADLINE
        while self.text.count(text) < count:
            if time.monotonic() > end or self.process.poll() is not None:
                raise RuntimeError(f"{self.process.args}: no {text!r} in {self.text!r}")
            self.read(0.1)

    def file(self, name):
        return (REAL / str(self.pid) / name).read_text()

    def cpu(self):
        """Nanoseconds on a CPU so far, without its children's."""
        return int(self.file("schedstat").split()[0])

    def wakeups(self):
        return int(re.search(r"voluntary_ctxt_switches:\s+(\d+)", self.file("status"))[1])

    def memory(self):
        """KiB: resident, proportional, private, and private dirty."""
        found = collections.Counter()
        for name, size in re.findall(r"^(\w+):\s+(\d+) kB", self.file("smaps_rollup"), re.M):
            found[name] = int(size)
        return {"resident": found["Rss"], "proportional": found["Pss"],
                "private": found["Private_Clean"] + found["Private_Dirty"],
                "private dirty": found["Private_Dirty"]}

    def end(self, how=signal.SIGTERM):
        """Ends it; returns the CPU seconds of itself and of its children that it waited for."""
        os.kill(self.pid, how)  # not by Popen, which would reap one that has just ended
        _, status, usage = os.wait4(self.pid, 0)
        self.process.returncode = status
        if self.output:
            self.output.close()
        return usage.ru_utime + usage.ru_stime


class TimedProgram(Program):
    """A program on the virtual clock, which stops where it first waits."""

    def __init__(self, command, clock, **environment):
        name = tempfile.mkdtemp(dir="/run") + "/clock"
        self.pipes = {}
        for end in ("stopped", "go"):
            os.mkfifo(f"{name}.{end}")
            self.pipes[end] = os.open(f"{name}.{end}", os.O_RDWR)
        super().__init__(command, LD_PRELOAD=str(clock), KELO_CLOCK=name, **environment)
        self.wait_for_stop()

    def wait_for_stop(self):
        if not select.select([self.pipes["stopped"]], [], [], DEADLINE)[0]:
            raise RuntimeError(f"{self.process.args} did not come to its stop")
        os.read(self.pipes["stopped"], 1)

    def live(self, seconds):
        """Lets its clock go on for so long."""
        os.write(self.pipes["go"], struct.pack("q", seconds * 1000000))
        self.wait_for_stop()

    def end(self, how=signal.SIGTERM):
        for pipe in self.pipes.values():
            os.close(pipe)
        return super().end(how)


# Netlink.

RTM_NEWLINK, RTM_NEWADDR, RTM_DELADDR = 16, 20, 21
REQUEST_CREATE = 0x1 | 0x400

def link_message():
    return struct.pack("=IHHII16x", 32, RTM_NEWLINK, 0, 0, 0)


def address_message(kind, interface, address):
    family = socket.AF_INET6 if ":" in address else socket.AF_INET
    raw = socket.inet_pton(family, address)
    attributes = b"".join(struct.pack("=HH", 4 + len(raw), number) + raw for number in (1, 2))
    payload = struct.pack("=BBBBI", family, 8 * len(raw), 0, 0, socket.if_nametoindex(interface))
    return struct.pack("=IHHII", 24 + len(attributes), kind, REQUEST_CREATE, 0,
                       0) + payload + attributes


class Netlink:
    """Sends to the kernel (to=0), or the kernel's kind of message straight to a program."""

    def __init__(self):
        self.socket = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 0)
        self.socket.bind((0, 0))

    def send(self, message, to=0):
        self.socket.sendto(message, (to, 0))


def netlink_backlog(program):
    """Bytes that wait in a program's route netlink sockets."""
    backlog = 0
    for line in program.file("net/netlink").splitlines()[1:]:
        _, protocol, pid, _, waiting = line.split()[:5]
        if protocol == "0" and int(pid) == program.pid:
            backlog += int(waiting)
    return backlog


# System calls.

def trace(program, action):
    """The system calls of a program during an action, one line each."""
    path = Path("/run/trace")
    strace = Program(["strace", "-o", path, "-p", str(program.pid)], listen=2)
    strace.wait_for(b"attached")
    action()
    strace.end(signal.SIGINT)
    lines = path.read_text().splitlines()
    return [line for line in lines if not line.startswith(("---", "+++"))]


def calls_by_job(lines):
    """Splits a trace: for each job, a list of the calls of each time that it was done."""
    jobs = collections.defaultdict(list)
    current = None
    for line in lines:
        starts = None
        if '"/proc/tc3162/gpio_output"' in line:
            starts = "tick"
        elif "netinfo.tmp" in line and line.startswith("open"):
            starts = "snapshot"
        elif "reset_button" in line:
            starts = "button"
        elif line.startswith("getsockname"):
            starts = "message"
        elif line.startswith(("epoll_wait", "restart_syscall")):
            starts = "wait"
        if starts and not (starts == "tick" == current and len(jobs["tick"][-1]) < 18):
            jobs[starts].append([])
        current = starts or current
        if current:
            jobs[current][-1].append(line)
    return jobs


# Instructions.

class Profile:
    """What callgrind counted: calls and inclusive instructions of each function, by caller too."""

    def __init__(self, path):
        names = {}
        self.calls, self.cost = collections.Counter(), collections.Counter()
        self.callers = collections.Counter()
        caller = callee = None
        pending = 0

        def name(text):
            number, _, full = text.partition(" ")
            if full:
                names[number] = full
            return names.get(number, number)

        for line in path.read_text().splitlines():
            if line.startswith("fn="):
                caller = name(line[3:])
            elif line.startswith("cfn="):
                callee = name(line[4:])
            elif line.startswith("calls="):
                pending = int(line[6:].split()[0])
            elif pending:
                self.calls[callee] += pending
                self.cost[callee] += int(line.split()[-1])
                self.callers[caller, callee] += pending
                pending = 0

    def find(self, name):
        """Calls and inclusive instructions of the one function whose name contains this."""
        [full] = [known for known in self.calls if re.search(rf"\b{name}\b", known)]
        return self.calls[full], self.cost[full]

    def per_call(self, name):
        calls, cost = self.find(name)
        return cost / calls

    def heap_calls(self):
        """Calls into the heap by caller, seen through the linkage table's nameless stubs."""
        found = collections.Counter()
        for (caller, function), count in self.callers.items():
            if function not in ("malloc", "calloc", "realloc", "free"):
                continue
            behind = [(outer, times) for (outer, stub), times in self.callers.items()
                      if stub == caller and stub.startswith("0x")]
            for name, times in behind or [(caller, count)]:
                found[name, function] += times
        return found


def profile(command, action, listen=2):
    path = Path("/run/callgrind.out")
    program = Program(["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={path}",
                       *command], listen=listen)
    action(program)
    program.end()
    return Profile(path)
