"""Captures a real exchange on loopback and compares what tshark makes of it, field by field.

The exchange is that of docs/protocol.md, played by page_test.py; after it come packets of a stream
with gaps. What each field must be is read from the datagram itself, in Python.
Called as: dissector_test.py QZ640CTL. Status 77 where tshark is missing or may not capture.
"""

import json
import pathlib
import random
import shutil
import socket
import subprocess
import sys
import tempfile
import time

HERE = pathlib.Path(__file__).resolve().parent
ROOT = HERE.parent.parent
HOST = f"127.65.{random.randrange(250)}.{random.randrange(1, 250)}"  # the page's ports, and nobody else
GAPS = [65534, 65535, 2, 1, 2, 40000]  # two lost, one late, one doubled, a new start

SINGLE = ("msg msg_id att ack_msg_id leader_id seg_count seg_number unit_id unit_type rtp_port outputs "
          "device_freq code txt err_msg_id").split()
NOTES = ["lost", "late", "doubled_note", "restart_note"]
COLUMNS = ["frame.number", "frame.time_epoch", "udp.srcport", "udp.dstport", "udp.payload",
           "_ws.col.Protocol", "_ws.lua.error"]
COLUMNS += ["qz640." + name for name in SINGLE]
COLUMNS += ["qz640." + name for name in (
    "inputs input freq attachment whole_attachment ack_of ack_time answer_of answer_in repeat_of transmission "
    "segment_of whole_in bad unacknowledged refused").split()]
COLUMNS += ["qz640rtp." + name for name in (
    "version payload_type marker sequence timestamp source frames left right").split() + NOTES]


def wait(condition, what):
    deadline = time.monotonic() + 90
    while not condition():
        if time.monotonic() > deadline:
            sys.exit(f"waited in vain for {what}")
        time.sleep(0.05)


def capture(file, ctl):
    """Captures the exchange into the file. All of it is there when the marks around it are."""
    tshark = subprocess.Popen(["tshark", "-q", "-i", "lo", "-f", f"udp and host {HOST}", "-w", file],
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    sender = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)

    def marked(mark):
        sender.sendto(mark, (HOST, 9))
        if tshark.poll() is not None:
            print(tshark.stderr.read().decode(), "\nskipped: tshark may not capture here")
            sys.exit(77)
        return file.exists() and mark in file.read_bytes()

    try:
        wait(lambda: marked(b"mark of the begin"), "the capture to begin")
        subprocess.run([ctl, "up", "--addr", HOST, "--port", "7998", "--units", "QZ610,QZ820", "--",
                        sys.executable, HERE.parent / "python" / "page_test.py",
                        ROOT / "docs" / "protocol.md"], check=True)
        for sequence in GAPS:
            packet = bytes([2, 202]) + sequence.to_bytes(2, "big") + bytes(8) + b"\x80\0\0\0\0\1" * 192
            sender.sendto(packet, (HOST, 8002))
        wait(lambda: marked(b"mark of the end"), "the capture to end")
    finally:
        tshark.terminate()
        tshark.communicate()


def read(file):
    """A dictionary for each frame: field: list of its values as text."""
    command = ["tshark", "-2", "-X", f"lua_script:{ROOT / 'wireshark' / 'qz640.lua'}", "-r", file,
               "-T", "fields", "-E", "occurrence=a", "-E", "aggregator=|"]
    for column in COLUMNS:
        command += ["-e", column]
    result = subprocess.run(command, check=True, capture_output=True, text=True)
    if "Lua" in result.stderr:
        sys.exit(result.stderr)
    frames = []
    for line in result.stdout.splitlines():
        values = [value.split("|") if value else [] for value in line.split("\t")]
        frame = dict(zip(COLUMNS, values))
        frame["number"] = int(frame["frame.number"][0])
        frame["from"], frame["to"] = int(frame["udp.srcport"][0]), int(frame["udp.dstport"][0])
        frame["payload"] = bytes.fromhex(frame["udp.payload"][0])
        frame["qz640.input"] = [text for text in frame["qz640.input"] if text]
        frames.append(frame)
    return frames


def message_of(frame):
    """The message and its attachment, or None; read in Python's own way, which is less strict."""
    text, zero, rest = frame["payload"].partition(b"\0")
    try:  # text after the object is ignored
        message = json.JSONDecoder().raw_decode(text.decode().lstrip())[0] if zero else None
    except ValueError:
        message = None
    return (message, rest) if isinstance(message, dict) and "msg" in message else (None, b"")


def expected_message(message, rest):
    """The fields that the keys of a message must show."""
    fields = {f"qz640.{key}": [str(message[key])] for key in SINGLE if key in message}
    inputs = message.get("inputs", [])
    if isinstance(inputs, list):
        # tshark prints an empty text as nothing.
        fields["qz640.input"] = [text for text in inputs if isinstance(text, str) and text]
    else:
        fields["qz640.inputs"] = [str(inputs)]
    fields["qz640.freq"] = [str(n) for n in message.get("freq", [])]
    fields["qz640.attachment"] = [rest.hex()] if rest else []
    return fields


def expected_packet(payload):
    def numbers(offset):
        return [str(int.from_bytes(payload[i:i + 3], "big", signed=True))
                for i in range(offset, offset + 24, 6)]
    return {"qz640rtp.version": ["2"], "qz640rtp.payload_type": [str(payload[1] >> 1)],
            "qz640rtp.marker": ["0"], "qz640rtp.sequence": [str(int.from_bytes(payload[2:4], "big"))],
            "qz640rtp.timestamp": [str(int.from_bytes(payload[4:8], "big"))],
            "qz640rtp.source": ["0x00000000"], "qz640rtp.frames": ["192"],
            "qz640rtp.left": numbers(12), "qz640rtp.right": numbers(15)}


wrong = []


def compare(frame, fields):
    for name, value in fields.items():
        if frame[name] != value:
            wrong.append(f"frame {frame['number']}: {name} is {frame[name]}, must be {value}"
                         f" in {frame['payload'][:60]}")


def check_messages(frames):
    """All keys, what is bad, and what belongs together."""
    seen = []  # (frame, message)
    for frame in frames:
        message, rest = message_of(frame)
        acked = message and "msg_id" in message and any(
            later["to"] == frame["from"] and later["from"] == frame["to"]
            and (message_of(later)[0] or {}).get("ack_msg_id") == message["msg_id"]
            for later in frames if later["number"] > frame["number"])
        from_unit = frame["from"] in (8000, 8006)
        good = message is not None and (
            from_unit or message["msg"] in ("ack", "dev_find") or bool(acked))
        compare(frame, {"qz640.bad": [] if good else ["1"]})
        if not good:
            continue
        compare(frame, expected_message(message, rest[:message.get("att", 0)]))
        before = [(f, m) for f, m in seen if f["from"] == frame["to"] and f["to"] == frame["from"]]
        if message["msg"] == "ack":
            tied = [f for f, m in before if m["msg_id"] == message["ack_msg_id"]]
            compare(frame, {"qz640.ack_of": [str(tied[-1]["number"])]})
            took = float(frame["frame.time_epoch"][0]) - float(tied[-1]["frame.time_epoch"][0])
            if not frame["qz640.ack_time"] or abs(float(frame["qz640.ack_time"][0]) - took) > 1e-5:
                wrong.append(f"frame {frame['number']}: ack_time is {frame['qz640.ack_time']}, "
                             f"must be {took:.6f} s")
        elif message["msg"] == "error":
            tied = [f for f, m in before if m["msg_id"] == message["err_msg_id"]]
            compare(frame, {"qz640.answer_of": [str(tied[-1]["number"])], "qz640.refused": ["1"]})
            compare(tied[-1], {"qz640.answer_in": [str(frame["number"])]})
        elif message["msg"] == "dev_info":
            tied = [f for f, m in seen if m["msg"] == "dev_find" and f["from"] == frame["to"]]
            compare(frame, {"qz640.answer_of": [str(tied[-1]["number"])]})
        seen.append((frame, message))
    return seen


def check_sequences(seen):
    """The two examples of the page that take several datagrams."""
    repeats = [f for f, m in seen if m["msg"] == "inputs" and f["qz640.unacknowledged"]]
    first = str(repeats[0]["number"])
    for transmission, frame in enumerate(repeats, 1):
        compare(frame, {"qz640.repeat_of": [first] if transmission > 1 else [],
                        "qz640.transmission": [str(transmission)] if transmission > 1 else []})
    if len(repeats) != 5:
        wrong.append(f"{len(repeats)} datagrams are never acknowledged, must be 5")

    head = next(f for f, m in seen if m.get("att") == 2000)
    parts = [(f, m) for f, m in seen if m["msg"] == "attach"]
    for frame, _ in parts:
        compare(frame, {"qz640.segment_of": [str(head["number"])]})
    last = parts[-1][0]
    compare(last, {"qz640.whole_attachment": [(b"x" * 1300 + b"y" * 700).hex()]})
    compare(head, {"qz640.whole_in": [str(last["number"])]})
    answer = next(f for f, m in seen if f["number"] > last["number"] and m["msg"] == "inputs")
    compare(answer, {"qz640.answer_of": [str(head["number"])]})


def check_streams(packets):
    for frame in packets:
        compare(frame, expected_packet(frame["payload"]))
    # Beside GAPS: which note stands at which of its packets, and what it says.
    due = {(2, "lost"): "2", (3, "late"): "1", (4, "doubled_note"): "1", (5, "restart_note"): "1"}
    for index, frame in enumerate(packets[-len(GAPS):]):
        compare(frame, {f"qz640rtp.{note}": [due[index, note]] if (index, note) in due else []
                        for note in NOTES})


def main():
    if not shutil.which("tshark"):
        print("skipped: no tshark")
        return 77
    with tempfile.TemporaryDirectory() as folder:
        file = pathlib.Path(folder) / "exchange.pcapng"
        capture(file, sys.argv[1])
        frames = read(file)
    shown = {name: [f for f in frames if f["_ws.col.Protocol"] == [name]]
             for name in ("QZ640", "QZ640-RTP")}
    check_sequences(check_messages(shown["QZ640"]))
    check_streams(shown["QZ640-RTP"])
    for frame in frames:
        compare(frame, {"_ws.lua.error": []})
    # Three datagrams of the page look like nothing known but for their port, here another one.
    others = [f for f in frames if f["_ws.col.Protocol"] not in (["QZ640"], ["QZ640-RTP"])
              and not f["payload"].startswith(b"mark of")]
    for frame in others:
        wrong.append(f"frame {frame['number']} isn't recognised: {frame['payload'][:60]}")
    print("\n".join(wrong[:20]))
    print(f"{len(shown['QZ640'])} messages, {len(shown['QZ640-RTP'])} packets, {len(wrong)} differences")
    return 1 if wrong else 0


sys.exit(main())
