"""docs/schema against what the program writes and refuses.

The messages are those of docs/protocol.md, each of which page_test.py asks of the program.
"""

import json
import os
import pathlib
import re
import shutil
import subprocess

import jsonschema
import pytest

DOCS = pathlib.Path(__file__).parents[2] / "docs"
PAGE = (DOCS / "protocol.md").read_text(encoding="utf-8")

# A schema sees values, not how they are written: these refusals are none of its business.
WRITING = ("19.0", "1e1", r"\u00fc", ",}", "} and more")
# Taken by a unit, but not what a sender means.
ODD = ("localhost:9000", ",7]")


def validator(name):
    schema = json.loads((DOCS / "schema" / name).read_text(encoding="utf-8"))
    jsonschema.Draft202012Validator.check_schema(schema)
    return jsonschema.Draft202012Validator(schema)


def examples():
    """All messages on the page as (text, whether the program takes or writes them)."""
    lines = [line.strip() for line in PAGE.splitlines()]
    for line, after in zip(lines, lines[1:]):
        text = re.search(r"^(?:->|<-) .*?(\{.*\})(?=.* 00)", line)
        # That nothing comes twice is no refusal.
        if text and not any(part in text.group() for part in WRITING):
            refused = after == "<- nothing" and "->" in line
            yield text.group(1), not refused and not any(part in line for part in ODD)


def test_messages_of_the_page():
    check = validator("messages.json")
    wrong = [text for text, good in examples() if check.is_valid(json.loads(text)) != good]
    assert wrong == []
    assert sum(not good for _, good in examples()) >= 10


def test_required_keys_and_types_are_those_of_the_page():
    """The table of the page and the schema list the same keys, types and required ones."""
    schema = validator("messages.json").schema
    rows = re.findall(r"^\| `(\w+)` \| ([^|]*)\| (?:both|discovery port|unit|controller) \|", PAGE,
                      re.M)
    assert [name for name, _ in rows] == schema["properties"]["msg"]["enum"]
    for name, keys in rows:
        fields = re.findall(r"`(\w+)` ((?:list of )?\w+)(, optional)?", keys)
        body = schema["$defs"].get(name, {"properties": {}})
        properties = {key: value for key, value in body["properties"].items() if key != "msg"}
        assert sorted(properties) == sorted(key for key, _, _ in fields), name
        assert sorted(body.get("required", [])) == sorted(
            key for key, _, optional in fields if not optional), name
        for key, kind, _ in fields:
            assert kind == type_of(properties[key], name), (name, key)


def type_of(value, name):
    reference = value.get("$ref", "").rpartition("/")[2]
    if "enum" in value:
        return "unsigned"
    if reference == "tuners":
        return "list of signed"
    return reference or {"string": "text", "array": "list of text"}[value["type"]]


def run(tmp_path, text):
    """Starts the emulator on a settings file, lets it end at once, gives its output and the file."""
    program = tmp_path / "qz640emu"
    shutil.copy(os.environ["QZ640EMU"], program)
    settings = tmp_path / "qz640emu.json"
    settings.write_text(text, encoding="utf-8")
    output = subprocess.run([program], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                            timeout=30, check=True, env={"TMPDIR": str(tmp_path)}).stdout
    return output, settings.read_text(encoding="utf-8")


def test_settings_that_the_program_writes(tmp_path):
    check = validator("settings.json")
    text = '{"units":[{}, {"UnitType":"QZ820","UnitId":"Küche","Mode":3,"Speed":2,"SampleFreq":44100}]}'
    assert check.is_valid({}) and check.is_valid(json.loads(text))
    output, written = run(tmp_path, text)
    assert " Start OK" in output
    assert check.is_valid(json.loads(written)), written
    assert all(key in written for key in check.schema["properties"])


@pytest.mark.parametrize("text", [
    "[]",
    '{"AddrStr":5}',
    '{"BroadcastPort":4294967296}',
    '{"units":{}}',
    '{"units":[{"UnitType":null}]}',
    '{"units":[{"Mode":1.5}]}',
    '{"units":[{"Speed":"2"}]}',
    '{"units":[{"SampleFreq":96000}]}',
])
def test_settings_that_the_program_refuses(tmp_path, text):
    assert not validator("settings.json").is_valid(json.loads(text))
    output, written = run(tmp_path, text)
    refused = written == text and "is left as it is" in output
    assert refused or " Init FAILED. ERR=" in output
