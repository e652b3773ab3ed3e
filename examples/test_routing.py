"""How a controller is tested: start units, run the controller, look at what the units do now.

    pytest -p qz640 examples            (with python/ of this repository in PYTHONPATH)
"""

import pathlib
import subprocess
import sys

CONTROLLER = pathlib.Path(__file__).with_name("controller.py")


def run_controller(discovery, *arguments):
    return subprocess.run([sys.executable, CONTROLLER, "%s:%d" % discovery, *arguments],
                          check=True, capture_output=True, text=True).stdout


def test_routes_input_2_of_every_unit_that_has_one(qz640):
    net = qz640.up("2xQZ820,QZ610")
    said = run_controller(net.discovery, "2", "127.0.0.1:9000")

    for unit in net[0], net[1]:
        assert unit.inputs[2].destination == ("127.0.0.1", 9000)
        assert unit.inputs[1].destination is None
    assert net[2].inputs[0].destination is None
    assert all(name in said for name in ("emu-1", "emu-2", "emu-3"))
    assert net[0].inputs[2].hear(0.2).peak_db > -20
    assert net[0].inputs[2].destination == ("127.0.0.1", 9000)
