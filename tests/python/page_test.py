"""Plays the byte examples of docs/protocol.md against the running program.

Called by `qz640ctl up --port P --units QZ610,QZ820` with the page's path. Every block ```trace is one
exchange; the page says what its lines mean. What the page can't know is bound as it comes: the
numbers that a unit gives its messages, and sequence numbers and timestamps (dots on the page).
"""

import os
import re
import socket
import sys
import time

PATIENCE = 3.0  # seconds until something that must come counts as missing
PAGE_ADDRESS = b"127.0.0.1:9000"  # where the page has streams sent


def address(name):
    host, port = os.environ[name].rsplit(":", 1)
    return host, int(port)


def to_bytes(text):
    """The bytes of one line, with None for each byte that the page leaves open."""
    tail = re.search(r"(?:(?<=^)|(?<=\s))(?:\([0-9A-F .]+\)\*\d+|(?:[0-9A-F]{2}|\.\.)(?:\*\d+)?)"
                     r"(?:\s+(?:\([0-9A-F .]+\)\*\d+|(?:[0-9A-F]{2}|\.\.)(?:\*\d+)?))*$", text)
    head = text[:tail.start()].rstrip() if tail else text
    result = list(head.encode())
    for group, one, times in re.findall(r"(?:\(([^)]*)\)|([0-9A-F.]{2}))(?:\*(\d+))?",
                                        tail.group() if tail else ""):
        values = [None if item == ".." else int(item, 16) for item in (group or one).split()]
        result += values * int(times or 1)
    return result


class Player:
    def __init__(self):
        self.ports = {"discovery": address("QZ640_DISCOVERY"), "control": address("QZ640_UNIT0_CONTROL"),
                      "rtp": address("QZ640_UNIT0_RTP"), "tuner": address("QZ640_UNIT1_CONTROL")}
        self.socket = self.open()
        self.stream = self.open()
        self.numbers = {}  # of the units' messages: on the page -> in this run
        self.probe = 4_000_000_000

    def open(self):
        endpoint = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        endpoint.bind((os.environ["QZ640_ADDR"], 0))
        endpoint.settimeout(PATIENCE)
        return endpoint

    def here(self, data):
        return data.replace(PAGE_ADDRESS, b"%s:%d" % (self.stream.getsockname()[0].encode(),
                                                      self.stream.getsockname()[1]))

    def send(self, port, text):
        data = bytes(to_bytes(text))
        data = re.sub(rb'(?<="ack_msg_id":)\d+',
                      lambda match: str(self.numbers[match.group()]).encode(), data)
        self.socket.sendto(self.here(data), self.ports[port])
        self.last_port = port

    def receive(self, port):
        """The next datagram from that port, repeats left out."""
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            for index, (data, sender) in enumerate(self.inbox):
                if sender == self.ports[port]:
                    del self.inbox[index]
                    return data
            self.take()
        raise AssertionError(f"nothing comes from {port}")

    def take(self):
        data, sender = self.socket.recvfrom(65536)
        if (data, sender) not in self.seen:
            self.seen.append((data, sender))
            self.inbox.append((data, sender))

    def expect(self, port, text):
        data = self.receive(port)
        wanted = self.here(bytes(to_bytes(text)))
        number = rb'(?<="msg_id":)\d+'
        page = re.search(number, wanted).group()
        self.numbers[page] = int(re.search(number, data).group())
        assert re.sub(number, page, data) == wanted, f"came: {data!r}"

    def expect_nothing(self):
        """What the unit is asked next, it acknowledges first."""
        self.probe += 1
        ask = b'{"msg":"get_state","msg_id":%d}\0' % self.probe
        self.socket.sendto(ask, self.ports[self.last_port])
        data = self.receive(self.last_port)
        assert b'"ack_msg_id":%d,' % self.probe in data, f"came: {data!r}"

    def expect_times(self, port, count, text):
        """Datagrams that nobody acknowledges: so many, not all at once, and no more."""
        first = self.receive(port)
        times = [time.monotonic()]
        self.inbox.append((first, self.ports[port]))
        self.expect(port, text)
        self.socket.settimeout(0.4)
        try:
            while True:
                assert self.socket.recvfrom(65536)[0] == first
                times.append(time.monotonic())
        except socket.timeout:
            self.socket.settimeout(PATIENCE)
        # A busy machine may bring two of them together, but the whole takes its time.
        span = times[-1] - times[0]
        assert len(times) == count and span >= 0.15, f"{len(times)} came in {span:.3f} s"

    def expect_packet(self, text):
        """One packet like this among those that come."""
        wanted = to_bytes(text)
        deadline = time.monotonic() + PATIENCE
        while time.monotonic() < deadline:
            data = self.stream.recv(65536)
            if len(data) == len(wanted) and all(w is None or w == d for w, d in zip(wanted, data)):
                sequence = int.from_bytes(data[2:4], "big")
                timestamp = int.from_bytes(data[4:8], "big")
                assert timestamp // 192 % 65536 == sequence and timestamp % 192 == 0
                return
        raise AssertionError(f"no such packet, the last one is {data[:24].hex(' ')} ...")

    def play(self, block):
        self.inbox, self.seen = [], []
        for line in block:
            self.line = line
            if line.startswith("#"):
                continue
            direction, port, text = (line.split(None, 2) + [""])[:3]
            if direction == "->":
                self.send(port, text)
            elif port == "nothing":
                self.expect_nothing()
            elif port == "stream":
                self.expect_packet(text)
            elif re.match(r"\d+ times ", text):
                count, _, text = text.split(None, 2)
                self.expect_times(port, int(count), text)
            else:
                self.expect(port, text)


def blocks(page, language):
    for match in re.finditer(rf"^( *)```{language}\n(.*?)^\1```$", page, re.M | re.S):
        first_line = page.count("\n", 0, match.start()) + 2
        yield first_line, [line.strip() for line in match.group(2).splitlines()]


def main():
    path = sys.argv[1]
    with open(path, encoding="utf-8") as file:
        page = file.read()
    player = Player()
    sent = []
    for first_line, block in blocks(page, "trace"):
        sent += [to_bytes(line.split(None, 2)[2]) for line in block if line.startswith("->")]
        try:
            player.play(block)
        except (AssertionError, OSError) as error:
            return f"{path}:{first_line}, {player.line}: {error}"
    for first_line, dump in blocks(page, "hexdump"):
        shown = [int(item, 16) for line in dump if not line.startswith("....")
                 for item in line[4:54].split()]
        if not shown or not any(data[:len(shown)] == shown for data in sent):
            return f"{path}:{first_line}: no example sends these bytes"
    return 0 if len(sent) > 50 else f"{path}: only {len(sent)} datagrams to send; is the page whole?"


sys.exit(main())
