"""Talk to QZ-640 units, emulated or real, and start emulated ones for a test.

One file, standard library only, Python 3.9 or later: copy it beside your tests. How the units speak
stands in docs/protocol.md.

    import qz640

    with qz640.up("QZ610,2xQZ820") as net:          # an emulator of your own, on free ports
        run_my_controller(discovery=net.discovery)
        assert net[1].inputs[2].destination == ("127.0.0.1", 9000)
        assert net[1].inputs[2].hear(1.0).peak_db > -20

    controller = qz640.Controller()                 # units that are there already
    for unit in controller.find():
        print(unit.id, unit.address, [i.destination for i in unit.inputs])

With pytest, `pytest -p qz640` gives each test that asks for it the fixture `qz640`, whose `up` ends
with the test:

    def test_my_controller_routes_input_2(qz640):
        net = qz640.up("2xQZ820")
        ...

Nothing here has a thread of its own and nothing may be shared between threads. Levels are in dB of
full scale, addresses are (host, port), times are in seconds.
"""

from __future__ import annotations

import dataclasses
import ipaddress
import json
import math
import os
import random
import select
import shutil
import socket
import subprocess
import sys
import time
from array import array
from collections import deque
from pathlib import Path
from types import TracebackType
from typing import Any, Deque, Dict, Iterator, List, Optional, Sequence, Tuple, Type, Union

__version__ = "1.0.0"

Address = Tuple[str, int]
Message = Dict[str, Any]

DISCOVERY_PORT = 15001
BROADCAST: Address = ("255.255.255.255", DISCOVERY_PORT)

TRANSMISSIONS = 5  # of one control message, the first included
REPEAT_AFTER = 0.05  # seconds without an acknowledgement
SEGMENT = 1300  # bytes of attachment in one datagram
MAX_ATTACHMENT = 1 << 20  # bytes; who announces more sends a bad message
MAX_STREAMS = 64  # inputs or outputs that a unit is believed to have
ANSWER_WITHIN = 3.0  # seconds from a request's acknowledgement, by default

FRAMES = 192  # in one packet of audio
FRAME = 6  # bytes: 24 bits left, 24 bits right
HEADER = 12  # bytes of a packet
FULL_SCALE = 8_388_607  # the sample that stands for 1.0
RATES = {100: 48000, 101: 44100}  # payload type: frames a second
_TYPES = {rate: payload_type for payload_type, rate in RATES.items()}


class Error(Exception):
    """What went wrong in words; the base of all that this module raises on purpose."""


class NoAnswer(Error):
    """A message wasn't acknowledged, or its answer didn't come."""


class Refused(Error):
    """The unit answered with an error. `code` 1: no tuners there; 2: wrong number of channels."""

    def __init__(self, code: int, text: str) -> None:
        super().__init__(f"the unit refused: {text} (code {code})")
        self.code = code


class ToolFailed(Error):
    """qz640ctl can't be found, or can't do what it is asked."""


# ---- Datagrams of the control protocol ---------------------------------------------------------


def encode(message: Message, attachment: bytes = b"") -> bytes:
    """The datagram of a message: JSON text in UTF-8, one byte 0, the attachment."""
    text = json.dumps(message, ensure_ascii=False, separators=(",", ":"), sort_keys=True)
    return text.encode() + b"\0" + attachment


def decode(datagram: bytes) -> Tuple[Message, bytes]:
    """The message of a datagram and the bytes of its attachment that came along.

    Raises ValueError on anything that is no message.
    """
    text, zero, rest = datagram.partition(b"\0")
    message = json.loads(text.decode()) if zero else None
    if not isinstance(message, dict) or not isinstance(message.get("msg"), str):
        raise ValueError("no message")
    for key in ("msg_id", "att"):
        number = message.get(key, 0 if key == "att" else None)
        if type(number) is not int or not 0 <= number <= (1 << 32) - 1:
            raise ValueError(f"{key} is no unsigned number")
    return message, rest[: message.get("att", 0)]


@dataclasses.dataclass
class Received:
    """A whole message from a unit, with all of its attachment."""

    sender: Address
    message: Message
    attachment: bytes = b""


class Controller:
    """One UDP socket that speaks the control protocol: discovery, requests, whatever comes.

    host: the local address to send from; the system's choice by default.

    Messages are acknowledged while a call of this object runs, and then only. Units send nothing
    but answers, so that nothing is lost by it.
    """

    def __init__(self, host: str = "") -> None:
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
        self._socket.bind((host, 0))
        # A unit drops a message that bears the number of the last one, so a new controller mustn't
        # begin where the one before it did.
        self._number = random.randrange(1 << 32)
        self._acknowledged: Optional[int] = None
        self._last: Dict[Address, int] = {}  # number of the last message of each unit
        self._assembly: Dict[Address, Received] = {}
        self._inbox: Deque[Received] = deque()

    def __enter__(self) -> Controller:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def close(self) -> None:
        """Gives the socket back. A closed controller can't be used again."""
        self._socket.close()

    def find(self, to: Address = BROADCAST, seconds: float = 1.0,
             count: Optional[int] = None) -> List[Unit]:
        """The units that answer a discovery sent to that address, in the order of their addresses.

        Asks every 300 ms for `seconds`, or until `count` units have answered.
        """
        found: Dict[Address, Unit] = {}
        deadline = time.monotonic() + seconds
        ask = 0.0
        while time.monotonic() < deadline and (count is None or len(found) < count):
            if time.monotonic() >= ask:
                self._transmit(to, {"msg": "dev_find", "msg_id": self._next_number()})
                ask = time.monotonic() + 0.3
            self._take(min(ask, deadline))
            for answer in self._taken("dev_info"):
                found[answer.sender] = Unit(self, answer.sender, answer.message)
        return sorted(found.values(), key=lambda unit: (socket.inet_aton(unit.address[0]),
                                                        unit.address[1]))

    def unit(self, address: Address) -> Unit:
        """The unit at that control address. Nothing is sent yet."""
        return Unit(self, address)

    def send(self, to: Address, msg: str, attachment: bytes = b"", **keys: Any) -> int:
        """Sends a message and waits until it is acknowledged; gives its number.

        An attachment of more than 1,300 bytes goes in segments. Raises NoAnswer when one of the
        datagrams isn't acknowledged within 250 ms.
        """
        number = self._next_number()
        message: Message = dict(keys, msg=msg, msg_id=number)
        if attachment:
            message["att"] = len(attachment)
        if len(attachment) <= SEGMENT:
            self._deliver(to, message, attachment)
            return number
        self._deliver(to, message)
        count = -(-len(attachment) // SEGMENT)
        for i in range(count):
            part = attachment[i * SEGMENT:][:SEGMENT]
            self._deliver(to, {"msg": "attach", "msg_id": self._next_number(), "att": len(part),
                               "leader_id": number, "seg_count": count, "seg_number": i}, part)
        return number

    def request(self, to: Address, msg: str, answer: str, attachment: bytes = b"",
                seconds: float = ANSWER_WITHIN, **keys: Any) -> Message:
        """Sends a request and gives the unit's next message called `answer`.

        Raises Refused when the unit answers with an error, NoAnswer when it doesn't answer.
        """
        self._taken(answer, to)  # of an earlier request that gave up waiting
        number = self.send(to, msg, attachment, **keys)
        deadline = time.monotonic() + seconds
        while True:
            self.raise_refusal(to, number)
            answers = self._taken(answer, to)
            if answers:
                return answers[0].message
            if not self._take(deadline):
                raise NoAnswer(f"{_text(to)} acknowledged {msg}, but sent no {answer}"
                               f" in {seconds} s")

    def raise_refusal(self, to: Address, number: int) -> None:
        """Raises Refused if an `error` about the message with that number has come."""
        for refusal in self._taken("error", to):
            if refusal.message.get("err_msg_id") == number:
                raise Refused(refusal.message.get("code", 0), refusal.message.get("txt", ""))

    def receive(self, seconds: float = ANSWER_WITHIN) -> Optional[Received]:
        """The next message that no other call has taken; None when time is over."""
        deadline = time.monotonic() + seconds
        while not self._inbox:
            if not self._take(deadline):
                return None
        return self._inbox.popleft()

    def _next_number(self) -> int:
        self._number = (self._number + 1) % (1 << 32)
        return self._number

    def _transmit(self, to: Address, message: Message, attachment: bytes = b"") -> None:
        self._socket.sendto(encode(message, attachment), to)

    def _deliver(self, to: Address, message: Message, attachment: bytes = b"") -> None:
        self._acknowledged = None
        for _ in range(TRANSMISSIONS):
            self._transmit(to, message, attachment)
            deadline = time.monotonic() + REPEAT_AFTER
            while self._take(deadline):
                if self._acknowledged == message["msg_id"]:
                    return
        raise NoAnswer(f"{_text(to)} didn't acknowledge {message['msg']}, sent {TRANSMISSIONS}"
                       f" times; is that a unit's control address?")

    def _taken(self, msg: str, sender: Optional[Address] = None) -> List[Received]:
        """Takes messages of that name out of the inbox."""
        mine = [r for r in self._inbox
                if r.message["msg"] == msg and sender in (None, r.sender)]
        self._inbox = deque(r for r in self._inbox if r not in mine)
        return mine

    def _take(self, deadline: float) -> bool:
        """Waits for one datagram and handles it; False when time is over."""
        wait = deadline - time.monotonic()
        if wait <= 0 or not select.select([self._socket], [], [], wait)[0]:
            return False
        try:
            datagram, sender = self._socket.recvfrom(65536)
            self._handle(*decode(datagram), sender)
        except (ConnectionError, ValueError, RecursionError):
            pass  # a closed port somewhere (Windows reports it here), or no message
        return True

    def _handle(self, message: Message, attachment: bytes, sender: Address) -> None:
        if message["msg"] == "ack":
            self._acknowledged = message.get("ack_msg_id")
            return
        self._transmit(sender, {"msg": "ack", "msg_id": self._next_number(),
                                "ack_msg_id": message["msg_id"]})
        if self._last.get(sender) == message["msg_id"]:
            return  # a repeat, acknowledged once more
        self._last[sender] = message["msg_id"]
        self._assemble(message, attachment, sender)

    def _assemble(self, message: Message, attachment: bytes, sender: Address) -> None:
        assembly = self._assembly.pop(sender, None)
        if message["msg"] != "attach":
            whole = Received(sender, message, attachment)
            length = message.get("att", 0)
            if len(attachment) == length:
                self._inbox.append(whole)
            elif length <= MAX_ATTACHMENT:
                self._assembly[sender] = whole
        elif assembly:
            assembly.attachment += attachment
            missing = assembly.message["att"] - len(assembly.attachment)
            if missing > 0:
                self._assembly[sender] = assembly
            elif missing == 0:
                self._inbox.append(assembly)


def _text(address: Optional[Address]) -> str:
    """An address as `set_inputs` wants it. Raises ValueError on a host that isn't a.b.c.d."""
    return f"{ipaddress.IPv4Address(address[0])}:{address[1]}" if address else "off"


def _address(text: str) -> Optional[Address]:
    """The address of a text such as "10.0.0.5:9000"; None for an empty one."""
    host, _, port = text.partition(":")
    return (host, int(port or 0)) if host else None


# ---- Units -------------------------------------------------------------------------------------


class Unit:
    """A unit at a control address, asked through a controller. What isn't asked isn't sent."""

    def __init__(self, controller: Controller, address: Address,
                 info: Optional[Message] = None) -> None:
        self.controller = controller
        self.address = address
        self._info = info

    def __repr__(self) -> str:
        return f"<unit at {_text(self.address)}>"

    @property
    def info(self) -> Message:
        """The unit's `dev_info`, asked once."""
        if self._info is None:
            self._info = self._ask("get_dev_info", "dev_info")
        return self._info

    @property
    def id(self) -> str:
        """The unit's name. It comes from the network: escape it before a terminal sees it."""
        return str(self.info["unit_id"])

    @property
    def type(self) -> str:
        """The model, such as QZ610."""
        return str(self.info["unit_type"])

    @property
    def inputs(self) -> Sequence[Input]:
        """The streams that the unit sends."""
        return [Input(self, i) for i in range(self._count("inputs"))]

    @property
    def outputs(self) -> Sequence[Output]:
        """The streams that the unit receives."""
        return [Output(self, i) for i in range(self._count("outputs"))]

    def _count(self, key: str) -> int:
        count = self.info[key]
        if type(count) is not int or not 0 <= count <= MAX_STREAMS:
            raise Error(f"{self} says that it has {count!r} {key}")
        return count

    def destinations(self) -> List[Optional[Address]]:
        """Where each input goes; None: it is off."""
        texts = self._ask("get_inputs", "inputs").get("inputs", [])
        return [_address(text) for text in texts]

    def set_frequency(self, rate: int) -> None:
        """Sets the sample frequency, 48000 or 44100, which switches all inputs off.

        The unit gives no answer: the sample frequency of what is heard from an input says whether
        it did.
        """
        self._tell("set_state", device_freq=rate)

    def tuner_frequencies(self) -> List[int]:
        """The frequency of each tuner. Raises Refused on a unit without tuners."""
        return list(self._ask("get_fm_freq", "fm_freq").get("freq", []))

    def tune(self, frequencies: Sequence[int]) -> None:
        """Sets the tuners, one number each; 0 leaves a tuner as it is.

        Reads back what it set, since a unit says nothing to a good request. Raises Refused.
        """
        number = self._tell("set_fm_freq", freq=list(frequencies))
        self._ask("get_fm_freq", "fm_freq")  # an error about `number` comes before this answer
        self.controller.raise_refusal(self.address, number)

    def tuner_quality(self) -> Message:
        """`rssi`, `snr`, `multipath` and `pilot`, a list with one number for each tuner."""
        quality = self._ask("get_fm_quality", "fm_quality")
        return {key: quality.get(key, []) for key in ("rssi", "snr", "multipath", "pilot")}

    def _tell(self, msg: str, **keys: Any) -> int:
        return self.controller.send(self.address, msg, **keys)

    def _ask(self, msg: str, answer: str, **keys: Any) -> Message:
        return self.controller.request(self.address, msg, answer, **keys)


class Input:
    """A stream that the unit sends to the network."""

    def __init__(self, unit: Unit, index: int) -> None:
        self.unit = unit
        self.index = index

    @property
    def destination(self) -> Optional[Address]:
        """Where the stream goes, asked of the unit now; None: it is off."""
        return self.unit.destinations()[self.index]

    def send_to(self, destination: Optional[Address]) -> None:
        """Sends the stream to an IPv4 address and port, or switches it off with None.

        Raises ValueError on a name: units know none, and would switch the input off. Reads back
        what the unit made of it: it acknowledges and ignores what it can't take.
        """
        self._set(destination)
        now = self.destination
        if now != destination:
            raise Error(f"{self.unit} acknowledged {_text(destination)} as the destination of input"
                        f" {self.index}, but that is {_text(now)}")

    def _set(self, destination: Optional[Address]) -> None:
        changes = [""] * len(self.unit.inputs)
        changes[self.index] = _text(destination)
        self.unit._tell("set_inputs", inputs=changes)

    def hear(self, seconds: float) -> Heard:
        """What the input sends in that time, without taking it from whoever gets it.

        The stream comes here meanwhile, and each packet goes on, unchanged, to where it went
        before. Afterwards the input gets its destination back, but only if it still points here.
        (A process that is killed in between can't give it back.)
        """
        with Stream(_local_host(self.unit.address)) as stream:
            former = self.destination
            stream.pass_on = former
            self._set(stream.address)  # somebody else may set another one at any time
            try:
                stream.receive(seconds=2.0, packets=1)  # until the first one is here
                heard = stream.receive(seconds)
            finally:
                if self.destination == stream.address:
                    self._set(former)
                stream.receive(0.02)  # what was on its way
        return heard


class Output:
    """A stream that the unit receives from the network."""

    def __init__(self, unit: Unit, index: int) -> None:
        self.unit = unit
        self.index = index

    @property
    def address(self) -> Address:
        """Where the unit listens."""
        return self.unit.address[0], self.unit.info["rtp_port"] + 2 * self.index


def _local_host(peer: Address) -> str:
    """This machine's address as that peer sees it. Nothing is sent."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.connect(peer)
        return str(probe.getsockname()[0])


# ---- Audio -------------------------------------------------------------------------------------


def to_samples(frames: bytes) -> array[int]:
    """The samples of frames as they go over the wire: left, right, left, ..., 24-bit integers."""
    wide = bytearray(len(frames) // 3 * 4)
    for i in range(3):
        wide[i::4] = frames[i::3]
    samples = array("i", bytes(wide))
    if sys.byteorder == "little":
        samples.byteswap()
    return array("i", [sample >> 8 for sample in samples])


def to_frames(samples: Union[array[int], Sequence[int]]) -> bytes:
    """The frames of samples in the order left, right, left, ...; the opposite of to_samples."""
    wide = array("i", [sample << 8 for sample in samples])
    if sys.byteorder == "little":
        wide.byteswap()
    frames = bytearray(len(wide) * 3)
    for i in range(3):
        frames[i::3] = wide.tobytes()[i::4]
    return bytes(frames)


def sine(hz: float, seconds: float, peak_db: float = -6.0, rate: int = 48000) -> bytes:
    """Frames of a sine, the same on both channels."""
    peak = 10 ** (peak_db / 20) * FULL_SCALE
    step = 2 * math.pi * hz / rate
    tone = [int(peak * math.sin(step * n)) for n in range(int(seconds * rate))]
    return to_frames([sample for sample in tone for _ in range(2)])


def _db(amplitude: float) -> float:
    return 20 * math.log10(amplitude / FULL_SCALE) if amplitude > 0 else -math.inf


@dataclasses.dataclass
class Heard:
    """A stretch of audio in the order of its sequence numbers; lost packets are silence in it."""

    frames: bytes = dataclasses.field(default=b"", repr=False)  # a failed assertion would show it all
    rate: int = 48000  # frames a second, from the payload type
    packets: int = 0  # that came, doubled ones too
    lost: int = 0  # that never came
    late: int = 0  # that came after one with a higher number
    doubled: int = 0  # that came more than once
    restarts: int = 0  # jumps in the numbers by more than a second's worth
    jitter_ms: float = 0.0  # mean difference between a packet's distance to the one before and its due

    def samples(self, channel: Optional[int] = None) -> array[int]:
        """24-bit samples: of the left channel (0), the right one (1), or left, right, left, ..."""
        both = to_samples(self.frames)
        return both if channel is None else both[channel::2]

    @property
    def seconds(self) -> float:
        """How long it is."""
        return len(self.frames) / FRAME / self.rate

    @property
    def peak_db(self) -> float:
        """The highest level on either channel; minus infinity for silence or nothing at all."""
        samples = self.samples()
        return _db(max(max(samples), -min(samples))) if samples else -math.inf

    def tone_db(self, hz: float, channel: int = 0) -> float:
        """The level of the sine of that frequency, as the peak that it would have alone."""
        samples = self.samples(channel)
        step = 2 * math.pi * hz / self.rate
        real = sum(s * math.cos(step * n) for n, s in enumerate(samples))
        imaginary = sum(s * math.sin(step * n) for n, s in enumerate(samples))
        return _db(2 * math.hypot(real, imaginary) / max(len(samples), 1))


@dataclasses.dataclass
class _Packet:
    arrival: float
    payload_type: int
    sequence: int
    frames: bytes


class Stream:
    """One UDP socket for audio: receives what is sent to its address, and sends.

    host, port: the local address; any free port by default.
    """

    def __init__(self, host: str = "127.0.0.1", port: int = 0) -> None:
        self._socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self._socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
        self._socket.bind((host, port))
        self._packets: List[_Packet] = []
        self._sequence = random.randrange(1 << 16)
        self._timestamp = 0
        self._due = 0.0  # when the next packet goes out
        self.pass_on: Optional[Address] = None  # where each received packet goes on to, unchanged

    def __enter__(self) -> Stream:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def close(self) -> None:
        """Gives the socket back."""
        self._socket.close()

    @property
    def address(self) -> Address:
        """Where this stream receives: for Input.send_to."""
        host, port = self._socket.getsockname()
        return str(host), int(port)

    def send(self, to: Address, frames: Union[bytes, array[int]], rate: int = 48000) -> None:
        """Sends frames, or an array of samples, in packets at the pace of the sample frequency.

        Takes as long as the frames last. A second call goes on where the first one ended; the last
        packet is filled with silence. What arrives meanwhile is kept for `receive`.
        """
        data = frames if isinstance(frames, bytes) else to_frames(frames)
        header = bytes([2, _TYPES[rate] << 1])
        for begin in range(0, len(data), FRAMES * FRAME):
            # After a stop, whose ever it was, the stream goes on from now: a unit has room for
            # three packets that come at once, and starts anew with a click at more.
            if self._due < time.monotonic() - 3 * FRAMES / rate:
                self._due = time.monotonic()
            self._pump(self._due)
            payload = data[begin:begin + FRAMES * FRAME].ljust(FRAMES * FRAME, b"\0")
            self._socket.sendto(header + self._sequence.to_bytes(2, "big")
                                + self._timestamp.to_bytes(4, "big") + bytes(4) + payload, to)
            self._sequence = (self._sequence + 1) % (1 << 16)
            self._timestamp = (self._timestamp + FRAMES) % (1 << 32)
            self._due += FRAMES / rate

    def receive(self, seconds: float, packets: Optional[int] = None) -> Heard:
        """What has come since the last call, and comes in the time given.

        Ends early with that number of packets.
        """
        self._pump(time.monotonic() + seconds, packets)
        taken, self._packets = self._packets, []
        return _put_in_order(taken)

    def _pump(self, deadline: float, packets: Optional[int] = None) -> None:
        while packets is None or len(self._packets) < packets:
            wait = max(0.0, deadline - time.monotonic())
            if not select.select([self._socket], [], [], wait)[0]:
                return
            try:
                datagram = self._socket.recv(65536)
            except ConnectionError:
                continue  # Windows: a packet of ours met a closed port
            if self.pass_on:
                self._socket.sendto(datagram, self.pass_on)
            payload_type = datagram[1] >> 1 if len(datagram) > HEADER else 0
            if payload_type in RATES:
                self._packets.append(_Packet(time.monotonic(), payload_type,
                                             int.from_bytes(datagram[2:4], "big"),
                                             datagram[HEADER:]))


def _put_in_order(packets: List[_Packet]) -> Heard:
    heard = Heard(packets=len(packets))
    places: Dict[int, bytes] = {}
    newest: Optional[int] = None  # the highest place; a new start goes on from it
    number = 0  # the sequence number that came with it
    distances: List[float] = []
    for before, packet in zip([None, *packets[:-1]], packets):
        heard.rate = RATES[packet.payload_type]
        place = 0
        if newest is not None:
            step = (packet.sequence - number + 0x8000) % 0x10000 - 0x8000
            if abs(step) > heard.rate // FRAMES:
                heard.restarts += 1
                step = 1
            heard.late += step < 0
            place = newest + step
            if before and step == 1:
                distances.append(abs(packet.arrival - before.arrival - FRAMES / heard.rate))
        heard.doubled += place in places
        places[place] = packet.frames
        if newest is None or place > newest:
            newest, number = place, packet.sequence
    if newest is not None:
        first = min(places)
        heard.lost = newest - first + 1 - len(places)
        silence = bytes(FRAMES * FRAME)
        heard.frames = b"".join(places.get(i, silence) for i in range(first, newest + 1))
    if distances:
        heard.jitter_ms = 1000 * sum(distances) / len(distances)
    return heard


# ---- An emulator of one's own ------------------------------------------------------------------


class Net:
    """Emulated units that run until `close`, or to the end of a `with`. Made by `up`.

    `net[i]` is unit i, in the order in which they were asked for.
    """

    def __init__(self, process: subprocess.Popen[bytes], environment: Dict[str, str]) -> None:
        self._process = process
        self.environment = environment  # QZ640_ADDR and so on, for a controller that is started
        self.address = environment["QZ640_ADDR"]
        self.discovery = _required(environment["QZ640_DISCOVERY"])
        self.controller = Controller(self.address)
        self.units = [self.controller.unit(_required(environment[f"QZ640_UNIT{i}_CONTROL"]))
                      for i in range(int(environment["QZ640_UNITS"]))]

    def __getitem__(self, index: int) -> Unit:
        return self.units[index]

    def __len__(self) -> int:
        return len(self.units)

    def __enter__(self) -> Net:
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def close(self) -> None:
        """Ends the emulator. Closing twice does no harm."""
        self.controller.close()
        _end(self._process)


def _required(text: str) -> Address:
    address = _address(text)
    assert address
    return address


def _end(process: subprocess.Popen[bytes]) -> None:
    for pipe in (process.stdin, process.stdout, process.stderr):
        if pipe:
            pipe.close()
    try:
        process.wait(20)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


def up(units: str = "QZ610,QZ820", faults: Sequence[str] = (), mode: int = 1,
       tool: Optional[str] = None, show_log: bool = False) -> Net:
    """Starts an emulator on free ports of 127.0.0.1 and waits until its units answer.

    units: models, each with an optional count: "2xQZ820,QZ610".
    faults: how the units misbehave, each handed to `qz640ctl up --fault`.
    mode: what the inputs send: 1 a ramp that rises in each packet; 0 silence, or on a QZ610 what
        its output receives. README lists them all.
    tool: the path of qz640ctl; else the environment's QZ640CTL, the one on the PATH, or the one that
        was built in this repository.
    show_log: the emulator's log goes to standard error.

    Raises ToolFailed with what qz640ctl said when it can't do that.
    """
    tool = tool or _find_tool()
    if faults and b"--fault" not in subprocess.run([tool, "up", "--help"], check=False,
                                                   stdout=subprocess.PIPE).stdout:
        raise ToolFailed(f"{tool} can't make units misbehave: its `up` has no --fault")
    command = [tool, "up", "--units", units, "--mode", str(mode)]
    command += [part for fault in faults for part in ("--fault", fault)]
    command += ["--show-log"] if show_log else []
    command += ["--json", "--until-eof"]  # so the emulator also ends when this process is killed
    try:
        process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=None if show_log else subprocess.DEVNULL)
    except OSError as error:
        raise ToolFailed(f"{command[0]} can't be started: {error}") from error
    assert process.stdout
    line = process.stdout.readline()
    while line and not line.startswith(b"{"):  # what qz640ctl itself has to say
        line = process.stdout.readline()
    values = json.loads(line or "{}")
    if "QZ640_ADDR" in values:
        return Net(process, {**os.environ, **values})
    _end(process)
    said = values.get("error", "not a word")
    raise ToolFailed(f"{' '.join(command[:2])} ended with status {process.returncode}: {said}")


def _find_tool() -> str:
    here = Path(__file__).resolve().parent
    built = [here.parent / "build" / preset / "qz640ctl"
             for preset in ("release", "debug", "windows")]
    for candidate in (os.environ.get("QZ640CTL"), shutil.which("qz640ctl"), *map(str, built)):
        if candidate and shutil.which(candidate):
            return candidate
    raise ToolFailed("there is no qz640ctl: put it on the PATH, or its path into QZ640CTL")


class Nets:
    """The fixture of pytest: `up` as above, and all that it started ends with the test."""

    def __init__(self) -> None:
        self._nets: List[Net] = []

    def up(self, units: str = "QZ610,QZ820", faults: Sequence[str] = (), mode: int = 1,
           tool: Optional[str] = None, show_log: bool = False) -> Net:
        """See `qz640.up`."""
        self._nets.append(up(units, faults, mode, tool, show_log))
        return self._nets[-1]

    def close(self) -> None:
        """Ends all emulators."""
        while self._nets:
            self._nets.pop().close()


# The plugin: pytest is there already when it loads this file, and nobody else needs it.
if "pytest" in sys.modules:
    import pytest

    @pytest.fixture(name="qz640")
    def _qz640() -> Iterator[Nets]:
        nets = Nets()
        try:
            yield nets
        finally:
            nets.close()
