"""Opens the page of `qz640ctl web` in Chromium, without a window, and looks at it as a user does.

There are two real units behind faults that are switched on one after the other, and thirty that only
answer, one of them with a name that would be markup. Each fault that the page can show is made to
happen. Called as: page_test.py QZ640CTL [FOLDER for pictures]. Status 77 where Chromium is missing.
"""

import base64
import fcntl
import json
import os
import pathlib
import random
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.request

PATIENCE = 60
HOST = f"127.66.{random.randrange(250)}.{random.randrange(1, 250)}"
FAKES = ["<script>alert(1)</script>"] + [f"fake-{n}" for n in range(2, 31)]


def wait(condition, what):
    deadline = time.monotonic() + PATIENCE
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            sys.exit(f"waited in vain for {what}")
        time.sleep(0.05)


class Fakes(threading.Thread):
    """Units that answer what a page asks, and send nothing."""

    def __init__(self):
        super().__init__(daemon=True)
        self.discovery = self.open()
        self.units = {self.open(): (name, [""]) for name in FAKES}
        self.number = random.randrange(1 << 30)

    @staticmethod
    def open():
        port = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        port.bind((HOST, 0))
        return port

    def send(self, port, to, **message):
        self.number += 1
        port.sendto(json.dumps(message | {"msg_id": self.number}).encode() + b"\0", to)

    def run(self):
        while True:
            for port in select.select([self.discovery, *self.units], [], [])[0]:
                data, sender = port.recvfrom(2000)
                message = json.loads(data.partition(b"\0")[0])
                if port is self.discovery:
                    for unit, (name, inputs) in self.units.items():
                        self.send(unit, sender, msg="dev_info", unit_id=name, unit_type="QZ610",
                                  rtp_port=9, inputs=len(inputs), outputs=1, hardware=1, firmware=1,
                                  software=1, audio_protocol=1, control_protocol=1)
                    continue
                if message["msg"] == "ack":
                    continue
                self.send(port, sender, msg="ack", ack_msg_id=message["msg_id"])
                if message["msg"] == "set_inputs":
                    self.units[port][1][:] = [to if to != "off" else "" for to in message["inputs"]]
                if message["msg"] == "get_inputs":
                    self.send(port, sender, msg="inputs", inputs=self.units[port][1])


class Browser:
    """Chromium, driven by its DevTools protocol over a pair of pipes."""

    def __init__(self, folder):
        theirs, mine = os.pipe()
        self.answers, their_answers = os.pipe()
        # Out of the way of 3 and 4, which Chromium expects them at.
        ends = [fcntl.fcntl(end, fcntl.F_DUPFD, 20) for end in (theirs, their_answers)]

        def place():
            os.dup2(ends[0], 3)
            os.dup2(ends[1], 4)

        self.process = subprocess.Popen(
            ["chromium", "--headless=new", "--no-sandbox", "--disable-gpu", "--no-first-run",
             "--disable-dev-shm-usage", "--disable-background-networking", "--hide-scrollbars",
             "--remote-debugging-pipe", f"--user-data-dir={folder}", "about:blank"],
            preexec_fn=place, close_fds=False, stderr=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        os.close(their_answers)
        os.close(ends[1])
        self.requests = mine
        self.rest = b""
        self.number = 0
        self.complaints = []  # of the page's console
        self.asked = []  # URLs
        self.session = None

    def call(self, method, **params):
        self.number += 1
        request = {"id": self.number, "method": method, "params": params}
        if self.session:
            request["sessionId"] = self.session
        os.write(self.requests, json.dumps(request).encode() + b"\0")
        while True:
            while b"\0" not in self.rest:
                data = os.read(self.answers, 1 << 20)
                if not data:
                    sys.exit("Chromium has ended by itself")
                self.rest += data
            line, _, self.rest = self.rest.partition(b"\0")
            answer = json.loads(line)
            if answer.get("id") == self.number:
                if "error" in answer:
                    sys.exit(f"{method}: {answer['error']}")
                return answer["result"]
            self.note(answer.get("method"), answer.get("params", {}))

    def note(self, event, params):
        if event in ("Runtime.exceptionThrown", "Log.entryAdded", "Runtime.consoleAPICalled"):
            self.complaints.append(params)
        if event == "Network.requestWillBeSent":
            self.asked.append(params["request"]["url"])

    def open(self, url):
        self.target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=self.target, flatten=True)["sessionId"]
        for domain in ("Runtime", "Log", "Network", "Page"):
            self.call(f"{domain}.enable")
        self.resize(1920, 1080)
        self.call("Page.navigate", url=url)

    def close(self):
        session, self.session = self.session, None
        self.call("Target.closeTarget", targetId=self.target)
        return session

    def resize(self, width, height, dark=False, scale=1):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height,
                  deviceScaleFactor=scale, mobile=width < 600)
        self.call("Emulation.setEmulatedMedia", features=[
            {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])

    def ask(self, expression):
        answer = self.call("Runtime.evaluate", expression=expression, returnByValue=True)
        if "exceptionDetails" in answer:
            sys.exit(f"{expression}: {answer['exceptionDetails']}")
        return answer["result"].get("value")

    def wait(self, expression, what=None):
        try:
            return wait(lambda: self.ask(expression), what or expression)
        except SystemExit:
            print(self.ask("document.body.innerText")[:3000])
            raise

    def picture(self, folder, name):
        if folder:
            data = self.call("Page.captureScreenshot", format="png")["data"]
            (folder / name).write_bytes(base64.b64decode(data))


def check(condition, what):
    if not condition:
        sys.exit(f"FAILED: {what}")


def first_line(process):
    return json.loads(process.stdout.readline())


def status_of(url, method="GET", **headers):
    fields = {name.replace("_", "-"): value for name, value in headers.items()}
    request = urllib.request.Request(url, headers=fields, method=method)
    try:
        return urllib.request.urlopen(request, timeout=10).status
    except urllib.error.HTTPError as error:
        return error.code


def refuses_what_is_no_page_view(url):
    """Another site's script, which the user's browser runs, gets nothing."""
    port = url.rstrip("/").rpartition(":")[2]
    check(status_of(url, Host="127.0.0.1:" + port) == 200, "by address")
    check(status_of(url, Host="localhost:" + port) == 200, "by localhost")
    check(status_of(url, Host="evil.example") == 403, "by a name that leads here")
    check(status_of(url + "events", Sec_Fetch_Site="cross-site") == 403, "from another site's page")
    check(status_of(url + "other") == 404, "another path")
    check(status_of(url, method="POST") == 405, "not GET")
    for data, status in ((b"\x16\x03\x01\r\n\r\n", b"400"), (b"GET / HTTP/1.1\r\n" + b"x" * 20000, b"431")):
        with socket.create_connection((HOST, int(port)), 10) as raw:
            raw.sendall(data)
            check(raw.recv(100).split()[1] == status, status)


def run(ctl, folder, pictures):
    faults = folder / "faults"
    faults.write_text("")
    fakes = Fakes()
    fakes.start()
    processes = []

    def start(*arguments):
        process = subprocess.Popen([ctl, *arguments], stdout=subprocess.PIPE, text=True)
        processes.append(process)
        return process

    browser = None
    try:
        up = first_line(start("up", "--json", "--addr", HOST, "--units", "QZ610,QZ820", "--mode", "0",
                              "--fault-file", faults))
        to = ["--to", up["QZ640_DISCOVERY"]]
        destination = f"{HOST}:9"
        subprocess.run([ctl, "set-inputs", "emu-1", f"0={destination}", *to], check=True,
                       stdout=subprocess.DEVNULL)
        url = first_line(start("web", "--json", "--port", "0", "--at", HOST, *to, "--to",
                               "%s:%d" % fakes.discovery.getsockname()))["url"]
        refuses_what_is_no_page_view(url)
        goes_to = lambda: json.loads(subprocess.run([ctl, "inputs", "emu-1", "--json", *to], text=True,
                                                    capture_output=True).stdout)["destination"]
        check(goes_to() == destination, "nobody looks, so nothing is borrowed")

        browser = Browser(folder / "profile")
        browser.open(url)
        unit = "[...document.querySelectorAll('.unit')].find(u => u.querySelector('.id').textContent == 'emu-1')"
        part = lambda name: f"{unit}.querySelector('.{name}')"
        browser.wait("document.querySelectorAll('.unit').length == 32", "32 units")
        browser.wait(f"parseFloat({part('rate')}.textContent) > 200", "packets")
        check(destination in browser.ask(f"{part('to')}.textContent"), "where the input goes otherwise")
        check(goes_to() != destination, "it is borrowed")

        # It fits: all of it is on one screen, and on a phone nothing is beside the screen.
        check(browser.ask("[...document.querySelectorAll('.unit')].every(u => "
                          "u.getBoundingClientRect().bottom <= innerHeight)"), "32 units on one screen")
        beside = "document.documentElement.scrollWidth > innerWidth"
        check(not browser.ask(beside), "nothing beside the screen")
        names = browser.ask("[...document.querySelectorAll('.id')].map(i => i.textContent)")
        check(FAKES[0] in names, "a name is text")
        check(browser.ask("document.scripts.length") == 1, "and no script")

        # Levels follow a tone up and down.
        level = f"Math.abs(parseFloat({part('db')}.textContent) + 6) < 0.2"
        tone = start("play", "emu-1", "--tone", "1000", "--level", "-6", "--seconds", "100", *to)
        browser.wait(level, "the tone's level")
        browser.picture(pictures, "32-light.png")
        browser.resize(1920, 1080, dark=True)
        browser.picture(pictures, "32-dark.png")
        browser.resize(390, 844, scale=2)
        browser.wait(f"{part('bar')}.clientWidth > 100", "the page on a phone")
        check(not browser.ask(beside), "nothing beside the phone's screen")
        browser.picture(pictures, "phone.png")
        browser.resize(1920, 1080)
        tone.send_signal(signal.SIGINT)
        tone.wait()
        browser.wait(f"{part('db')}.textContent.startsWith('-∞')", "silence")
        pattern = start("play", "emu-1", "--pattern", "--seconds", "100", *to)
        browser.wait(f"{part('pattern')}.classList.contains('on')", "the pattern")
        pattern.send_signal(signal.SIGINT)
        pattern.wait()
        start("play", "emu-1", "--tone", "1", "--level", "0", "--seconds", "100", *to)
        browser.wait(f"{part('clip')}.classList.contains('on')", "samples at full scale in a row")

        # Faults, each as the page shows it.
        for fault, shown in (
                ("unit emu-1: input 0: lost 5%", f"{part('lost')}.classList.contains('bad')"),
                ("unit emu-1: input 0: late 30ms 5%", f"{part('late')}.classList.contains('warn')"),
                ("unit emu-1: input 0: lost 100%", f"{part('silent')}.classList.contains('on')"),
                ("get_fm_freq: error 7", "document.querySelector('.msg.fault')"),
                ("unit emu-1: gone", f"{unit}.classList.contains('gone')"),
                ("", f"!{unit}.classList.contains('gone')")):
            faults.write_text(fault + "\n")
            browser.wait(f"!!({shown})" if fault else shown, fault or "the unit to be back")

        # What somebody sends elsewhere meanwhile stays there, and the page says so.
        subprocess.run([ctl, "set-inputs", "emu-2", f"0={HOST}:11", *to], check=True,
                       stdout=subprocess.DEVNULL)
        browser.wait(f"{unit.replace('emu-1', 'emu-2')}.querySelector('.to').classList.contains('warn')",
                     "the word that an input was set")

        # Frozen, the page stands still, also while packets go on.
        browser.ask("document.getElementById('freeze').click()")
        frozen = browser.ask("document.body.innerText")
        lost = browser.ask("newest.messages.at(-1).number")
        browser.wait(f"newest.messages.at(-1).number > {lost} + 3", "what goes on meanwhile")
        check(browser.ask("document.body.innerText") == frozen, "frozen")
        browser.ask("document.getElementById('freeze').click()")
        browser.wait("document.getElementById('state').textContent == 'live'", "the page to go on")

        check(not browser.complaints, f"the console is silent: {browser.complaints}")
        check(all(asked.startswith(url) for asked in browser.asked), f"asked elsewhere: {browser.asked}")
        browser.close()
        wait(lambda: goes_to() == destination, "what was borrowed to be given back")
    finally:
        if browser:
            browser.process.terminate()
            browser.process.wait()
        for process in reversed(processes):
            process.send_signal(signal.SIGINT)
            process.wait()


def main():
    if not shutil.which("chromium"):
        print("skipped: no chromium")
        sys.exit(77)
    pictures = pathlib.Path(sys.argv[2]) if len(sys.argv) > 2 else None
    with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as folder:
        run(sys.argv[1], pathlib.Path(folder), pictures)


if __name__ == "__main__":
    main()
