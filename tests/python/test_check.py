"""The reports of "qz640ctl check", on a real unit and on one that hardly answers and bears a name
that was made for a browser."""

import html.parser
import json
import os
import socket
import subprocess
import threading
import xml.etree.ElementTree

import pytest

NAME = "<script>alert('&\"]]>')</script>\u202e\uffff"


@pytest.fixture
def poor_unit():
    """Says who it is and acknowledges nothing."""
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.bind(("127.0.0.1", 0))
    info = {"msg": "dev_info", "unit_id": NAME, "unit_type": "<b>", "rtp_port": 9, "inputs": 1,
            "outputs": 0, "hardware": 1, "firmware": 1, "software": 1, "audio_protocol": 1,
            "control_protocol": 1}

    def serve():
        number = 0
        while True:
            datagram, sender = sock.recvfrom(2000)
            if not datagram:
                return
            number += 1
            if json.loads(datagram[:datagram.index(0)])["msg"] in ("dev_find", "get_dev_info"):
                text = json.dumps(dict(info, msg_id=number), ensure_ascii=False)
                sock.sendto(text.encode() + b"\0", sender)

    thread = threading.Thread(target=serve)
    thread.start()
    yield "%s:%d" % sock.getsockname()
    sock.sendto(b"", sock.getsockname())
    thread.join()
    sock.close()


class Page(html.parser.HTMLParser):
    """What of a page a browser would run or fetch, and its text."""

    def __init__(self, text):
        super().__init__()
        self.tags, self.links, self.text = set(), [], ""
        self.feed(text)

    def handle_starttag(self, tag, attrs):
        self.tags.add(tag)
        self.links += [value for name, value in attrs
                       if name in ("src", "href", "xlink:href", "srcset", "data", "action")]
        assert not [name for name, _ in attrs if name.startswith("on")]

    def handle_data(self, data):
        self.text += data


def test_reports_say_the_same_and_keep_names_as_text(qz640, poor_unit, tmp_path):
    net = qz640.up("QZ610")
    junit, page = tmp_path / "check.xml", tmp_path / "check.html"
    run = subprocess.run(
        [os.environ["QZ640CTL"], "check", "--all", "discovery", "streams", "--repeat", "2",
         "--junit", junit, "--html", page, "--json", "--timeout", "500",
         "--to", "%s:%d" % net.discovery, "--to", poor_unit],
        stdout=subprocess.PIPE, timeout=100, check=False)
    lines = [json.loads(line) for line in run.stdout.splitlines()]
    checks = [line for line in lines if "check" in line and "result" in line]
    assert {line["unit_id"] for line in checks} == {NAME, "emu-1"}
    found = [line for line in checks if line["check"] == "discovery"]
    assert sorted(line["round"] for line in found) == [1, 1, 2, 2]
    jitter = [line["figures"]["jitter"] for line in checks if line["check"] == "input 0 jitter"]
    assert [figure["unit"] for figure in jitter] == ["ms", "ms"]
    spread, = [line for line in lines if line.get("spread") == "jitter"]
    assert [spread["least"], spread["most"]] == sorted(figure["value"] for figure in jitter)
    assert (lines[-1]["units"], lines[-1]["rounds"]) == (2, 2)
    assert lines[-1]["checks"] == len(checks)

    cases = xml.etree.ElementTree.parse(junit).getroot().findall("testsuite/testcase")
    assert len(cases) == len(checks)
    skipped = [case for case in cases if case.find("skipped") is not None]
    assert len(skipped) == lines[-1]["could-not-test"] > 0
    assert run.returncode == int(any(case.find("failure") is not None for case in cases))
    assert any("<script>" in case.get("classname") for case in cases)

    read = Page(page.read_text(encoding="utf-8"))
    assert not read.tags & {"script", "iframe", "object", "embed", "img", "link", "base", "form"}
    assert all(link.startswith("#") for link in read.links)
    assert "url(" not in read.text and "@import" not in read.text
    assert "<script>alert('&\"]]>')</script>\\u202E" in read.text
    assert {"svg", "table"} <= read.tags


def test_a_unit_that_is_not_there_is_an_error_in_the_report(tmp_path):
    junit = tmp_path / "check.xml"
    run = subprocess.run([os.environ["QZ640CTL"], "check", "127.0.0.1:9", "--timeout", "100",
                          "--junit", junit], stderr=subprocess.PIPE, timeout=60, check=False)
    assert run.returncode == 3
    error, = xml.etree.ElementTree.parse(junit).getroot().findall("testsuite/testcase/error")
    assert "127.0.0.1:9" in error.get("message")
