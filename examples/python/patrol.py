#!/usr/bin/env python3
"""Bring the robot online, drive a short path, tell whether it arrived, and
leave it stopped and offline. Run with the module on the path:
    PYTHONPATH=build/dev/python /usr/bin/python3 examples/python/patrol.py
Exit status 0 when the path was driven, 1 otherwise."""
import sys
import time

import tarnsdk

FREE, WORKING = -1, 0
# tarn-sim's error codes (the task state while refusing)
ERRORS = {2: "not online", 3: "busy", 4: "unsupported action", 5: "bad parameter"}


def serve(robot, done, seconds):
    """Calls Handle() until done() holds; False on timeout or a lost connection.
    The module does not expose the socket, so this loop naps briefly instead
    of sleeping in poll() as the C++ examples do."""
    end = time.monotonic() + seconds
    while not done():
        if not robot.connected or time.monotonic() > end:
            return False
        robot.Handle()
        time.sleep(0.01)
    return True


robot = tarnsdk.Robot()  # connects to the compiled-in server, port 6868
if not robot.connected:
    sys.exit("cannot reach the control server")
robot.Init(0, 0, 0)  # x, y in millimetres
if not serve(robot, lambda: robot.online, 5):
    sys.exit("the robot did not come online")
robot.SetVelocity(800)  # the protocol has no answer to it

# Accepted is not arrived: True only means queued. The robot reports working,
# and once it is free again (or in error) the path has ended.
ok = robot.SetPosition([(500, 0, 0), (500, 500, 0)])
ok = ok and serve(robot, lambda: robot.state != FREE, 5)
ok = ok and serve(robot, lambda: robot.state != WORKING, 30) and robot.state == FREE
print(robot)
if not ok:
    print("path not driven:", ERRORS.get(robot.state, "state %d" % robot.state), file=sys.stderr)

# Stop and take the robot offline; give the kill time to go out and be
# acknowledged before the connection closes with the process.
robot.Kill()
serve(robot, lambda: False, 0.3)
sys.exit(0 if ok else 1)
