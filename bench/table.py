#!/usr/bin/env python3
"""Measures the emulator beside other programs and prints one table. scripts/bench runs it.

Every row is measured in rounds, each contestant once a round, so that what else the machine does
meets all of them alike; a figure is the median of the rounds with the least and the greatest. CPU
is that of the whole process, by its own clock. Lateness is the time at which the kernel had a
packet, against a grid of 4 ms through the earliest packet of its stream.
"""

import argparse
import collections
import contextlib
import datetime
import json
import os
import pathlib
import re
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
BUILD = ROOT / "build" / os.environ.get("QZ_BENCH_PRESET", "bench")
FAR = BUILD / "bench" / "qz_bench_far"
ADDRESS = "127.77.0.1"  # of what is measured
LISTEN = "127.77.0.2:40000"  # where the far end takes all streams
BASE = 8000
SAP = 39000  # from here up sessions are announced to PipeWire, and one below by PipeWire
PORTS = {"QZ610": 6, "QZ820": 10}  # that a unit takes; its first output listens on the third
INPUTS = {"QZ610": 1, "QZ820": 4}


# ---- The contestants: programs with a `pid` for as long as the `with` lasts --------------------


class Program:
    """A process that is ready once a line of its output has `ready` in it, or after a second."""

    def __init__(self, command, ready=None, env=None):
        self.log = collections.Counter()  # lines with a text that matters
        begin = time.monotonic()
        self.process = subprocess.Popen([str(part) for part in command], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                                        errors="replace", env=env)
        self.pid = self.process.pid
        if ready:
            for line in self.process.stdout:
                if ready in line:
                    break
            else:
                raise SystemExit(f"table.py: {command[0]} has ended with {self.process.wait()}")
        self.start_ms = (time.monotonic() - begin) * 1000
        self.reader = threading.Thread(target=self._read)
        self.reader.start()
        if not ready:
            time.sleep(1)

    def _read(self):
        for line in self.process.stdout:
            if "Internal sync timeout" in line:
                self.log["timeouts"] += 1

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        """Returns how long the end took, in ms."""
        begin = time.monotonic()
        with contextlib.suppress(BrokenPipeError):
            self.process.stdin.write("\n")
            self.process.stdin.close()
        try:
            self.process.wait(0.2 if self.process.args[0] in ("gst-launch-1.0", "pipewire") else 20)
        except subprocess.TimeoutExpired:
            self.process.terminate()
            self.process.wait()
        took = (time.monotonic() - begin) * 1000
        self.reader.join()
        return took

    def threads(self):
        return len(os.listdir(f"/proc/{self.pid}/task"))


class Emulator(Program):
    def __init__(self, model, count, mode=0):
        self.folder = tempfile.TemporaryDirectory(prefix="qz-bench-")
        self.model, self.count = model, count
        program = pathlib.Path(self.folder.name) / "qz640emu"
        shutil.copy(BUILD / "qz640emu", program)
        units = [{"Mode": mode, "UnitId": f"u{i}", "UnitType": model} for i in range(count)]
        pathlib.Path(f"{program}.json").write_text(json.dumps(
            {"AddrStr": ADDRESS, "BasePort": BASE, "BroadcastPort": 15001, "units": units}))
        super().__init__([program], " Start OK", dict(os.environ, TMPDIR=self.folder.name))

    def stop(self):
        took = super().stop()
        self.folder.cleanup()
        if self.process.returncode != 0:
            raise SystemExit(f"table.py: the emulator ended with {self.process.returncode}")
        return took


def bare_loop(count, threads):
    return Program([FAR, "bare-loop", f"listen={ADDRESS}:{BASE + 2}", f"send_step={PORTS['QZ610']}",
                    f"count={count}", f"to={LISTEN}", f"threads={threads}"], "ready")


def gstreamer(count, loop):
    """Streams of the same form: those that come in sent on, or those of a generator."""
    host, port = LISTEN.split(":")
    command = ["gst-launch-1.0", "-q"]
    for i in range(count):
        if loop:
            command += ["udpsrc", f"address={ADDRESS}", f"port={BASE + 2 + PORTS['QZ610'] * i}",
                        "caps=application/x-rtp,media=audio,clock-rate=48000,encoding-name=L24,"
                        "channels=2,payload=100", "!", "rtpL24depay"]
        else:
            command += ["audiotestsrc", "is-live=true", "samplesperbuffer=192", "!",
                        "audio/x-raw,format=S24BE,rate=48000,channels=2"]
        command += ["!", "rtpL24pay", "pt=100", "mtu=1400", "min-ptime=4000000",
                    "max-ptime=4000000", "!", "udpsink", f"host={host}", f"port={port}"]
        command += ["sync=false", "async=false"] if loop else []
    return Program(command)


class PipeWire:
    """A server with a driver of 192 samples, and RTP sinks, each after a source or after silence.

    There is no session manager: sources are announced, ports configured and linked from here.
    """

    PORTS = ('{ "direction": "%s", "mode": "dsp", "format": { "mediaType": "audio", "mediaSubtype": '
             '"raw", "format": "F32P", "rate": 48000, "channels": 2, "position": ["FL", "FR"] } }')

    def __init__(self, count, loop):
        self.folder = tempfile.TemporaryDirectory(prefix="qz-bench-")
        self.env = dict(os.environ, XDG_RUNTIME_DIR=self.folder.name, PIPEWIRE_REMOTE="qz-bench")
        self.programs = contextlib.ExitStack()
        host = LISTEN.split(":")[0]
        rt = "libpipewire-module-rt args = { nice.level = -11 rt.prio = 88 } flags = [ nofail ]"
        server = [rt, *(f"libpipewire-module-{name}" for name in (
            "protocol-native", "metadata", "spa-node-factory", "client-node", "access", "adapter",
            "link-factory"))]
        driver = ('{ factory = adapter args = { factory.name = support.null-audio-sink node.name = '
                  'driver media.class = "Audio/Sink" audio.position = "FL,FR" node.driver = true '
                  'priority.driver = 20000 object.linger = true adapter.auto-port-config = { mode = '
                  'dsp monitor = true position = preserve } } }')
        client = [rt, *(f"libpipewire-module-{name}" for name in (
            "protocol-native", "metadata", "client-node", "adapter"))]
        client += [f'libpipewire-module-rtp-source args = {{ sap.ip = "{ADDRESS}" sap.port = '
                   f"{SAP + i} sess.latency.msec = 20 stream.props = {{ node.autoconnect = false }} }}"
                   for i in range(0, count, 16)]  # a source takes 16 sessions at most
        client += [f'libpipewire-module-rtp-sink args = {{ sap.ip = "{host}" sap.port = {SAP - 1} '
                   f'source.ip = "{ADDRESS}" destination.ip = "{host}" net.loop = true net.mtu = '
                   f'1500 sess.name = "s{i}" sess.min-ptime = 4 sess.max-ptime = 4 audio.format = '
                   "S24BE audio.rate = 48000 audio.channels = 2 stream.props = { node.name = "
                   f'"sink{i}" node.autoconnect = false }} }}' for i in range(count)]
        try:
            self._begin(count, loop, server, driver, client)
        except BaseException:
            self.__exit__()
            raise

    def _begin(self, count, loop, server, driver, client):
        host = LISTEN.split(":")[0]
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as announced:
            announced.bind((host, SAP - 1))
            announced.settimeout(15)
            self.pids = [self._start("server", server, driver), self._start("client", client, "")]
            self._nodes(1 + count)
            if loop:
                self._announce(announced, count)
            self._link(self._nodes(1 + count * (2 if loop else 1)), count, loop)
            ports = set()  # the sinks draw them
            names = set()
            while len(names) < count:
                text = announced.recv(2000).decode(errors="replace")
                names.add(re.search(r"s=(\S+)", text)[1])
                ports.add(re.search(r"m=audio (\d+)", text)[1])
        self.pid = ",".join(map(str, self.pids))
        self.listen = ",".join(f"{host}:{port}" for port in sorted(ports))

    def _start(self, name, modules, objects):
        path = pathlib.Path(self.folder.name) / f"{name}.conf"
        path.write_text(
            "context.properties = { core.daemon = %s core.name = qz-bench default.clock.rate = 48000 "
            "default.clock.quantum = 192 default.clock.min-quantum = 192 default.clock.max-quantum = "
            "192 }\ncontext.spa-libs = { audio.convert.* = audioconvert/libspa-audioconvert support.* "
            "= support/libspa-support }\ncontext.modules = [\n%s\n]\ncontext.objects = [ %s ]\n" % (
                "true" if objects else "false",
                "\n".join(f"{{ name = {module} }}" for module in modules), objects))
        return self.programs.enter_context(Program(["pipewire", "-c", path], env=self.env)).pid

    def _announce(self, sock, count):
        host = LISTEN.split(":")[0]
        for i in range(count):
            port = BASE + 2 + PORTS["QZ610"] * i
            sdp = (f"v=0\no=bench {i + 1} 0 IN IP4 {host}\ns=in{i}\nc=IN IP4 {ADDRESS}\nt=0 0\n"
                   f"a=recvonly\nm=audio {port} RTP/AVP 100\na=rtpmap:100 L24/48000/2\na=ptime:4\n")
            sock.sendto(b"\x20\0" + (i + 1).to_bytes(2, "big") + socket.inet_aton(host) +
                        b"application/sdp\0" + sdp.encode(), (ADDRESS, SAP + i // 16 * 16))
            time.sleep(0.01)

    def _tool(self, *command):
        return subprocess.run(command, env=self.env, text=True, check=True, timeout=20,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout

    def _nodes(self, count):
        """Number and name of all nodes, once there are so many."""
        for _ in range(100):
            nodes = re.findall(r'\tid (\d+),(?:(?!\tid ).)*?node.name = "(\w+)"',
                               self._tool("pw-cli", "ls", "Node"), re.S)
            if len(nodes) >= count:
                return nodes
            time.sleep(0.1)
        raise SystemExit(f"table.py: {len(nodes)} nodes of PipeWire instead of {count}")

    def _link(self, nodes, count, loop):
        for number, name in nodes:
            if name == "driver":
                continue
            direction = "Input" if name.startswith("sink") else "Output"
            self._tool("pw-cli", "set-param", number, "PortConfig", self.PORTS % direction)
        time.sleep(0.5)
        for i in range(count):
            for side in ("FL", "FR"):
                source = f"in{i}:output_{side}" if loop else f"driver:monitor_{side}"
                self._tool("pw-link", source, f"sink{i}:input_{side}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.programs.close()
        self.folder.cleanup()


# ---- Measuring ---------------------------------------------------------------------------------


def far(command, **arguments):
    words = [f"{name}={value}" for name, value in arguments.items()]
    return json.loads(subprocess.run([FAR, command, *words], check=True, stdout=subprocess.PIPE,
                                     timeout=300).stdout)


def streams(program, seconds, send=0, rtp=0, watch=0):
    """What the far end sees of a program for so long; `send` streams go to it. With `watch` it also
    looks how late the machine itself is."""
    arguments = {"pid": program.pid, "seconds": seconds, "rtp": rtp, "watch": watch,
                 "listen": getattr(program, "listen", LISTEN)}
    if send:
        arguments |= {"send": f"{ADDRESS}:{BASE + 2}", "send_step": PORTS["QZ610"],
                      "send_count": send}
    if isinstance(program, Emulator):
        arguments |= {"units": f"{ADDRESS}:{BASE}", "unit_count": program.count,
                      "unit_step": PORTS[program.model], "inputs": INPUTS[program.model]}
    return far("streams", **arguments)


def at_rest(program, seconds):
    return far("streams", pid=program.pid, seconds=seconds, listen=LISTEN)


class Figures:
    """The values of one contestant in one row."""

    def __init__(self, values):
        self.values = values
        self.median = statistics.median(values)

    def __str__(self):
        low, high = min(self.values), max(self.values)
        return form(self.median) + (f" ({form(low)} to {form(high)})" if len(self.values) > 1 else "")


def form(value):
    return f"{value:.0f}" if value >= 100 else f"{value:.3g}"


def rounds(count, contestants):
    """contestants: name -> function that measures once and gives the figures by name."""
    all_values = collections.defaultdict(lambda: collections.defaultdict(list))
    for _ in range(count):
        for name, measure in contestants.items():
            for figure, value in measure().items():
                all_values[figure][name].append(value)
    return {figure: {name: Figures(values) for name, values in by_name.items()}
            for figure, by_name in all_values.items()}


class Table:
    def __init__(self):
        self.rows = []
        self.goals = []

    def row(self, what, unit, figures):
        """figures: name -> Figures; "ours" is the emulator."""
        if "ours" in figures:
            self.rows.append((what, unit, figures))
            beside = ", ".join(f"{name} {value}" for name, value in figures.items() if name != "ours")
            print(f"| {what}, {unit} | {figures['ours']} | {beside or '-'} |", flush=True)

    def goal(self, what, value, limit):
        """At most `limit`."""
        said = "met" if value <= limit else f"**missed by {100 * (value / limit - 1):.0f} %**" \
            if limit else f"**missed by {form(value)}**"
        self.goals.append(f"| {what} | <= {form(limit)} | {form(value)} | {said} |")


# ---- The rows ----------------------------------------------------------------------------------

# Row, unit, divisor of nanoseconds, the benchmark of the emulator, those beside it, goal.
IN_PROCESS = (
    ("stereo packet packed", "ns", 1, "BM_PacketFromFloat",
     {"memcpy": "BM_PacketCopied", "libsndfile": "Samples/SndfileFromFloat"}, 120),
    ("stereo packet unpacked", "ns", 1, "BM_PacketToFloat",
     {"memcpy": "BM_PacketCopied", "libsndfile": "Samples/SndfileToFloat"}, 80),
    ("control message written", "us", 1000, "BM_MessageToDatagram",
     {"nlohmann": "BM_NlohmannToDatagram", "RapidJSON": "BM_RapidJsonToDatagram"}, 0.8),
    ("control message read", "us", 1000, "BM_MessageFromDatagram",
     {"nlohmann": "BM_NlohmannFromDatagram", "RapidJSON": "BM_RapidJsonFromDatagram"}, 2),
    ("tick of four channels, without the system's calls", "ns", 1, "BM_Tick/channels:4", {}, None),
)
LOG = (("log call, line after line, p50 of the caller", 0),
       ("log call, 100 us between, p50 of the caller", 100))


def in_process(table, options):
    command = [BUILD / "bench" / "qz_bench", "--benchmark_format=json"]
    command += ["--benchmark_min_time=0.001"] if options.instant else \
        [f"--benchmark_repetitions={options.rounds}", "--benchmark_enable_random_interleaving=true"]
    out = subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
    found = collections.defaultdict(list)
    for run in json.loads(out.stdout)["benchmarks"]:
        if run["run_type"] == "iteration" and not run.get("error_occurred"):
            to_ns = {"ns": 1, "us": 1e3, "ms": 1e6}[run["time_unit"]]
            found[run["name"]].append((run["cpu_time"] * to_ns, run))

    def figures(ours, beside, value):
        names = {"ours": ours} | beside
        return {name: Figures([value(*one) for one in found[key]])
                for name, key in names.items() if found[key]}

    for what, unit, divisor, ours, beside, limit in IN_PROCESS:
        row = figures(ours, beside, lambda time_ns, _, by=divisor: time_ns / by)
        table.row(what, unit, row)
        if limit:
            table.goal(f"{what}, {unit}", row["ours"].median, limit)
        if limit and "message" in what:
            table.goal(f"{what}, of nlohmann's time", row["ours"].median / row["nlohmann"].median, 1)
    for what, pause in LOG:
        row = figures(f"LogLines/{pause}/real_time", {"spdlog": f"SpdlogLines/{pause}/real_time"},
                      lambda _, run: run["caller_p50_ns"])
        table.row(what, "ns", row)
        table.goal(f"{what}, ns", row["ours"].median, 250)
    row = figures("LogLines/0/real_time", {"spdlog": "SpdlogLines/0/real_time"},
                  lambda _, run: 1e9 / run["items_per_second"])
    table.row("log line up to its place in the file", "ns", row)
    table.goal("log line up to its place in the file, ns (1,000,000 a second)",
               row["ours"].median, 1000)


def measured(start, count, seconds, measure=streams, **arguments):
    """A contestant: started, measured, ended. CPU is in ms a unit and second."""
    def once():
        with start() as program:
            seen = measure(program, seconds, **arguments)
        if measure is streams and seen["streams"] == 0:
            raise SystemExit(f"table.py: no streams from {type(program).__name__}")
        return {"cpu": seen["cpu_ms_s"] / count, "p50": seen["late_p50"], "p99": seen["late_p99"]}
    return once


def processes(table, options):
    many, seconds = (4, 0.1) if options.instant else (64, options.seconds)
    more = 8 if options.instant else 300

    looping = {"ours": measured(lambda: Emulator("QZ610", many), many, seconds, send=many),
               "one bare thread": measured(lambda: bare_loop(many, 1), many, seconds, send=many),
               "two bare threads a unit":
                   measured(lambda: bare_loop(many, 2), many, seconds, send=many)}
    if options.gstreamer:
        looping["GStreamer"] = measured(lambda: gstreamer(many, True), many, seconds, send=many,
                                        rtp=1)
    if options.pipewire:
        looping["PipeWire"] = measured(lambda: PipeWire(many, True), many, seconds, send=many, rtp=1)
    cpu = rounds(options.rounds, looping)["cpu"]
    table.row(f"{many} QZ610 looping back, CPU a unit and second", "ms", cpu)
    table.goal(f"{many} QZ610 looping back, CPU a unit and second, ms", cpu["ours"].median, 6)
    loop = cpu["ours"].median
    if options.pipewire:
        table.goal(f"{many} QZ610 looping back, of PipeWire's CPU", loop / cpu["PipeWire"].median, 0.6)

    cpu = rounds(options.rounds, {"ours": measured(
        lambda: Emulator("QZ610", more), more, seconds, send=more)})["cpu"]
    table.row(f"{more} QZ610 looping back, CPU a unit and second", "ms", cpu)
    # Less than at 64 is no fault: what all units share is then spread over more of them.
    table.goal(f"{more} QZ610 against {many}, CPU a unit, factor", cpu["ours"].median / loop, 1.15)

    cpu = rounds(options.rounds, {"ours": measured(
        lambda: Emulator("QZ820", many, mode=1), many, seconds)})["cpu"]
    table.row(f"{many} QZ820, four streams out each, CPU a unit and second", "ms", cpu)
    table.goal(f"{many} QZ820 x 4 out, CPU a unit and second, ms", cpu["ours"].median, 7)

    for count in (1, many, more):
        cpu = rounds(options.rounds, {"ours": measured(
            lambda n=count: Emulator("QZ610", n), count, seconds, measure=at_rest)})["cpu"]
        table.row(f"{count} QZ610 at rest, CPU a unit and second", "ms", cpu)
        if count > 1:
            table.goal(f"{count} QZ610 at rest, CPU a unit and second, ms", cpu["ours"].median, 1)

    for count in (1, many):
        senders = {"ours": measured(lambda n=count: Emulator("QZ610", n, mode=1), count, seconds),
                   "one bare thread": measured(lambda n=count: bare_loop(n, 1), count, seconds)}
        if options.gstreamer:
            senders["GStreamer"] = measured(lambda n=count: gstreamer(n, False), count, seconds)
        if options.pipewire:
            senders["PipeWire"] = measured(lambda n=count: PipeWire(n, False), count, seconds)
        late = rounds(options.rounds, senders)
        for part, limit in (("p50", 150), ("p99", 400)):
            table.row(f"lateness of packets, streams of {count}, {part}", "us", late[part])
            table.goal(f"lateness of packets, streams of {count}, {part}, us",
                       late[part]["ours"].median, limit)
            if count == 1 and options.gstreamer:
                table.goal(f"one unit, {part}, of GStreamer's lateness",
                           late[part]["ours"].median / late[part]["GStreamer"].median, 2)

    latency(table, options)
    start_and_stop(table, options, more)
    for model, count in (("QZ610", 300), ("QZ820", 200)):
        real_time(table, options, model, 8 if options.instant else count)


def latency(table, options):
    count = 20 if options.instant else 3000

    def ours():
        with Emulator("QZ610", 1):
            return far("latency", to=f"{ADDRESS}:{BASE}", count=count)

    def bare():
        with Program([FAR, "bare-echo", f"listen={ADDRESS}:{BASE}"], "ready"):
            return far("latency", to=f"{ADDRESS}:{BASE}", count=count)

    found = rounds(options.rounds, {"ours": ours, "bare echo with hand-over": bare})
    for figure, what, limit in (("ack", "acknowledgement", 1.1), ("answer", "answer", 1.5)):
        row = found[figure]
        table.row(f"request to {what}, p50", "us", row)
        table.goal(f"request to {what}, of the bare echo's time",
                   row["ours"].median / row["bare echo with hand-over"].median, limit)


def start_and_stop(table, options, count):
    def once():
        program = Emulator("QZ820", count)
        threads = program.threads()
        return {"start": program.start_ms, "threads": threads, "stop": program.stop()}

    found = rounds(options.rounds, {"ours": once})
    for figure, unit, limit in (("start", "ms", 300), ("stop", "ms", 300), ("threads", "threads", 32)):
        table.row(f"{count} QZ820, {figure}", unit, found[figure])
        table.goal(f"{count} QZ820, {figure}", found[figure]["ours"].median, limit)


def real_time(table, options, model, count):
    """One long run, as what counts is that nothing ever goes wrong."""
    seconds = 0.3 if options.instant else 60
    with Emulator(model, count, mode=0 if model == "QZ610" else 1) as program:
        seen = streams(program, seconds, send=count if model == "QZ610" else 0, watch=1)
    what = f"{count} {model} {'looping back' if model == 'QZ610' else 'x 4 out'} for {seconds} s"
    table.row(f"{what}, CPU of all", "ms a second", {"ours": Figures([seen["cpu_ms_s"]])})
    table.row(f"{what}, lateness p99", "us", {"ours": Figures([seen["late_p99"]])})
    table.row(f"{what}, greatest lateness", "us", {
        "ours": Figures([seen["late_max"]]),
        "the machine itself, by a thread of the highest priority that does nothing else":
            Figures([seen["machine_late_max"]])})
    # What the far end had no room for was sent.
    table.goal(f"{what}, packets lost", max(0, seen["lost"] - seen["overflow"]), 0)
    table.goal(f"{what}, packets more than a step late", seen["beyond_step"], 0)
    table.goal(f"{what}, sync timeouts", program.log["timeouts"], 0)
    if seen["streams"] != count * INPUTS[model]:
        raise SystemExit(f"table.py: {seen['streams']} streams from {count} {model}")


# ---- Against the number of units ---------------------------------------------------------------


def scale(options):
    counts = (1, 2, 4) if options.instant else (1, 5, 10, 25, 50, 100, 150, 200, 250, 300, 350, 400)
    seconds = 0.1 if options.instant else options.seconds
    points = {}
    for count in counts:
        found = rounds(options.rounds, {"ours": lambda n=count: measured(
            lambda: Emulator("QZ610", n), n, seconds, send=n)()})
        points[count] = {figure: by_name["ours"] for figure, by_name in found.items()}
        print(count, *(f"{figure} {value}" for figure, value in points[count].items()), flush=True)
    path = pathlib.Path(options.svg)
    path.write_text(draw(points, machine()), encoding="utf-8")
    print(f"drawn: {path}")


def draw(points, caption):
    """Two charts one above the other, with the units from left to right."""
    left, width, height, gap = 60, 560, 180, 70
    last = max(points)
    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{left + width + 80}" '
           f'height="{2 * (height + gap) + 40}" font-family="sans-serif" font-size="12">',
           '<rect width="100%" height="100%" fill="white"/>',
           f'<text x="{left}" y="{2 * (height + gap) + 26}" fill="#555">{caption}</text>']
    charts = (("CPU a unit and second, ms", (("cpu", "#1f77b4", ""),)),
              ("lateness of packets, us", (("p50", "#2ca02c", "p50"), ("p99", "#d62728", "p99"))))
    for row, (title, lines) in enumerate(charts):
        top = 40 + row * (height + gap)
        greatest = max(max(points[n][key].values) for n in points for key, _, _ in lines) * 1.05

        def at(count, value, top=top, greatest=greatest):
            return (f"{left + width * count / last:.1f}",
                    f"{top + height * (1 - value / greatest):.1f}")

        out.append(f'<text x="{left}" y="{top - 12}" font-weight="bold">QZ610 looping back: {title}'
                   "</text>")
        for i in range(5):
            x, y = at(0, greatest * i / 4)
            out.append(f'<path d="M{x} {y}h{width}" stroke="#ddd"/><text x="{left - 6}" y="{y}" '
                       f'text-anchor="end" dy="4">{form(greatest * i / 4)}</text>')
        for i in range(5):
            x, y = at(last * i / 4, 0)
            out.append(f'<text x="{x}" y="{y}" dy="16" text-anchor="middle">{last * i // 4}</text>')
        out.append(f'<text x="{left + width / 2}" y="{top + height + 32}" text-anchor="middle">units'
                   "</text>")
        for key, colour, name in lines:
            path = " ".join(",".join(at(n, points[n][key].median)) for n in points)
            out.append(f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2"/>')
            for n in points:  # from the least to the greatest of the rounds
                (x, low), (_, high) = (at(n, pick(points[n][key].values)) for pick in (min, max))
                out.append(f'<path d="M{x} {low}V{high}" stroke="{colour}"/>')
            x, y = at(last, points[last][key].median)
            out.append(f'<text x="{x}" y="{y}" dx="6" dy="4" fill="{colour}">{name}</text>')
    return "\n".join(out + ["</svg>", ""])


def machine():
    model = re.search(r"^model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text(), re.M)
    return (f"{datetime.date.today()}, {model[1] if model else 'unknown processor'}, "
            f"{os.cpu_count()} cores, Linux {os.uname().release}")


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("what", nargs="?", choices=("table", "scale"), default="table")
    parser.add_argument("--instant", action="store_true")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=float, default=4)
    parser.add_argument("--svg", default=str(ROOT / "docs" / "scale.svg"))
    options = parser.parse_args()
    if options.instant:
        options.rounds = 1
    options.gstreamer = shutil.which("gst-launch-1.0") is not None
    # A moment is too short for its start.
    options.pipewire = bool(shutil.which("pipewire") and shutil.which("pw-link")) \
        and not options.instant
    if options.what == "scale":
        return scale(options)
    print(f"{machine()}; medians of {options.rounds} (least to greatest)\n")
    for name, there in (("GStreamer", options.gstreamer), ("PipeWire", options.pipewire)):
        if not there:
            print(f"{name} isn't installed: its figures are missing.")
    print("| what | qz640emu | beside it |\n|---|---|---|")
    table = Table()
    in_process(table, options)
    processes(table, options)
    if options.instant:
        print("\nA moment measures nothing: no word on the goals.")
        return 0
    print("\n| goal | at most | measured | |\n|---|---|---|---|")
    print("\n".join(table.goals))
    return 0


if __name__ == "__main__":
    sys.exit(main())
