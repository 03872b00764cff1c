#!/usr/bin/env python3
"""Bring the robot online, drive a short path, tell whether it arrived, and
leave it stopped and offline, all within one bound. Run with the module on
the path:
    PYTHONPATH=build/dev/python /usr/bin/python3 examples/python/patrol.py [TIMEOUT]
TIMEOUT (seconds, default 30; the drive takes about 6 s against tarn-sim)
bounds the whole run, connecting included. Exit status, as for tarn: 0 the
path was driven, 3 server unreachable, 4 no answer in time, 5 refused,
6 connection lost, 7 unreadable data."""
import sys
import time

import tarnsdk as t

timeout = float(sys.argv[1]) if len(sys.argv) > 1 else 30
deadline = time.monotonic() + timeout


def left():
    return max(0.0, deadline - time.monotonic())


def stop(status, text):
    print("patrol: " + text, file=sys.stderr)
    sys.exit(status)


def failed(what, events):
    if events.lost:
        stop(6, what + ": connection lost")
    if events.unreadable:
        stop(7, what + ": unreadable data")
    stop(4, "%s: no answer within %g s" % (what, timeout))


def answer(events, accept):
    """The first event `accept` takes, or None when the run's time is up or
    the connection is over."""
    for e in events.serve(timeout=left()):
        if accept(e):
            return e
    return None


robot = t.connect(timeout=left())  # the compiled-in server, port 6868
if not robot.connected:
    if left() == 0:
        stop(4, "could not connect to the control server within %g s" % timeout)
    stop(3, "cannot reach the control server")
events = t.Events(robot)  # serves the connection instead of robot.Handle()

robot.Init(0, 0, 0)  # x, y in millimetres
if not answer(events, lambda e: e.type == t.EventType.InitAcknowledged):
    failed("init", events)
robot.SetVelocity(800)  # the protocol has no answer to it

# Accepted is not arrived: True only means queued. Arrived is the action
# finished and then a report of a free robot; refused is a report carrying
# the server's error code.
if not t.set_path(robot, [(500, 0, 0), (500, 500, 0)]):
    stop(5, "the robot is not online and free")
finished = False
for e in events.serve(timeout=left()):
    if e.type == t.EventType.WaypointPassed:
        print("way-point %d of %d passed" % (e.passed, e.total))
    finished = finished or e.type == t.EventType.ActionFinished
    if e.type == t.EventType.Refused:
        stop(5, "refused: " + t.describe_state(e.code))
    if finished and e.type == t.EventType.Report and e.report.state == t.STATE_FREE:
        print("arrived at %g %g mm" % (e.report.x * 1000, e.report.y * 1000))
        break
else:
    failed("path", events)

# Stop and take the robot offline, then leave without losing the kill.
robot.Kill()
if not answer(events, lambda e: e.type == t.EventType.KillAcknowledged):
    failed("kill", events)
events.hang_up(timeout=min(1.0, left()))
