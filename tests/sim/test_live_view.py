# The live view in headless Chromium while the library drives tarn-sim along
# a path: the marker follows the path, passed way-points change style, the panel
# agrees with /state, and pausing stops the clock. Leaves live-view.png in the
# working directory (the build tree).

import json, os, subprocess, tempfile, time, urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

import tarnsdk as t

# The last way-point off both axes, so that the marker meeting it checks both.
PATH = [(2000, 0, 0), (2000, 1500, 0), (1000, 1500, 0)]


def until(what, condition, timeout=20.0, robot=None):
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline, "timed out waiting for " + what
        robot and robot.Handle() or time.sleep(0.01)


def test_live_view_follows_the_robot():
    sim = subprocess.Popen([os.environ["TARN_SIM"], "--quiet", "--rate", "20", "--http-port", "0"],
                           stdout=subprocess.PIPE, text=True)
    options = webdriver.ChromeOptions()
    options.binary_location = os.environ["CHROMIUM"]
    for flag in ("headless no-sandbox disable-gpu no-first-run disable-sync disable-background-networking "
                 "disable-component-update disable-quic window-size=1280,800 user-data-dir=" +
                 tempfile.mkdtemp(prefix="tarn-chromium-")).split():
        options.add_argument("--" + flag)
    try:
        url = next(line for line in sim.stdout if line.startswith("live view: ")).split()[2]
        state = lambda: json.load(urllib.request.urlopen(url + "state", timeout=5))
        with webdriver.Chrome(service=Service(os.environ["CHROMEDRIVER"]), options=options) as browser:
            robot = t.Robot()
            robot.Init(0, 0, 0)
            until("online", lambda: robot.online, robot=robot)
            assert robot.SetVelocity(1000) and robot.SetPosition(PATH)  # sent by the next Handle()
            browser.get(url)
            js = browser.execute_script
            passed = "return !!document.querySelector('.waypoint.passed[data-code=\"0\"]')"
            until("way-point 0 passed", lambda: js(passed), robot=robot)
            style = lambda code: js("return getComputedStyle(document.querySelector("
                                    "'.waypoint[data-code=\"' + arguments[0] + '\"] circle')).fill", code)
            assert style("0") != style("2")
            assert js("return document.querySelector('.waypoint.target').dataset.code") == "1"

            browser.find_element("id", "pause").click()
            until("the pause", lambda: state()["paused"], robot=robot)
            frozen = state()
            time.sleep(0.5)
            assert state()["time"] == frozen["time"] and state()["x"] == frozen["x"]
            until("the panel to settle", lambda: browser.find_element("id", "paused-tag").is_displayed())
            text = lambda id: browser.find_element("id", id).text
            assert [text(id) for id in ("state", "online", "voltage", "velocity", "sim-time")] == [
                "working", "online", "%.2f" % frozen["voltage"], "%.1f" % frozen["velocity"], "%.1f" % frozen["time"]]
            browser.find_element("id", "pause").click()

            # Screen distance from the marker to the last way-point (the map follows the robot).
            gap = """const [a, b] = ['#robot', '.waypoint[data-code="2"] circle'].map(
                (q) => document.querySelector(q).getBoundingClientRect());
                return Math.hypot(a.x + a.width / 2 - b.x - b.width / 2, a.y + a.height / 2 - b.y - b.height / 2);"""
            until("the end of the path with the marker on way-point 2",
                  lambda: robot.state == -1 and state()["target"] == -1 and js(gap) < 2, robot=robot)
            browser.save_screenshot("live-view.png")
    finally:
        sim.terminate()
        sim.wait(timeout=10)
