#!/usr/bin/env python3
"""A whole controller in 60 lines, with nothing but sockets and JSON: routes an input of each unit.

controller.py 255.255.255.255:15001 0 192.168.1.5:9000   (discovery, input, destination)
"""

import json
import random
import socket
import sys
import time

link = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
link.setsockopt(socket.SOL_SOCKET, socket.SO_BROADCAST, 1)
number = random.randrange(1 << 31)  # not 1: units drop what bears the number of their last message
latest = {}  # the number of each unit's last message


# One datagram: the JSON text with UTF-8 as it is, and one byte 0.
def transmit(to, message):
    link.sendto(json.dumps(message, ensure_ascii=False).encode() + b"\0", to)


def receive(seconds):
    """The next message and its sender, acknowledged; (None, None) if none comes or it is a repeat."""
    link.settimeout(seconds)
    try:
        datagram, sender = link.recvfrom(65536)
    except socket.timeout:
        return None, None
    message = json.loads(datagram[:datagram.index(0)])
    if message["msg"] != "ack":
        transmit(sender, {"msg": "ack", "msg_id": 0, "ack_msg_id": message["msg_id"]})
        if latest.get(sender) == message["msg_id"]:
            return None, None
        latest[sender] = message["msg_id"]
    return message, sender


def request(unit, answer, **message):
    """Sends five times 50 ms, waits 2 s more. Gives the message called `answer`; "ack" is one too."""
    global number
    number += 1
    acknowledged = False
    for attempt in range(45):
        if not acknowledged and attempt < 5:
            transmit(unit, dict(message, msg_id=number))
        again = time.monotonic() + 0.05
        while time.monotonic() < again:
            got, sender = receive(max(0.001, again - time.monotonic()))
            if got and got["msg"] == "ack" and got["ack_msg_id"] != number:
                continue  # of an earlier request
            acknowledged = acknowledged or bool(got and got["msg"] == "ack")
            if got and got["msg"] == answer and sender == unit:
                return got
    raise SystemExit(f"{unit} has no {answer} for {message}")


host, port = sys.argv[1].split(":")
transmit((host, int(port)), {"msg": "dev_find", "msg_id": number})
units = {}
end = time.monotonic() + 0.5
while time.monotonic() < end:
    message, sender = receive(max(0.001, end - time.monotonic()))
    if message and message["msg"] == "dev_info":
        units[sender] = message
for unit, info in units.items():
    inputs = [""] * info["inputs"]
    if int(sys.argv[2]) < len(inputs):
        inputs[int(sys.argv[2])] = sys.argv[3]
        request(unit, "ack", msg="set_inputs", inputs=inputs)
    now = request(unit, "inputs", msg="get_inputs").get("inputs", [])
    print(f"{info['unit_id']!r} at {unit[0]}:{unit[1]} sends to {now}")
