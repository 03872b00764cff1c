"""A Robot driven from Python against the bundled simulator, end to end:
connect, initialise, set parameters, travel a path, read the reports, kill.
TARN_SIM names the simulator program; it listens on 127.0.0.1:6868."""

import os
import subprocess
import time

import pytest

import tarnsdk as t

LISTEN_ENTRY = "0100007F:1AD4"  # 127.0.0.1:6868 as /proc/net/tcp writes it


def listening():
    with open("/proc/net/tcp") as f:
        return any(line.split()[1] == LISTEN_ENTRY and line.split()[3] == "0A" for line in list(f)[1:])


@pytest.fixture
def sim():
    assert not listening(), "port 6868 is already taken"
    proc = subprocess.Popen([os.environ["TARN_SIM"], "--quiet", "--rate", "20"], stdout=subprocess.DEVNULL)
    try:
        deadline = time.monotonic() + 10
        # Watching the socket table instead of probing with a connection keeps
        # the simulator's single client slot free for the robot.
        while not listening():
            assert proc.poll() is None, "simulator exited with %s" % proc.returncode
            assert time.monotonic() < deadline, "simulator did not start listening"
            time.sleep(0.02)
        yield proc
    finally:
        proc.terminate()
        try:
            proc.wait(timeout=5)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()


def run_until(robot, condition, timeout=10.0):
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline, "timed out; last status:\n" + robot.DebugString()
        robot.Handle()
        time.sleep(0.01)


def test_robot_session_against_the_simulator(sim):
    robot = t.Robot()
    assert robot.connected
    robot.Init(1500, 2500, 0)
    run_until(robot, lambda: robot.online)
    assert robot.SetVelocity(1300) and robot.SetAcceleration(1000)
    # The reports soon carry the pose the robot was initialised at (one sent
    # before the initialisation was handled may still show the old pose).
    run_until(robot, lambda: (robot.x, robot.y) == (pytest.approx(1.5), pytest.approx(2.5)))
    assert (robot.name, robot.state) == ("R-0", -1) and robot.voltage > 0

    assert robot.SetPosition([(2000, 2500, 0), (2000, 3000, 0)])
    run_until(robot, lambda: robot.state == 0)
    assert robot.SetPosition(0, 0, 0) is False  # busy while travelling
    run_until(robot, lambda: robot.state == -1)
    assert (robot.x, robot.y) == (pytest.approx(2.0, abs=1e-3), pytest.approx(3.0, abs=1e-3))
    assert robot.DebugString().startswith("R-0 Free Online\nPosition(X,Y,Z,Orientation):2 3 0 ")

    robot.Kill()
    assert robot.online is False
    assert robot.SetPosition(2500, 3000, 0) is False  # offline
    end = time.monotonic() + 0.3
    while time.monotonic() < end:  # the server's acknowledgement keeps it offline
        robot.Handle()
        time.sleep(0.01)
    assert robot.connected and not robot.online
    assert robot.DebugString().split("\n")[0] == "R-0 Free Offline"
