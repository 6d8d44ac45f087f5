"""The collector's page in a real browser: headless Chromium, driven through Selenium.

A small server of the test's own serves page.html and a status.json for each case. Screenshots go to
the folder `browser` of the build, one for each state, width and colour scheme.
"""

import base64
import copy
import http.server
import json
import os
import re
import shutil
import sys
import threading
import unittest

sys.path.insert(0, os.path.join(os.environ["ZMQWRITER_SOURCE_DIR"], "tests", "system"))
from cli_support import (BUILD_DIR, SOURCE_DIR, CliTest, make_event, needs_zmq, read_file,
                         wait_for)

try:
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service
except ImportError:
    webdriver = None
CHROMIUM, DRIVER = shutil.which("chromium"), shutil.which("chromedriver")
PICTURES = os.path.join(BUILD_DIR, "browser")
NOW = 1763783600.5
# Agents choose their names. None may become an element, run, or turn its neighbours around.
HOSTILE = ["<script>window.broken = 1</script>", "<img src=x onerror='window.broken = 1'>",
           "</td></table><b id=made>\"'>&amp;&lt;", "\u202egnp.rosnes\u202c", "\u200f", "", "__proto__",
           "constructor", "javascript:window.broken = 1", "x" * 5000, "long " * 40, "a\nb\0c\x1b[31m"]


def agent(name, age=4.0, events=41000):
    return {"name": name, "last_event": NOW - age, "events": events, "bytes": events * 300,
            "events_per_s": 0.0 if age > 180 else events / 3600, "bytes_per_s": events / 12,
            "minutes": [0 if age > 60 * (60 - at) else (at * 7 + len(name)) % 19 for at in range(60)]}


def status(*agents, **changes):
    """What a collector of these agents says when all is well, with some values replaced by path."""
    value = {
        "version": "0.1.0", "started": NOW - 90000, "now": NOW, "endpoints": ["tcp://0.0.0.0:5555"],
        "output": {"path": "/var/spool/zmqwriter/events.json", "format": "json", "stalled": False,
                   "bytes": 123456789012, "files_finished": 41, "disk_free": 2.5e12},
        "stream": None,
        "memory": {"used": 51000000, "limit": 1 << 30, "connections_ended": 0},
        "totals": {"events": 41234567, "bytes": 9876543210, "events_per_s": 477.25,
                   "bytes_per_s": 114312.4},
        "types": [{"name": "HttpData", "events": 31234567, "bytes": 9000000000},
                  {"name": "SystemStatsData", "events": 12, "bytes": 2400}],
        "bad_messages": {"empty": 0, "malformed": 0, "multi_part": 0},
        "connections": {"open": len(agents), "failed_handshakes": {
            "other_key": 0, "no_curve": 0, "protocol": 0, "timed_out": 0,
            "too_many": 0}},
        "agents": list(agents), "other_agents": {"events": 0, "bytes": 0}}
    for path, new in changes.items():
        *above, last = path.split("__")
        place = value
        for name in above:
            place = place[name]
        place[last] = new
    return value


def stream(**changes):
    """What a collector says of a stream that takes events."""
    return {"trouble": None, "acknowledged": 41234567, "stored_before": 2, "repeated": 71, "too_large": 0,
            "window": {"events": 12, "bytes": 4800}, "oldest_s": 0.2, "stalled_s": 3.5,
            "reconnections": 1, "servers": [{"url": "nats://10.1.1.%d:4222" % at, "connected": at == 2}
                                            for at in (1, 2, 3)], **changes}


NOBODY = status()
THREE = status(agent("sensor-10"), agent("sensor-7", age=200), agent("sensor-2", events=12),
               bad_messages__empty=3, connections__failed_handshakes__other_key=16)
THOUSAND = status(*[agent("sensor-%d" % at, age=4 if at % 40 else 181 + 60 * at, events=at * 977)
                    for at in range(1000 - len(HOSTILE))], *[agent(name) for name in HOSTILE],
                  other_agents__events=123)
STREAMS = status(agent("sensor-1"), output=None, stream=stream())
ALL_WRONG = status(agent("a", age=400000), output__stalled=True, output__disk_free=5e8,
                   memory__connections_ended=1, stream=stream(trouble="no_quorum", too_large=1),
                   bad_messages__multi_part=1, connections__failed_handshakes={
                       "other_key": 1, "no_curve": 2, "protocol": 3, "timed_out": 4,
                       "too_many": 5})


class Handler(http.server.BaseHTTPRequestHandler):
    def do_GET(self):
        name = self.path.removeprefix("/behind/a/path/")
        if name == "":
            kind, body = "text/html; charset=utf-8", read_file(self.server.page).encode()
        elif name == "status.json":
            kind, body = "application/json", json.dumps(self.server.status).encode()
        else:
            return self.send_error(404)
        self.send_response(200)
        self.send_header("Content-Type", kind)
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


@unittest.skipUnless(webdriver and CHROMIUM and DRIVER,
                     "needs chromium, chromium-driver and python3-selenium (setup/packages browser)")
class PageTest(CliTest):
    def setUp(self):
        super().setUp()
        os.makedirs(PICTURES, exist_ok=True)
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.server.page = os.path.join(SOURCE_DIR, "tools", "collect", "page.html")
        self.site = "http://127.0.0.1:%d/" % self.server.server_port
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        self.addCleanup(self.server.server_close)
        self.addCleanup(self.server.shutdown)
        options = webdriver.ChromeOptions()
        options.binary_location = CHROMIUM
        for argument in ("--headless=new", "--no-sandbox", "--disable-dev-shm-usage", "--disable-gpu",
                         "--disable-background-networking", "--force-device-scale-factor=1"):
            options.add_argument(argument)
        options.set_capability("goog:loggingPrefs", {"performance": "ALL", "browser": "ALL"})
        self.browser = webdriver.Chrome(service=Service(DRIVER), options=options)
        self.addCleanup(self.browser.quit)
        self.browser.set_script_timeout(60)
        self.run_script = self.browser.execute_script

    def look_like(self, width, scheme, scripts=True):
        cdp = self.browser.execute_cdp_cmd
        cdp("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": 740, "deviceScaleFactor": 1, "mobile": width < 600})
        cdp("Emulation.setEmulatedMedia",
            {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
        cdp("Emulation.setScriptExecutionDisabled", {"value": not scripts})

    def open(self, value):
        self.server.status = value
        self.browser.get(self.site + "behind/a/path/")
        wait_for(self.verdict, "the sentence on top")

    def verdict(self):
        return self.text("#verdict")

    def text(self, selector):
        return self.run_script("return document.querySelector(arguments[0]).innerText", selector)

    def names(self):
        return self.run_script(
            "return [...document.querySelectorAll('#agents tbody th')].map((cell) => cell.textContent)")

    def picture(self, name):
        height = min(self.run_script("return document.documentElement.scrollHeight"), 3000)
        width = self.run_script("return document.documentElement.clientWidth")
        data = self.browser.execute_cdp_cmd("Page.captureScreenshot", {
            "captureBeyondViewport": True,
            "clip": {"x": 0, "y": 0, "width": width, "height": height, "scale": 1}})["data"]
        with open(os.path.join(PICTURES, name + ".png"), "wb") as file:
            file.write(base64.b64decode(data))

    def test_sentence_on_top_says_what_needs_a_look(self):
        fine = agent("a"), agent("b")
        for value, wanted in [
                (NOBODY, "No agent has sent an event yet; nothing else needs a look."),
                (status(agent("a")), "All is well: the one agent is sending."),
                (status(*fine), "All is well: all 2 agents are sending."),
                (status(agent("a", age=180.0)), "All is well: the one agent is sending."),
                (status(agent("a", age=180.6)), "Needs a look: 1 of 1 agents is silent."),
                (status(*fine, output__path=None, output__disk_free=None),
                 "All is well: all 2 agents are sending."),
                (STREAMS, "All is well: the one agent is sending."),
                (THREE, "Needs a look: 1 of 3 agents is silent; bad messages (empty);"
                        " failed handshakes (other key)."),
                (ALL_WRONG, "Needs a look: the output takes no events; the stream takes no"
                            " events (no quorum); events too large for the stream were dropped; less than 1 GB is free on the"
                            " disk of the output; 1 of 1 agents is silent; bad messages (multi part);"
                            " failed handshakes (other key, no curve, protocol, timed out, too"
                            " many); connections were ended that filled the memory.")]:
            self.open(value)
            self.assertEqual(self.verdict(), wanted)
            self.assertEqual(self.browser.title.startswith("Needs a look"),
                             wanted.startswith("Needs a look"))
        self.assertIn("stalled", self.text("#output"))
        self.assertIn("no quorum. Too few servers", self.text("#stream"))
        self.assertIn("10.1.1.1:4222, 10.1.1.2:4222 (connected)", self.text("#stream"))
        self.assertIn("64 upper-case hexadecimal digits", self.text("#failed"))
        self.assertEqual(self.text("#agents tbody td:nth-child(2)"), "silent for 4 days")

    def test_silent_agents_come_first_the_longest_silent_before_the_others(self):
        value = status(agent("sensor-10"), agent("c", age=200), agent("sensor-9"), agent("d", age=9000),
                       agent("b", age=180))
        self.open(value)
        self.assertEqual(self.names(), ["d", "c", "b", "sensor-9", "sensor-10"])
        self.assertEqual(self.run_script("return [...document.querySelectorAll("
                                         "'#agents tbody td:nth-child(2)')].map((c) => c.innerText)"),
                         ["silent for 2 h 30 min", "silent for 3 min"] + ["sending"] * 3)
        # An agent falls silent, and another is gone: the page follows by itself.
        changed = copy.deepcopy(value)
        changed["now"] += 60
        del changed["agents"][0]
        self.server.status = changed
        wait_for(lambda: self.names() == ["d", "c", "b", "sensor-9"] and "3 of 4 agents are silent" in
                 self.verdict(), "the next status")

    def test_counters_that_grow_are_told_from_those_of_the_past(self):
        self.open(THREE)
        self.assertNotIn("while you watch", self.text("main"))
        changed = copy.deepcopy(THREE)
        changed["connections"]["failed_handshakes"]["other_key"] += 2
        self.server.status = changed
        wait_for(lambda: "18, 2 while you watch" in self.text("#failed"), "the counter")
        self.assertNotIn("while you watch", self.text("#bad"))

    def test_hostile_names_stay_text(self):
        value = status(*[agent(name) for name in HOSTILE])
        value["types"] = [{"name": name, "events": 1, "bytes": 1} for name in HOSTILE]
        value["output"]["path"], value["endpoints"] = HOSTILE[1], HOSTILE[:3]
        self.open(value)
        self.assertEqual(self.run_script("return window.broken"), None)
        self.assertEqual(self.run_script("return [...document.querySelectorAll("
                                         "'img, b, #made, script, iframe')].map((e) => e.tagName)"),
                         ["SCRIPT"])
        names = self.names()
        self.assertEqual(len(names), len(HOSTILE))
        for shown in HOSTILE[:3] + ["\\u{202e}gnp.rosnes\\u{202c}", "\\u{200f}", "(no name)", "__proto__",
                                    "a\\u{a}b\\u{0}c\\u{1b}[31m"]:
            self.assertIn(shown, names)
        self.assertLess(max(map(len, names)), 110)
        for width in (1280, 360):
            self.look_like(width, "light")
            self.assert_fits()

    def assert_fits(self):
        wide, widest = self.run_script("return [document.documentElement.scrollWidth, innerWidth]")
        self.assertLessEqual(wide, widest)
        # Nothing is cut off or covered inside a box that does not scroll either.
        self.assertEqual(self.run_script("""
            return [...document.querySelectorAll("main th, main td, p")].filter((e) => {
              const box = e.getBoundingClientRect(), hidden = e.closest("thead, [hidden]");
              return !hidden && box.width && (box.right > innerWidth || e.scrollWidth > e.clientWidth + 1);
            }).map((e) => e.outerHTML.slice(0, 200))"""), [])

    def test_every_text_has_contrast_and_the_page_fits_each_screen(self):
        for name, value in [("0-agents", NOBODY), ("3-agents", THREE), ("1000-agents", THOUSAND),
                            ("stream", STREAMS), ("all-wrong", ALL_WRONG)]:
            for width in (1280, 360):
                for scheme in ("light", "dark"):
                    with self.subTest(state=name, width=width, scheme=scheme):
                        self.look_like(width, scheme)
                        self.open(value)
                        self.picture("%s-%d-%s" % (name, width, scheme))
                        self.assert_fits()
                        back = self.run_script(
                            "return getComputedStyle(document.body).backgroundColor")
                        dark = int(re.search(r"\d+", back).group()) < 100
                        self.assertEqual(dark, scheme == "dark", back)
                        self.assertEqual(self.pale_texts(), [])

    def pale_texts(self):
        """Texts with less contrast than 4.5 to 1, and lines with less than 3 to 1."""
        return self.run_script("""
            const channels = (color) => color.match(/[\\d.]+/g).map(Number);
            const luminance = (color) => channels(color).slice(0, 3).map((c) => c / 255)
                .map((c) => c <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4)
                .reduce((all, c, at) => all + c * [0.2126, 0.7152, 0.0722][at], 0);
            const back = (e) => { const color = getComputedStyle(e).backgroundColor;
                return channels(color)[3] === 0 ? back(e.parentElement) : color; };
            const contrast = (e, color) => {
              const [low, high] = [luminance(color), luminance(back(e))].sort((a, b) => a - b);
              return (high + 0.05) / (low + 0.05);
            };
            const texts = [...document.querySelectorAll("body *")].filter((e) => e.checkVisibility() &&
                [...e.childNodes].some((n) => n.nodeType === Node.TEXT_NODE && n.data.trim()));
            if (texts.length < 10) return ["too few texts were found"];
            return [...texts.map((e) => [e, contrast(e, getComputedStyle(e).color), 4.5]),
                ...[...document.querySelectorAll("svg")].map((e) => [e, contrast(e, getComputedStyle(e).stroke), 3]),
              ].filter(([, got, least]) => !(got >= least)).map(([e, got]) => e.outerHTML.slice(0, 99) + got);
            """)

    def test_thousand_agents_do_not_freeze_the_page_and_can_be_filtered(self):
        self.look_like(1280, "light")
        self.open(THOUSAND)
        self.assertEqual(len(self.names()), 1000)
        self.assertIn("123 further events", self.text("#others"))
        changed = copy.deepcopy(THOUSAND)
        for one in changed["agents"]:
            one["events"] += 7
            one["minutes"] = one["minutes"][1:] + [23]
        changed["now"] += 1
        # The longest time without a turn for anything else, while the next status is shown.
        self.run_script("""
            window.longest = 0;
            let last = performance.now();
            setInterval(() => {
              const now = performance.now();
              window.longest = Math.max(window.longest, now - last);
              last = now;
            }, 5);""")
        figures = self.text("#about")
        self.server.status = changed
        wait_for(lambda: self.text("#about") != figures, "the next status")
        print("1,000 agents: at most %d ms without a turn" %
              self.run_script("return window.longest"))
        filter_with = """
            const box = document.getElementById("filter");
            box.value = arguments[0];
            box.dispatchEvent(new Event("input"));"""
        for wanted, count in (("SENSOR-98", 9), ("silent", 25), ("no such agent", 0), ("", 1000)):
            self.run_script(filter_with, wanted)
            self.assertEqual(len(self.names()), count)
        self.open(THREE)
        self.assertFalse(self.run_script("return document.getElementById('filter').checkVisibility()"))

    def test_collector_that_does_not_answer_is_said_and_since_when(self):
        self.open(THREE)
        was = self.text("#agents")
        self.server.status = None  # 200, but no status
        wait_for(lambda: self.verdict().startswith("The collector has not answered since "), "the notice")
        self.assertRegex(self.verdict(), r"since \d\d:\d\d:\d\d\. All figures below are from then\.$")
        self.assertEqual(self.text("#agents"), was)
        self.server.status = THREE
        wait_for(lambda: self.verdict().startswith("Needs a look"), "the answer")
        self.server.shutdown()
        self.server.server_close()
        wait_for(lambda: self.verdict().startswith("The collector has not answered since "), "the notice")
        self.picture("stale")

    def test_page_asks_its_own_server_only_one_request_at_a_time(self):
        self.open(THREE)
        starts = []

        def asked():
            starts.extend(one["params"] for one in (
                json.loads(entry["message"])["message"] for entry in self.browser.get_log("performance"))
                          if one["method"] == "Network.requestWillBeSent")
            return [one["request"]["url"] for one in starts
                    if not one["request"]["url"].startswith("data:")]
        wait_for(lambda: len(asked()) >= 4, "the page and three times the status")
        urls = asked()
        base = self.site + "behind/a/path/"
        self.assertEqual(urls[:2], [base, base + "status.json"])
        self.assertEqual(set(urls[1:]), {base + "status.json"})
        times = [one["timestamp"] for one in starts if one["request"]["url"] == base + "status.json"]
        for before, after in zip(times, times[1:]):
            self.assertGreaterEqual(after - before, 4.9)
        self.assertEqual([entry for entry in self.browser.get_log("browser")
                          if entry["level"] == "SEVERE"], [])

    @needs_zmq
    def test_real_collector_serves_the_page_with_its_agents(self):
        collector = self.collect("--metrics", "127.0.0.1:0")
        self.agent(collector.endpoint).send(make_event(agent=b"<b>sensor</b>"))
        wait_for(collector.lines, "the event")
        self.browser.get(collector.url)
        wait_for(lambda: self.verdict() == "All is well: the one agent is sending.", "the sentence")
        self.assertEqual(self.names(), ["<b>sensor</b>"])
        self.assertEqual(self.text("#agents tbody td:nth-child(2)"), "sending")
        self.assertEqual([entry for entry in self.browser.get_log("browser")
                          if entry["level"] == "SEVERE"], [])

    def test_without_scripts_the_other_addresses_are_named(self):
        self.look_like(360, "dark", scripts=False)
        self.server.status = THREE
        self.browser.get(self.site + "behind/a/path/")
        self.picture("no-scripts")
        self.look_like(360, "dark")
        body = self.text("body")
        self.assertIn("needs JavaScript", body)
        self.assertIn("/status.json", body)
        self.assertIn("/metrics", body)

    def test_structure_serves_a_screen_reader_and_a_keyboard(self):
        self.look_like(360, "light")
        self.open(THOUSAND)
        tree = self.browser.execute_cdp_cmd("Accessibility.getFullAXTree", {})["nodes"]
        roles = [node["role"]["value"] for node in tree if not node.get("ignored")]
        self.assertEqual(roles.count("columnheader"), 7 + 3)  # of the agents and the payload types
        self.assertGreaterEqual(roles.count("rowheader"), 1000)
        for role in ("main", "banner", "status", "heading", "searchbox"):
            self.assertIn(role, roles)
        lines = [node for node in tree if node.get("role", {}).get("value") == "image"]
        self.assertEqual(len(lines), 1000)
        self.assertRegex(lines[0]["name"]["value"], r"^events in each minute, at most \d+")
        focused = self.run_script("""
            document.getElementById("filter").focus();
            return getComputedStyle(document.activeElement).outlineStyle;""")
        self.assertEqual(focused, "solid")


if __name__ == "__main__":
    unittest.main()
