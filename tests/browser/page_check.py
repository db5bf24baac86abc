#!/usr/bin/python3
"""The status page in a real browser, on documents written by real daemon runs.

Each case runs zunta-coord against zunta-meshsim on its own loopback range, catches every status
document the daemon writes during the run (each checked with `python3 -m json.tool` and the
schema), then serves the page and the case's document from a temporary folder on 127.0.0.1, lets
headless Chromium render it, and checks the rendered DOM against the document and the daemon's
log: one row and one 16-cell heat map per pair, the chosen and default cells marked, each gain as
the log's training table gives it, the progress figure, the failing nodes, no script error. A
screenshot of each case is left in the output folder.

Cases: four (the four-node example after training), mesh64 (a generated 64-node mesh in parallel
mode, taken mid-way), silent (a node that stops answering command 5, parallel mode); mesh250 (a
generated 250-node mesh, for bench/status_page.sh).

Run inside a private network namespace (unshare -n) with lo up; needs /usr/bin/python3 with
python3-jsonschema and chromium-headless-shell (or chromium).
"""
import argparse
import decimal
import hashlib
import html.parser
import http.server
import json
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time

import jsonschema

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SCHEMA = os.path.join(ROOT, "packaging", "zunta-status.schema.json")
PAGE = os.path.join(ROOT, "packaging", "www", "index.html")
EXAMPLE = os.path.join(ROOT, "tools", "meshsim", "examples", "four-nodes.topo")
RUN_LIMIT_S = 600  # a bound on every wait for the daemon; nothing is timed

# Two pairs far apart; d answers everything but command 5, on which it stays silent.
SILENT_TOPOLOGY = """
node a 127.0.60.1 0a:5a:00:00:00:01
node b 127.0.60.2 0a:5a:00:00:00:02
node c 127.0.60.3 0a:5a:00:00:00:03
node d 127.0.60.4 0a:5a:00:00:00:04
client a 0a:5a:00:00:00:02
client b 0a:5a:00:00:00:01
client c 0a:5a:00:00:00:04
client d 0a:5a:00:00:00:03
gains a 0 3 1 2
gains b 1 0 3 2
gains c 2 0 1 3
gains d 0 1 3 2
mesh a b 300000
mesh c d 250000
fault d silent on=5
"""

CASES = {
    # name: (range, topology or generated size, parallel, time scale, caught when)
    "four": (73, "example", False, "0.02", "end"),
    "mesh64": (74, 64, True, "0.02", "midway"),
    "silent": (75, "silent", True, "0.05", "end"),
    "mesh250": (76, 250, True, "0.02", "midway"),
}


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


# --- a daemon run against the simulator ---

class MeshRun:
    def __init__(self, build, work, name):
        self.build, self.work, self.name = build, work, name
        self.range, self.shape, self.parallel, self.scale, self.catch = CASES[name]
        self.base = "127.0.%d" % self.range
        self.agent_port = 26000 + self.range
        self.discovery_port = 26100 + self.range
        self.docs = {}  # document text -> its number in the order caught
        self.sim = self.daemon = None

    def topology(self):
        path = os.path.join(self.work, "mesh.topo")
        if self.shape == "example":
            shutil.copy(EXAMPLE, path)
        elif self.shape == "silent":
            with open(path, "w") as f:
                f.write(SILENT_TOPOLOGY)
        else:
            with open(path, "w") as f:
                subprocess.run([os.path.join(self.build, "zunta-meshsim"), "--generate", str(self.shape), "--seed",
                                "1", "--base", self.base], stdout=f, check=True)
        return path

    def start(self):
        control = os.path.join(self.work, "meshsim.sock")
        self.sim = subprocess.Popen(
            [os.path.join(self.build, "zunta-meshsim"), "--agent-port", str(self.agent_port), "--discovery-address",
             self.base + ".255", "--discovery-port", str(self.discovery_port), "--relocate", self.base,
             "--marker-gap", "5", "--quiet", "--control", control, self.topology()],
            stderr=open(os.path.join(self.work, "meshsim.log"), "w"))
        deadline = time.monotonic() + 30
        while not os.path.exists(control):
            check(self.sim.poll() is None, "the simulator did not start")
            check(time.monotonic() < deadline, "the simulator did not open its control socket")
            time.sleep(0.05)
        with open(os.path.join(self.work, "zunta.conf"), "w") as f:
            f.write("root=true\nbroadcast_address=%s.255\nbroadcast_port=%d\n%s" %
                    (self.base, self.discovery_port, "parallel_training=true\n" if self.parallel else ""))
        env = dict(os.environ, ZUNTA_CONF=self.path("zunta.conf"), ZUNTA_SNAPSHOT=self.path("zunta-sa.log"),
                   ZUNTA_STATUS_JSON=self.path("status.json"), ZUNTA_DUMP_FILE=self.path("dump.log"),
                   ZUNTA_TRAINING_STATUS_FILE=self.path("training_status.log"),
                   ZUNTA_AGENT_PORT=str(self.agent_port), ZUNTA_TIME_SCALE=self.scale)
        self.daemon = subprocess.Popen([os.path.join(self.build, "zunta-coord"), "-1"], env=env,
                                       stdout=open(self.path("coord.log"), "w"), stderr=subprocess.STDOUT)

    def path(self, name):
        return os.path.join(self.work, name)

    # Every document the daemon writes is caught (it is replaced by rename, so a read is whole).
    def catch_documents(self):
        deadline = time.monotonic() + RUN_LIMIT_S
        caught = None
        while time.monotonic() < deadline:
            running = self.daemon.poll() is None
            try:
                with open(self.path("status.json"), "rb") as f:
                    text = f.read()
            except FileNotFoundError:
                text = None
            if text is not None and text not in self.docs:
                self.docs[text] = len(self.docs)
                if self.catch == "midway" and caught is None and self.midway(text):
                    caught = text
                    self.daemon.send_signal(signal.SIGTERM)
            if not running:
                break
            time.sleep(0.02)
        check(self.daemon.poll() is not None, "the daemon did not end in %d s" % RUN_LIMIT_S)
        if self.catch == "end":
            check(self.daemon.returncode == 0, "zunta-coord -1 ended with status %d" % self.daemon.returncode)
            with open(self.path("status.json"), "rb") as f:
                caught = f.read()
        check(caught is not None, "no document of the pass under way was caught")
        return caught

    # A quarter of the pass or more done, and pairs half-way through their rounds.
    @staticmethod
    def midway(text):
        doc = json.loads(text)
        p = doc["pass"]
        done = p["trained"] + p["stopped"]
        measuring = any(4 <= len(q["rounds"]) < 12 for q in doc["pairs"] if not q["trained"])
        return p["running"] and p["to_train"] / 4 <= done < p["to_train"] and measuring

    def stop(self):
        for proc in (self.daemon, self.sim):
            if proc is not None and proc.poll() is None:
                proc.terminate()
                try:
                    proc.wait(10)
                except subprocess.TimeoutExpired:
                    proc.kill()
                    proc.wait()


def validate_all(run, schema):
    validator = jsonschema.Draft202012Validator(schema)
    for text, number in sorted(run.docs.items(), key=lambda item: item[1]):
        path = run.path("caught-%04d.json" % number)
        with open(path, "wb") as f:
            f.write(text)
        tool = subprocess.run([sys.executable, "-m", "json.tool", path], capture_output=True, text=True)
        check(tool.returncode == 0, "json.tool refuses document %d: %s" % (number, tool.stderr.strip()))
        errors = sorted(validator.iter_errors(json.loads(text)), key=str)
        check(not errors, "document %d breaks the schema: %s" % (number, errors[0].message if errors else ""))
    return len(run.docs)


# --- what the log's training tables say ---

ROW = re.compile(r"zunta-coord: +(\d+), ([0-9a-f:]{17}), 0x(-?\d+), +(-?\d+) Mbps, ([0-9a-f:]{17}), 0x(-?\d+), +(-?\d+) Mbps ?(\*?)$")


def log_tables(log_text):
    """key -> (16 rows of (left Mbps, right Mbps), the marked rows). Training marks every row whose
    reported patterns are the best pair's, so a node that never reported marks several."""
    tables, rows = {}, None
    for line in log_text.splitlines():
        if "TABLE_START_ID=" in line:
            rows = []
        elif "TABLE_END" in line and rows is not None:
            if len(rows) == 16:
                tables[rows[0][2]] = ([(r[0], r[1]) for r in rows], [i for i, r in enumerate(rows) if r[3]])
            rows = None
        elif rows is not None:
            m = ROW.search(line)
            if m:
                rows.append((int(m.group(4)), int(m.group(7)), m.group(2) + "-" + m.group(5), m.group(8) == "*"))
    return tables


def gain_bounds(rows, chosen):
    """The gain the table's whole-Mbps figures allow: each is within half a Mbps of the truth."""
    top = rows[chosen][0] + rows[chosen][1]
    base = rows[15][0] + rows[15][1]
    low = (top - 1 - (base + 1)) / (base + 1) * 100
    high = (top + 1 - (base - 1)) / (base - 1) * 100
    return low, high


# --- the rendered page ---

class Dom(html.parser.HTMLParser):
    """The parts of the rendered page the checks read."""

    def __init__(self):
        super().__init__()
        self.body = {}
        self.rows = []  # each: attrs, cells (list of class sets with data-round), texts by class
        self.stack = []
        self.progress = {}
        self.texts = {"progress-text": "", "script-errors": "", "failing": ""}
        self.failing = []
        self.edges = self.nodes = 0
        self.capture = None
        self.gain = None

    def handle_starttag(self, tag, attrs):
        a = dict(attrs)
        classes = set((a.get("class") or "").split())
        if tag not in ("br", "input", "img", "meta", "link"):
            self.stack.append((tag, a.get("id")))
        if tag == "body":
            self.body = a
        if a.get("id") in self.texts:
            self.capture = (a["id"], len(self.stack))
        if a.get("id") == "progress":
            self.progress = a
        if tag == "tr" and "pair" in classes:
            self.rows.append({"attrs": a, "cells": [], "gain": "", "heatmaps": 0, "state": ""})
        if self.rows and tag == "div" and "heatmap" in classes and self.inside("tr"):
            self.rows[-1]["heatmaps"] += 1
        if self.rows and tag == "span" and "cell" in classes and self.inside("tr"):
            self.rows[-1]["cells"].append((int(a["data-round"]), classes))
        if self.rows and tag == "td" and "gain" in classes:
            self.gain = len(self.stack)
        if self.rows and tag == "span" and "state" in classes and self.inside("tr"):
            self.rows[-1]["state"] = " ".join(sorted(classes - {"state"}))
        if tag == "line" and "edge" in classes:
            self.edges += 1
        if tag == "g" and "node" in classes:
            self.nodes += 1
        if tag == "li" and "failing" in classes:
            self.failing.append(a.get("data-mac"))

    def inside(self, tag):
        return any(t == tag for t, _ in self.stack)

    def handle_endtag(self, tag):
        while self.stack:
            t, _ = self.stack.pop()
            if self.capture and len(self.stack) < self.capture[1]:
                self.capture = None
            if self.gain and len(self.stack) < self.gain:
                self.gain = None
            if t == tag:
                break

    def handle_data(self, data):
        if self.capture:
            self.texts[self.capture[0]] += data
        if self.gain and self.rows:
            self.rows[-1]["gain"] += data


def gain_text(g):
    if g is None:
        return "–"
    # The page writes toFixed(1): the exact binary value, a tie rounded away from zero.
    magnitude = decimal.Decimal(abs(g)).quantize(decimal.Decimal("0.1"), rounding=decimal.ROUND_HALF_UP)
    return ("+" if g > 0 else "-" if g < 0 else "") + str(magnitude) + " %"


def check_page(dom, doc, tables, console):
    check(int(dom.body.get("data-rendered", "0")) >= 1, "the page never rendered a document")
    check(dom.body.get("data-doc-time") == doc["time"], "the page shows another document")
    check(dom.texts["script-errors"].strip() == "", "script errors: " + dom.texts["script-errors"])
    bad = [l for l in console if "Uncaught" in l or "status page:" in l]
    check(not bad, "console: " + "; ".join(bad))
    pairs = {p["key"]: p for p in doc["pairs"]}
    keys = [r["attrs"]["data-key"] for r in dom.rows]
    check(sorted(keys) == sorted(pairs), "rows %d for %d pairs" % (len(keys), len(pairs)))
    gains_checked = 0
    for row in dom.rows:
        p = pairs[row["attrs"]["data-key"]]
        where = p["key"] + ": "
        check(row["heatmaps"] == 1 and sorted(i for i, _ in row["cells"]) == list(range(16)),
              where + "not one heat map of 16 cells")
        chosen = [i for i, c in row["cells"] if "chosen" in c]
        default = [i for i, c in row["cells"] if "default" in c]
        check(chosen == ([] if p["chosen_round"] is None else [p["chosen_round"]]), where + "chosen cells %s" % chosen)
        check(default == [15], where + "default cells %s" % default)
        empty = [i for i, c in row["cells"] if "empty" in c]
        check(empty == list(range(len(p["rounds"]), 16)), where + "unmeasured cells %s" % empty)
        check(row["gain"].strip() == gain_text(p["gain_percent"]),
              where + "gain shown %r, document %r" % (row["gain"], p["gain_percent"]))
        if p["trained"] and p["key"] in tables and p["gain_percent"] is not None:
            rows, marked = tables[p["key"]]
            check(p["chosen_round"] in marked, where + "log marks %s, document %s" % (marked, p["chosen_round"]))
            low, high = gain_bounds(rows, p["chosen_round"])
            check(low - 0.05 <= float(row["gain"].replace("%", "").replace("+", "")) <= high + 0.05,
                  where + "gain %s outside [%.2f, %.2f] from the log's table" % (row["gain"], low, high))
            gains_checked += 1
        if p["trained"]:
            check(p["key"] in tables, where + "trained, but no training table in the log")
    run = doc["pass"]
    done = run["trained"] + run["stopped"]
    percent = done * 100 // run["to_train"] if run["to_train"] else (0 if run["running"] else 100)
    check(dom.progress.get("aria-valuenow") == str(percent), "progress %s, document %d %%" %
          (dom.progress.get("aria-valuenow"), percent))
    check(dom.texts["progress-text"].startswith("%d of %d pairs (%d %%)" % (done, run["to_train"], percent)),
          "progress text %r" % dom.texts["progress-text"])
    check(dom.edges == len(doc["pairs"]), "%d edges for %d pairs" % (dom.edges, len(doc["pairs"])))
    failing = sorted(n["mac"] for n in doc["nodes"] if n["failed_exchanges"] > 0 or
                     any(p["stopped_node"] and p["stopped_node"]["mac"] == n["mac"] for p in doc["pairs"]))
    check(sorted(dom.failing) == failing, "failing nodes shown %s, document %s" % (dom.failing, failing))
    return gains_checked


# --- the browser ---

def browser():
    for name in ("chromium-headless-shell", "chromium"):
        path = shutil.which(name)
        if path:
            return path
    raise Failure("no chromium-headless-shell or chromium")


def chromium(url, profile, extra, virtual_time=True):
    command = [browser(), "--headless", "--no-sandbox", "--disable-gpu", "--disable-background-networking",
               "--disable-component-update", "--disable-sync", "--no-first-run", "--user-data-dir=" + profile,
               "--hide-scrollbars"] + (["--virtual-time-budget=6000"] if virtual_time else []) + extra + [url]
    return subprocess.run(command, capture_output=True, text=True, timeout=120)


class Site:
    """The page and the documents in a temporary folder, served on 127.0.0.1."""

    def __init__(self, folder):
        self.folder = folder
        shutil.copy(PAGE, os.path.join(folder, "index.html"))
        handler = lambda *a: http.server.SimpleHTTPRequestHandler(*a, directory=folder)
        http.server.SimpleHTTPRequestHandler.log_message = lambda *a: None
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), handler)
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def url(self, doc_name):
        return "http://127.0.0.1:%d/index.html?doc=%s" % (self.server.server_address[1], doc_name)

    def close(self):
        self.server.shutdown()


def render_case(site, name, text, out, profile_root):
    with open(os.path.join(site.folder, name + ".json"), "wb") as f:
        f.write(text)
    profile = tempfile.mkdtemp(dir=profile_root)
    dumped = chromium(site.url(name + ".json"), profile, ["--enable-logging=stderr", "--v=0", "--dump-dom"])
    check(dumped.returncode == 0 and "<body" in dumped.stdout, "chromium failed: " + dumped.stderr[-500:])
    console = [l for l in dumped.stderr.splitlines() if ":CONSOLE" in l]
    doc = json.loads(text)
    height = 1400 if len(doc["pairs"]) < 20 else 2200
    shot = os.path.join(out, "page-%s.png" % name)
    shutil.rmtree(profile)
    profile = tempfile.mkdtemp(dir=profile_root)
    taken = chromium(site.url(name + ".json"), profile, ["--window-size=1400,%d" % height, "--screenshot=" + shot])
    check(taken.returncode == 0 and os.path.exists(shot), "no screenshot: " + taken.stderr[-500:])
    dom = Dom()
    dom.feed(dumped.stdout)
    return dom, console, doc, shot


def render_ms(site, name, text, profile_root):
    """The page's first render of the document, layout included, in real time: the clock stands
    still under a virtual time budget, so the document goes inside a copy of the page, which renders
    it while it loads."""
    with open(PAGE) as f:
        page = f.read()
    tag = '<script type="application/json" id="embedded-status"></script>'
    filled = tag[:-len("</script>")] + text.decode().replace("</", "<\\/") + "</script>"
    with open(os.path.join(site.folder, name + "-filled.html"), "w") as f:
        f.write(page.replace(tag, filled))
    url = site.url(name).replace("index.html?doc=" + name, name + "-filled.html")
    dumped = chromium(url, tempfile.mkdtemp(dir=profile_root), ["--dump-dom"], virtual_time=False)
    found = re.search(r'data-render-ms="(\d+)"', dumped.stdout)
    check(found is not None, "the page with the document inside did not render it")
    return int(found.group(1))


def run_case(name, args, schema, site, profile_root):
    started = time.monotonic()
    work = os.path.join(args.out, name)
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    run = MeshRun(args.build_dir, work, name)
    try:
        run.start()
        text = run.catch_documents()
    finally:
        run.stop()
    caught = validate_all(run, schema)
    with open(run.path("coord.log"), errors="replace") as f:
        tables = log_tables(f.read())
    dom, console, doc, shot = render_case(site, name, text, args.out, profile_root)
    gains = check_page(dom, doc, tables, console)
    took = render_ms(site, name, text, profile_root)
    p = doc["pass"]
    notes = []
    if name == "mesh64":
        check(p["running"] and 0 < p["trained"] < p["to_train"], "not a document of a pass mid-way")
        measuring = [q for q in doc["pairs"] if q["untrained"] == "training"]
        check(len(measuring) <= p["training"] and all(0 < len(q["rounds"]) < 16 for q in measuring),
              "%d pairs shown measuring, %d measuring" % (len(measuring), p["training"]))
        check(p["estimated_end"] is not None, "no estimated end mid-way")
    if name == "four":
        check(len(doc["pairs"]) == 4 and all(q["trained"] for q in doc["pairs"]), "the example's four pairs trained")
        check(gains == 4, "gains checked against the log: %d of 4" % gains)
    if name == "silent":
        silent = [n for n in doc["nodes"] if n["mac"] == "0a:5a:00:00:00:04"]
        check(silent and silent[0]["failed_exchanges"] > 0, "the silent node shows no failed exchange")
        check("0a:5a:00:00:00:04" in dom.failing, "the silent node is not among the failing nodes")
        stopped = [q for q in doc["pairs"] if q["untrained"] == "stopped: node not answering"]
        check([q["key"] for q in stopped] == ["0a:5a:00:00:00:03-0a:5a:00:00:00:04"], "c-d not stopped")
        check(stopped and stopped[0]["stopped_node"]["mac"] == "0a:5a:00:00:00:04", "stopped for another node")
        check(p["stopped"] == 1, "the pass counts %d stopped pairs" % p["stopped"])
        shown = {r["attrs"]["data-key"]: r["state"] for r in dom.rows}
        check(shown.get("0a:5a:00:00:00:03-0a:5a:00:00:00:04") == "stopped", "c-d not shown as stopped")
        check(shown.get("0a:5a:00:00:00:01-0a:5a:00:00:00:02") == "trained", "a-b not shown as trained")
    return ("%s: %d pairs, %d nodes, %d documents caught and valid, %d gains match the log, progress %s %%, "
            "document %d bytes rendered in %s ms; %s; %.1f s%s" %
            (name, len(doc["pairs"]), len(doc["nodes"]), caught, gains, dom.progress.get("aria-valuenow"), len(text),
             took, shot, time.monotonic() - started, "; " + "; ".join(notes) if notes else ""))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--build-dir", required=True)
    parser.add_argument("--out", required=True, help="folder for the runs, documents and screenshots")
    parser.add_argument("--cases", default="four,mesh64,silent")
    args = parser.parse_args()
    os.makedirs(args.out, exist_ok=True)
    with open(SCHEMA) as f:
        schema = json.load(f)
    jsonschema.Draft202012Validator.check_schema(schema)
    profile_root = tempfile.mkdtemp(prefix="zunta-browser-")
    site_folder = tempfile.mkdtemp(prefix="zunta-site-")
    site = Site(site_folder)
    passed = failed = 0
    try:
        for name in args.cases.split(","):
            try:
                print(run_case(name, args, schema, site, profile_root), flush=True)
                passed += 1
            except Failure as e:
                print("%s: FAILED: %s" % (name, e), flush=True)
                failed += 1
    finally:
        site.close()
        shutil.rmtree(profile_root, ignore_errors=True)
        shutil.rmtree(site_folder, ignore_errors=True)
    print("%d passed, %d failed" % (passed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
