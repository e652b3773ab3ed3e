"""python/qz640.py against the real program, and against a unit that misbehaves."""

import os
import signal
import socket
import subprocess
import sys
import threading
import time

import pytest

import qz640 as qz


def packet(sequence, payload_type=100, mark=1):
    return (bytes([2, payload_type << 1]) + (sequence % 65536).to_bytes(2, "big") + bytes(8)
            + bytes([0, 0, mark]) * 384)


@pytest.fixture
def stream():
    with qz.Stream() as made:
        yield made


def feed(stream, sequences):
    """Hands over packets marked 1, 2, ... all at once, and gives what was heard."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        for mark, sequence in enumerate(sequences, 1):
            sender.sendto(packet(sequence, mark=mark), stream.address)
    return stream.receive(1.0, packets=len(sequences))


@pytest.mark.parametrize("sequences, marks, counts", [
    ([65535, 65536, 65537], [1, 2, 3], {}),
    ([10, 13, 12], [1, 0, 3, 2], {"lost": 1, "late": 1}),
    ([10, 11, 11, 12], [1, 3, 4], {"doubled": 1}),
    ([10, 11, 30000, 30001], [1, 2, 3, 4], {"restarts": 1}),
])
def test_statistics_say_what_happened_and_frames_stand_in_order(stream, sequences, marks, counts):
    heard = feed(stream, sequences)
    assert [sample for sample in heard.samples(0)[::192]] == marks
    for name in ("lost", "late", "doubled", "restarts"):
        assert (name, getattr(heard, name)) == (name, counts.get(name, 0))


def test_samples_of_the_page():
    assert qz.to_frames([4194303, -4194303]) == bytes.fromhex("3FFFFFC00001")
    assert list(qz.to_samples(bytes.fromhex("800000FFFFFF"))) == [-8388608, -1]


def test_a_tone_comes_back_at_its_level(qz640, stream):
    unit = qz640.up("QZ610", mode=0)[0]
    unit.inputs[0].send_to(stream.address)
    stream.send(unit.outputs[0].address, qz.sine(1000, 1.0, peak_db=-6))
    heard = stream.receive(0.05)
    # A busy machine costs pieces of the tone, but some 20 ms of it are whole.
    piece = 5 * qz.FRAMES * qz.FRAME
    pieces = [qz.Heard(heard.frames[i:i + piece]) for i in range(0, len(heard.frames), piece)]
    best = max(pieces, key=lambda piece: piece.tone_db(1000))
    assert best.tone_db(1000) == pytest.approx(-6, abs=0.01)
    assert best.peak_db == pytest.approx(-6, abs=0.01)
    assert best.tone_db(1500) < -60


def test_hearing_leaves_the_stream_with_its_receiver(qz640, stream):
    tuner = qz640.up("QZ820")[0].inputs[3]
    tuner.send_to(stream.address)
    stream.receive(5.0, packets=1)
    heard = tuner.hear(0.1)
    kept = stream.receive(0.05)  # what came meanwhile waits in the socket
    assert tuner.destination == stream.address
    assert kept.packets >= heard.packets > 0
    assert kept.lost + kept.doubled + kept.restarts == 0


def test_hearing_gives_back_only_what_is_still_its_own(qz640, stream):
    net = qz640.up("QZ820")
    tuner = net[0].inputs[0]

    def move():
        with qz.Controller("127.0.0.1") as another:
            moved = another.unit(net[0].address).inputs[0]
            while moved.destination is None:
                time.sleep(0.01)
            moved.send_to(stream.address)

    mover = threading.Thread(target=move)
    mover.start()
    tuner.hear(1.0)
    mover.join()
    assert tuner.destination == stream.address


def test_what_a_unit_does_not_take_is_an_error(qz640):
    net = qz640.up("QZ610,QZ820")
    with pytest.raises(qz.Refused) as refused:
        net[0].tune([90000])
    assert refused.value.code == 1
    with pytest.raises(ValueError):
        net[1].inputs[0].send_to(("localhost", 9000))
    with pytest.raises(qz.NoAnswer):
        net.controller.request(net.discovery, "get_inputs", "inputs")
    net[1].tune([0, 0, 0, 90000])
    assert net[1].tuner_frequencies() == [100500, 100500, 100500, 90000]
    net[1].set_frequency(44100)
    assert net[1].inputs[1].hear(0.1).rate == 44100


def test_faults_are_survived_and_streams_come_through(qz640):
    net = qz640.up("2xQZ820", faults=["ack of set_inputs: lost 2 times", "get_fm_freq: error 2"])
    net[0].inputs[2].send_to(("127.0.0.1", 9000))
    assert net[0].inputs[2].destination == ("127.0.0.1", 9000)
    assert net[0].inputs[2].hear(1.0).peak_db > -20
    with pytest.raises(qz.Refused, match="mismatch"):
        net[1].tuner_frequencies()
    with pytest.raises(qz.ToolFailed, match="reboot for TIME"):
        qz640.up(faults=["reboots"])


def stubborn(endpoint, arrivals, acknowledged):
    """A unit that acknowledges only the fourth transmission, and answers with 3,000 bytes in
    segments, each datagram of them two times."""
    body = bytes(range(250)) * 12
    while len(acknowledged) < 8:
        datagram, peer = endpoint.recvfrom(65536)
        message, _ = qz.decode(datagram)
        if message["msg"] == "ack":
            acknowledged.append(message["ack_msg_id"])
            continue
        arrivals.append((time.monotonic(), datagram))
        if len(arrivals) != 4:
            continue
        endpoint.sendto(qz.encode({"msg": "ack", "ack_msg_id": message["msg_id"], "msg_id": 1}), peer)
        messages = [({"msg": "inputs", "att": 3000, "msg_id": 2}, b"")]
        messages += [({"msg": "attach", "att": len(part), "leader_id": 2, "seg_count": 3,
                       "seg_number": i, "msg_id": 3 + i}, part)
                     for i, part in enumerate([body[:1300], body[1300:2600], body[2600:]])]
        for answer, part in messages:
            for _ in range(2):
                endpoint.sendto(qz.encode(answer, part), peer)


def test_repeats_until_acknowledged_and_takes_an_answer_once():
    arrivals, acknowledged = [], []
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as endpoint, qz.Controller("127.0.0.1") as it:
        endpoint.bind(("127.0.0.1", 0))
        endpoint.settimeout(5)
        unit = threading.Thread(target=stubborn, args=(endpoint, arrivals, acknowledged))
        unit.start()
        it.send(endpoint.getsockname(), "get_inputs")
        assert it.receive().attachment == bytes(range(250)) * 12
        assert it.receive(0.1) is None
        unit.join()
    times, datagrams = zip(*arrivals)
    assert len(set(datagrams)) == 1 and len(datagrams) == 4
    assert min(b - a for a, b in zip(times, times[1:])) > 0.045
    assert sorted(acknowledged) == sorted([2, 3, 4, 5] * 2)


def test_the_emulator_ends_with_the_process_that_wanted_it():
    script = "import qz640; net = qz640.up('QZ610'); print(*net.discovery, flush=True); input()"
    with subprocess.Popen([sys.executable, "-c", script], stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE) as user:
        host, port = user.stdout.readline().split()
        os.kill(user.pid, signal.SIGKILL)
    with qz.Controller("127.0.0.1") as controller:
        deadline = time.monotonic() + 20
        while controller.find((host.decode(), int(port)), seconds=0.3):
            assert time.monotonic() < deadline, "the emulator lives on"
