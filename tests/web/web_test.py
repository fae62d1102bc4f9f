#!/usr/bin/python3
"""kvtweb against the real programs: kvtnetd on a data folder with spool files, the test run's
private CUPS scheduler (CUPS_SERVER) with held jobs, and kvtweb in front of them.

  web_test.py browser    --kvtnetd P --kvtweb P --work DIR   the pages in headless Chromium
  web_test.py requests   --kvtnetd P --kvtweb P --work DIR   the request rules, one table
  web_test.py monitoring --kvtnetd P --kvtweb P --work DIR   promtool, and Prometheus itself
  web_test.py wine       --kvtnetd P --kvtweb P --work DIR   the Windows programs under Wine
  web_test.py screenshot --kvtnetd P --kvtweb P --work DIR --out PNG
  web_test.py scale      --kvtnetd P --kvtweb P --work DIR [--old-kvtweb P]   figures, no test
  web_test.py kvtctl     --kvtnetd P --kvtweb P --kvtctl P --work DIR   its bar, its time-out

Exit code 77 (skipped) when what a mode needs is not installed. Every wait is on an event
with a deadline that only turns a hang into a failure. A second real server (monitoring,
scale) is kvtnetd in a UTS namespace of its own whose host name is 127.0.0.2, so that it
listens there (needs root).
"""
import argparse
import asyncio
import http.client
import json
import os
import pty
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import statistics
import struct
import sys
import threading
import time
import urllib.parse

SERVER_PORT, WEB_PORT = 51470, 51480
SECOND = "127.0.0.2"  # the second real server's address
ORIGIN = f"http://127.0.0.1:{WEB_PORT}"
DEADLINE = 60  # seconds; only catches a hang (the page refreshes every 3 s; a loaded machine is slow)
SPOOL_FILES = {  # name: (document, printer, machine, owner)
    "178000000000001": ("poster-A2.pdf", "Proof room", "ws12", "anna"),
    "178000000000002": ("flyer-300dpi.tif", "Proof room", "ws07", "ben"),
}


def skip(reason):
    print(f"SKIPPED: {reason}")
    sys.exit(77)


def wait_for(what, check, deadline=DEADLINE):
    end = time.monotonic() + deadline
    while True:
        result = check()
        if result:
            return result
        if time.monotonic() > end:
            raise AssertionError(f"timed out waiting for {what}")
        time.sleep(0.05)


def port_open(port, host="127.0.0.1"):
    try:
        socket.create_connection((host, port), timeout=1).close()
        return True
    except OSError:
        return False


def free_port():
    """A port nothing listens on (in the test's own network namespace)."""
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def spool_header(name, document, printer, machine, owner):
    record = bytearray(5000)
    for offset, text in ((2, document), (82, "waiting"), (162, printer), (922, name),
                         (958, machine), (1022, owner)):
        record[offset:offset + len(text)] = text.encode()
    return bytes(record)


class Rig:
    """kvtnetd, held jobs in the private scheduler, kvtweb."""

    def __init__(self, args):
        self.args = args
        self.work = os.path.abspath(args.work)
        shutil.rmtree(self.work, ignore_errors=True)
        self.data = os.path.join(self.work, "ProgramData")
        self.spool = os.path.join(self.data, "Corvina", "spool")
        os.makedirs(self.spool)
        os.makedirs(os.path.join(self.data, "Corvina", "gamut", "Demo"))
        for name, fields in SPOOL_FILES.items():
            with open(os.path.join(self.spool, name + ".spl"), "wb") as f:
                f.write(spool_header(name, *fields))
        for name, content in (("Glossy.cfg", b"glossy"), ("Glossy.gamut", b"g" * 2000),
                              ("Matte.cfg", b"matte"), ("Matte.icc", b"i" * 300)):
            with open(os.path.join(self.data, "Corvina", "gamut", "Demo", name), "wb") as f:
                f.write(content)
        self.server = self.web = None
        self.others = []  # further programs: the second server, stand-ins, Prometheus
        self.jobs = {}  # title: CUPS job id
        self.wine = [shutil.which("wine")] if args.mode == "wine" else []

    def start_server(self):
        env = dict(os.environ, ProgramData=self.data)
        self.server = subprocess.Popen(self.wine + [self.args.kvtnetd], cwd=self.work, env=env,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for("kvtnetd to listen", lambda: port_open(SERVER_PORT))

    def stop_server(self):
        self.server.send_signal(signal.SIGTERM)
        self.server.wait(timeout=DEADLINE)

    def start_second_server(self):
        """A second real kvtnetd, on 127.0.0.2 (its host name there), with no spool files."""
        if os.geteuid() != 0 or not shutil.which("unshare"):
            skip("a second kvtnetd needs root (a UTS namespace of its own)")
        data = os.path.join(self.work, "second")
        os.makedirs(os.path.join(data, "Corvina", "spool"), exist_ok=True)
        second = self.spawn(["unshare", "--uts", "sh", "-c", f'hostname {SECOND} && exec "$0"',
                             self.args.kvtnetd], env=dict(os.environ, ProgramData=data))
        wait_for("the second kvtnetd to listen", lambda: port_open(SERVER_PORT, SECOND))
        return second

    def spawn(self, argv, **kwargs):
        process = subprocess.Popen(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                   cwd=self.work, **kwargs)
        self.others.append(process)
        return process

    def hold_jobs(self, queues):
        cups = os.environ.get("CUPS_SERVER", "")
        unavailable = os.path.join(os.path.dirname(cups), "unavailable")
        if not cups or os.path.exists(unavailable) or not shutil.which("lp"):
            skip("no private CUPS scheduler (CUPS_SERVER)")
        subprocess.run(["cancel", "-a", "KvtProofA", "KvtProofB"], check=False)
        document = os.path.join(self.work, "document.txt")
        with open(document, "w") as f:
            f.write("proof\n")
        for queue, title in queues:
            out = subprocess.run(["lp", "-H", "hold", "-d", queue, "-t", title, document],
                                 check=True, capture_output=True, text=True).stdout
            self.jobs[title] = int(re.search(r"-(\d+) ", out).group(1))

    def scheduler_jobs(self):
        """{queue: number of jobs not completed}."""
        out = subprocess.run(["lpstat", "-W", "not-completed", "-o"], check=True,
                             capture_output=True, text=True).stdout
        queues = {}
        for line in out.splitlines():
            queue = line.split()[0].rsplit("-", 1)[0]
            queues[queue] = queues.get(queue, 0) + 1
        return queues

    def scheduler_holds(self, job_id):
        out = subprocess.run(["lpstat", "-W", "not-completed", "-o"], check=True,
                             capture_output=True, text=True).stdout
        return re.search(rf"-{job_id}\s", out) is not None

    def start_web(self, *servers, options=()):
        """kvtweb watching `servers` (default: the one real server, unless `options` name a
        servers file), polling every second; its standard error goes to WORK/kvtweb.err."""
        if self.web and self.web.poll() is None:
            self.web.kill()
            self.web.wait()
        argv = self.wine + [self.args.kvtweb, "--listen", f"127.0.0.1:{WEB_PORT}"]
        if not servers and "--servers" not in options:
            servers = (f"127.0.0.1:{SERVER_PORT}",)
        for server in servers:
            argv += ["--server", server]
        with open(os.path.join(self.work, "kvtweb.err"), "w") as err:
            self.web = subprocess.Popen(argv + ["--interval", "1"] + list(options),
                                        stdout=subprocess.DEVNULL, stderr=err)
        wait_for("kvtweb to listen", lambda: port_open(WEB_PORT))

    def close(self):
        for p in [self.web, self.server] + self.others:
            if p and p.poll() is None:
                p.kill()
                p.wait()
        if self.jobs:
            subprocess.run(["cancel", "-a", "KvtProofA", "KvtProofB"], check=False)


def chrome(width, height):
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError:
        skip("python3-selenium is not installed")
    binary, driver = shutil.which("chromium"), shutil.which("chromedriver")
    if not binary or not driver:
        skip("chromium or chromium-driver is not installed")
    options = webdriver.ChromeOptions()
    options.binary_location = binary
    for arg in ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
                f"--window-size={width},{height}", "--force-device-scale-factor=1"):
        options.add_argument(arg)
    return webdriver.Chrome(service=Service(driver), options=options)


def browser(rig):
    from selenium.webdriver.common.action_chains import ActionChains
    from selenium.webdriver.common.by import By
    from selenium.webdriver.common.keys import Keys
    from selenium.webdriver.support.ui import WebDriverWait

    rig.hold_jobs([("KvtProofA", "quarterly-report.pdf"), ("KvtProofB", "label-sheet.pdf")])
    rig.start_server()
    rig.start_web()
    report, label = rig.jobs["quarterly-report.pdf"], rig.jobs["label-sheet.pdf"]
    driver = chrome(390, 844)  # a phone's screen
    try:
        wait = WebDriverWait(driver, DEADLINE)
        buttons = lambda: driver.execute_script(  # in one step: the page redraws itself
            "return [...document.querySelectorAll('button.cancel')].map(b => b.dataset.job)")
        driver.get(ORIGIN + "/")

        # The jobs, each with its printer and document, and the waiting spool files.
        wait.until(lambda d: sorted(buttons()) == [f"*0-{report}", f"*1-{label}"])
        printers = driver.find_element(By.ID, "printers").text
        for text in ("KvtProofA", "KvtProofB", "quarterly-report.pdf", "label-sheet.pdf"):
            assert text in printers, f"{text} not on the page: {printers}"
        spool = driver.find_element(By.ID, "spool").text
        for name, (document, _, machine, owner) in SPOOL_FILES.items():
            for text in (name, document, machine.upper(), owner):
                assert text in spool, f"{text} not in the spool files: {spool}"
        # Readable on the phone: nothing runs off the side of the screen.
        overflow = driver.execute_script(
            "return document.documentElement.scrollWidth - document.documentElement.clientWidth")
        assert overflow <= 0, f"the page is {overflow} px wider than the phone's screen"

        # Cancel by keyboard: Tab to the job's button, Enter, the confirmation; then the job
        # leaves the page and the scheduler.
        focused = lambda: driver.execute_script(
            "return document.activeElement && document.activeElement.dataset.job")
        for _ in range(40):
            if focused() == f"*0-{report}":
                break
            ActionChains(driver).send_keys(Keys.TAB).perform()
        assert focused() == f"*0-{report}", "Tab never reached the job's Cancel button"
        ActionChains(driver).send_keys(Keys.ENTER).perform()
        wait.until(lambda d: d.switch_to.alert).accept()
        wait.until(lambda d: buttons() == [f"*1-{label}"])
        wait_for("the scheduler to drop the job", lambda: not rig.scheduler_holds(report))
        assert rig.scheduler_holds(label), "the other job went too"
        wait.until(lambda d: "was cancelled" in d.find_element(By.ID, "action").text)

        # The server stops: the notice, the last data kept and marked stale.
        rig.stop_server()
        notice = driver.find_element(By.ID, "notice")
        wait.until(lambda d: notice.is_displayed() and "cannot be reached" in notice.text)
        assert driver.find_element(By.ID, "stale-badge").is_displayed()
        assert buttons() == [f"*1-{label}"], "the last data did not stay on the page"

        # It starts again: the page recovers by itself.
        rig.start_server()
        wait.until(lambda d: not notice.is_displayed() and
                   "is reachable" in d.find_element(By.ID, "server-state").text)
        assert not driver.find_element(By.ID, "stale-badge").is_displayed()
        assert buttons() == [f"*1-{label}"]

        # A gamut folder's configurations, named in the address, with the colour files' times.
        driver.get(ORIGIN + "/configs?folder=Demo")
        state = driver.find_element(By.ID, "configs-state")
        wait.until(lambda d: "2 configurations in Demo" in state.text)
        configs = driver.find_element(By.ID, "configs").text
        assert "Glossy" in configs and "Matte" in configs, configs
        assert re.search(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", configs), configs
        assert driver.find_element(By.ID, "folder").get_attribute("value") == "Demo"

        # The fleet: the real server and one that does not answer, which sorts to the top.
        real, dead = f"127.0.0.1:{SERVER_PORT}", f"127.0.0.1:{free_port()}"
        rig.start_web(real, dead)
        driver.get(ORIGIN + "/")
        rows = lambda: driver.execute_script(  # [class, server, cells' texts] of each row
            "return [...document.querySelectorAll('#fleet tbody tr')].map(r => [r.className, "
            "r.querySelector('a').dataset.server, [...r.cells].map(c => c.innerText)])")
        wait.until(lambda d: [r[1] for r in rows()] == [dead, real] and
                   rows()[1][2][1] == "reachable")
        (top_class, _, top), (_, _, good) = rows()
        assert "problem" in top_class and "unreachable" in top[1] and top[3] == "never", top
        # Jobs by state (the one held job left), waiting spool files.
        assert good[5] == "1 stopped" and good[6] == "2", good
        assert dead in driver.find_element(By.ID, "fleet-notice").text
        overflow = driver.execute_script(
            "return document.documentElement.scrollWidth - document.documentElement.clientWidth")
        assert overflow <= 0, f"the fleet page is {overflow} px wider than the phone's screen"
        # By keyboard to the real server's row and on to its page, Cancel buttons included.
        for _ in range(20):
            if driver.execute_script("return document.activeElement.dataset.server") == real:
                break
            ActionChains(driver).send_keys(Keys.TAB).perform()
        ActionChains(driver).send_keys(Keys.ENTER).perform()
        wait.until(lambda d: buttons() == [f"*1-{label}"])
        assert urllib.parse.quote(real, safe="") in driver.current_url, driver.current_url
        # The real server stops: its row turns stale and joins the problems.
        driver.back()
        rig.stop_server()
        wait.until(lambda d: any(server == real and "stale" in row_class and "stale" in cells[1]
                                 for row_class, server, cells in rows()))
    finally:
        driver.quit()


def exchange(raw, timeout=DEADLINE):
    """Sends raw bytes, returns the answer's status code (0: none before the close)."""
    with socket.create_connection(("127.0.0.1", WEB_PORT), timeout=timeout) as s:
        try:
            s.sendall(raw)
        except OSError:
            pass  # the server may answer and close before a huge request is all sent
        answer = b""
        try:
            while b"\r\n" not in answer:
                piece = s.recv(4096)
                if not piece:
                    break
                answer += piece
        except ConnectionResetError:
            pass
    m = re.match(rb"HTTP/1\.1 (\d{3}) ", answer)
    return int(m.group(1)) if m else 0


def request(method, path, headers=(), body=None, answer=None, port=WEB_PORT):
    """The answer's status and body; `answer` (a dict) gets its headers too."""
    conn = http.client.HTTPConnection("127.0.0.1", port, timeout=DEADLINE)
    conn.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
    names = [n.lower() for n, _ in headers]
    if "host" not in names:
        conn.putheader("Host", f"127.0.0.1:{port}")
    for name, value in headers:
        if value is not None:
            conn.putheader(name, value)
    if body is not None:
        conn.putheader("Content-Type", "application/x-www-form-urlencoded")
        conn.putheader("Content-Length", str(len(body)))
    conn.endheaders(body.encode() if body is not None else None)
    r = conn.getresponse()
    data = r.read()
    conn.close()
    if answer is not None:
        answer.update((k.lower(), v) for k, v in r.getheaders())
    return r.status, data


def trickle(count, stop, source="127.0.0.1"):
    """`count` connections that send a request head one header line a second until `stop`."""
    def run():
        conns = []
        try:
            for _ in range(count):
                s = socket.socket()
                s.bind((source, 0))
                s.connect(("127.0.0.1", WEB_PORT))
                s.sendall(b"GET / HTTP/1.1\r\n")
                conns.append(s)
            while not stop.wait(1):
                for s in conns:
                    s.sendall(b"X-Slow: 1\r\n")
        except OSError:
            pass
        finally:
            for s in conns:
                s.close()
    thread = threading.Thread(target=run)
    thread.start()
    return thread


def requests(rig):
    rig.hold_jobs([("KvtProofA", "poster.pdf"), ("KvtProofA", "flyer.pdf")])
    rig.start_server()
    # Polls an hour apart: after a cancel, the listing is fresh only if the cancel asks for it.
    rig.start_web(options=("--interval", "3600"))
    wait_for("the first poll", lambda: request("GET", "/api/ping")[0] == 200)
    status, page = request("GET", "/")
    assert status == 200, status
    token = re.search(rb'name="kvt-token" content="([0-9a-f]+)"', page).group(1).decode()
    spool_file = os.path.join(rig.spool, "178000000000001.spl")
    T = ("X-KVT-Token", token)
    cases = [  # name, method, path, headers, body, expected status
        ("page for its own host", "GET", "/", [], None, 200),
        ("page for localhost", "GET", "/", [("Host", f"localhost:{WEB_PORT}")], None, 200),
        ("foreign Host (rebound DNS name)", "GET", "/api/jobs",
         [("Host", f"attacker.example:{WEB_PORT}")], None, 421),
        ("own host on another port", "GET", "/", [("Host", "127.0.0.1:80")], None, 421),
        ("same Origin", "GET", "/api/jobs", [("Origin", ORIGIN)], None, 200),
        ("foreign Origin", "GET", "/api/jobs", [("Origin", "http://attacker.example")], None, 403),
        ("cross-site fetch", "GET", "/api/overview", [("Sec-Fetch-Site", "cross-site")], None, 403),
        ("cancel without token", "POST", "/api/cancel", [("Origin", ORIGIN)], "job=*0-1", 403),
        ("cancel with a wrong token", "POST", "/api/cancel",
         [("Origin", ORIGIN), ("X-KVT-Token", "0" * len(token))], "job=*0-1", 403),
        ("cancel with the token from a foreign Origin", "POST", "/api/cancel",
         [T, ("Origin", "http://attacker.example")], "job=*0-1", 403),
        ("cancel a job the listing does not show", "POST", "/api/cancel",
         [T, ("Origin", ORIGIN)], "job=*0-999999", 404),
        ("cancel names a spool file", "POST", "/api/cancel", [T], "job=178000000000001", 400),
        ("cancel names a path", "POST", "/api/cancel", [T], "job=../Corvina/spool/x.spl", 400),
        ("cancel by GET", "GET", "/api/cancel?job=*0-1", [], None, 404),
        ("DELETE", "DELETE", "/api/jobs", [T], None, 405),
        ("configs of a folder", "GET", "/api/configs?folder=Demo", [], None, 200),
        ("configs of a path", "GET", "/api/configs?folder=../Corvina", [], None, 400),
        ("configs of an absolute path", "GET", "/api/configs?folder=%2Fetc", [], None, 400),
        ("unknown page", "GET", "/etc/passwd", [], None, 404),
        ("fleet document", "GET", "/api/fleet", [], None, 200),
        ("metrics", "GET", "/metrics", [], None, 200),
        ("a server's overview", "GET", f"/api/overview?server=127.0.0.1:{SERVER_PORT}", [], None,
         200),
        ("overview of a server it does not watch", "GET", "/api/overview?server=10.1.1.1:51470",
         [], None, 404),
        ("cancel on a server it does not watch", "POST", "/api/cancel", [T],
         "job=*0-1&server=10.1.1.1:51470", 404),
        ("body over the limit", "POST", "/api/cancel", [T], "job=" + "1" * 5000, 413),
        ("address over the limit", "GET", "/api/jobs?" + "a" * 20000, [], None, 414),
    ]
    failures = []
    for name, method, path, headers, body, expected in cases:
        status, data = request(method, path, headers, body)
        if status != expected:
            failures.append(f"{name}: {status} instead of {expected} ({data[:120]!r})")
    raw_cases = [  # name, raw bytes, expected status
        ("no Host", b"GET / HTTP/1.1\r\n\r\n", 421),
        ("HTTP/1.0 without Host", b"GET / HTTP/1.0\r\n\r\n", 421),
        ("garbage request line", b"HELLO THERE\r\n\r\n", 400),
        ("header line over the limit",
         b"GET / HTTP/1.1\r\nHost: 127.0.0.1:51480\r\nX: " + b"x" * 20000 + b"\r\n\r\n", 431),
        ("huge announced body, never sent", b"POST /api/cancel HTTP/1.1\r\nHost: 127.0.0.1:51480"
         b"\r\nX-KVT-Token: " + token.encode() + b"\r\nContent-Length: 10000000000\r\n\r\n", 413),
    ]
    for name, raw, expected in raw_cases:
        status = exchange(raw)
        if status != expected:
            failures.append(f"{name}: {status} instead of {expected}")
    # A cancel that works (of the second job listed), and the poll it asks for shows it gone.
    job = f"*0-{rig.jobs['flyer.pdf']}"
    listed = lambda: f'"{job}"'.encode() in request("GET", "/api/jobs")[1]
    assert listed(), "the held job is not listed"
    status, data = request("POST", "/api/cancel", [T, ("Origin", ORIGIN)], "job=" + job)
    if status != 200 or not json.loads(data)["gone"]:
        failures.append(f"cancel of a listed job: {status} {data[:120]!r}")
    wait_for("the listing without the cancelled job", lambda: not listed())
    # The scrape's format, as Prometheus asks for it.
    headers = {}
    request("GET", "/metrics", answer=headers)
    if headers.get("content-type") != "text/plain; version=0.0.4; charset=utf-8":
        failures.append(f"/metrics answered as {headers.get('content-type')}")
    # 40 connections that trickle their request heads hold nothing up: a page request is
    # answered while they go on (a worker pool of 16 answered nobody).
    stop = threading.Event()
    slow = trickle(40, stop)
    status, _ = request("GET", "/")
    trickling = slow.is_alive()
    stop.set()
    slow.join()
    if status != 200 or not trickling:
        failures.append(f"with slow heads: {status}, the slow clients went on: {trickling}")
    # Nothing above deleted a file or stopped the program: the listing still shows both files.
    assert os.path.exists(spool_file), "a request deleted a spool file"
    status, data = request("GET", "/api/jobs")
    assert status == 200 and data.count(b'"name":"17800000000000') == 2, (status, data[:200])
    assert rig.web.poll() is None, "kvtweb ended"
    failures += servers_file(rig)
    if failures:
        raise AssertionError("\n".join(failures))
    print(f"{len(cases) + len(raw_cases)} requests answered as expected")


def servers_file(rig):
    """The servers file: refused with its line when wrong, read again on SIGHUP (a wrong file
    then keeps the servers as they were). Failures, as texts."""
    failures, path = [], os.path.join(rig.work, "servers")

    def write(text, encoding="utf-8"):
        with open(path, "w", encoding=encoding) as f:
            f.write(text)

    def fleet():
        return [(s["server"], s["label"]) for s in json.loads(request("GET", "/api/fleet")[1])
                ["servers"]]
    for text, message in (("127.0.0.1:99999\n", "line 1: not HOST[:PORT]"),
                          ("# a comment\n127.0.0.1\n127.0.0.1:51470 again\n",
                           "line 3: 127.0.0.1:51470 is listed twice"),
                          ("# nothing but a comment\n\n", "no server listed"),
                          ("127.0.0.1 a\x01b\n", "line 1: the label holds a control character")):
        write(text)
        done = subprocess.run([rig.args.kvtweb, "--servers", path, "--listen", "127.0.0.1:1"],
                              capture_output=True, text=True, timeout=DEADLINE)
        if done.returncode != 1 or message not in done.stderr:
            failures.append(f"servers file {text!r}: exit {done.returncode}, {done.stderr!r}")
    # A label in a code page, not UTF-8: shown as Latin-1.
    write(f"127.0.0.1:{SERVER_PORT}   proof r\xe4um  # this machine\n", "latin-1")
    rig.start_web(options=("--servers", path))
    listed = [(f"127.0.0.1:{SERVER_PORT}", "proof r\xe4um")]
    if fleet() != listed:
        failures.append(f"--servers: {fleet()}")
    write("[::1]:51471 large format\n")
    rig.web.send_signal(signal.SIGHUP)
    listed = [("[::1]:51471", "large format")]  # the file's servers replace the others
    try:
        wait_for("the file read again", lambda: fleet() == listed)
    except AssertionError:
        failures.append(f"after SIGHUP: {fleet()}")
    # That server does not answer: its one problem is that.
    server = lambda: json.loads(request("GET", "/api/fleet")[1])["servers"][0]
    wait_for("the first poll of the server", lambda: server()["error"] != "not polled yet")
    if server()["problems"] != ["unreachable"] or server()["reachable"]:
        failures.append(f"a server that does not answer: {server()}")
    write("nonsense:\n")
    rig.web.send_signal(signal.SIGHUP)
    log = os.path.join(rig.work, "kvtweb.err")
    wait_for("the wrong file reported",
             lambda: "still watching the servers as before" in open(log).read())
    if fleet() != listed:
        failures.append(f"after SIGHUP with a wrong file: {fleet()}")
    # A good file again: the servers are taken once more, and only then (the wrong one was not).
    write(f"127.0.0.1:{SERVER_PORT}\n")
    rig.web.send_signal(signal.SIGHUP)
    wait_for("the good file read", lambda: fleet() == [(f"127.0.0.1:{SERVER_PORT}", None)])
    if open(log).read().count("kvtweb: watching") != 2:
        failures.append(f"servers taken other than on the two good files: {open(log).read()!r}")
    # Without --listen, the page is at 127.0.0.1:51480.
    rig.web.kill()
    rig.web.wait()
    rig.web = subprocess.Popen([rig.args.kvtweb, "--server", f"127.0.0.1:{SERVER_PORT}"],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    wait_for("kvtweb on its own port", lambda: port_open(51480))
    wait_for("its first poll", lambda: request("GET", "/api/ping", port=51480)[0] == 200)
    return failures


RULES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packaging",
                     "prometheus", "kvtweb-alerts.yml")


def monitoring(rig):
    promtool, prometheus = shutil.which("promtool"), shutil.which("prometheus")
    if not promtool or not prometheus:
        skip("prometheus is not installed (scripts/install-deps.sh web)")
    rig.hold_jobs([("KvtProofA", "poster.pdf"), ("KvtProofA", "flyer.pdf"),
                   ("KvtProofB", "labels.pdf")])
    rig.start_server()
    rig.start_second_server()
    first, second = f"127.0.0.1:{SERVER_PORT}", f"{SECOND}:{SERVER_PORT}"
    rig.start_web(first, second)
    wait_for("both servers polled",
             lambda: request("GET", "/metrics")[1].count(b"kvtnetd_up{") == 2)

    # promtool: the scrape and the packaged alert rules.
    scrape = request("GET", "/metrics")[1]
    for what, argv, data in (("metrics", [promtool, "check", "metrics"], scrape),
                             ("rules", [promtool, "check", "rules", RULES], None)):
        done = subprocess.run(argv, input=data, capture_output=True, timeout=DEADLINE)
        assert done.returncode == 0, f"promtool check {what}: {done.stdout!r} {done.stderr!r}"

    # Prometheus itself, loopback only, its own data folder, a scrape every second.
    port = free_port()
    config = os.path.join(rig.work, "prometheus.yml")
    with open(config, "w") as f:
        f.write(f"global: {{scrape_interval: 1s, evaluation_interval: 1s}}\n"
                f"rule_files: [{json.dumps(os.path.abspath(RULES))}]\n"
                f"scrape_configs:\n  - job_name: kvtweb\n"
                f"    static_configs: [{{targets: ['127.0.0.1:{WEB_PORT}']}}]\n")
    rig.spawn([prometheus, f"--config.file={config}", f"--web.listen-address=127.0.0.1:{port}",
               f"--storage.tsdb.path={os.path.join(rig.work, 'tsdb')}"])

    def query(expr):
        """{server: [values]} of an instant query (a range selector gives all its samples)."""
        path = "/api/v1/query?" + urllib.parse.urlencode({"query": expr})
        try:
            status, body = request("GET", path, port=port)
        except OSError:
            return {}
        result = json.loads(body)["data"]["result"] if status == 200 else []
        return {r["metric"].get("server", r["metric"].get("printer")):
                [float(v) for _, v in r.get("values", [r.get("value", [0, "nan"])])]
                for r in result}

    wait_for("Prometheus to see both servers up",
             lambda: query("kvtnetd_up") == {first: [1.0], second: [1.0]})
    # The job counts, printer by printer, are the scheduler's; the spool files the folder's.
    expected = {q: [float(n)] for q, n in rig.scheduler_jobs().items()}
    for server in (first, second):
        jobs = f'sum by (printer) (kvtnetd_jobs{{server="{server}"}})'
        wait_for(f"the job counts of {server}", lambda: query(jobs) == expected)
    assert query(f'sum(kvtnetd_spool_files{{server="{first}"}})') == {None: [2.0]}
    assert query(f'kvtnetd_spool_files{{server="{second}"}}') == {}
    # The oldest spool file's age: its time is the one in its job name.
    age = query(f'kvtnetd_oldest_spool_file_age_seconds{{server="{first}"}}')[first][0]
    assert abs(age - (time.time() - int(min(SPOOL_FILES)[:10]))) < 60, age

    # One server stops: its kvtnetd_up goes from 1 to 0, the other's stays 1.
    rig.others[0].send_signal(signal.SIGTERM)
    wait_for("Prometheus to see the second server down",
             lambda: query("kvtnetd_up") == {first: [1.0], second: [0.0]})
    history = query(f'kvtnetd_up{{server="{second}"}}[5m]')[second]
    assert history[0] == 1.0 and history[-1] == 0.0, history
    # Its own figures go with it (they would be stale); its polls and failures stay.
    assert query(f'kvtnetd_round_trip_seconds{{server="{second}"}}') == {}
    assert query(f'kvtweb_poll_failures_total{{server="{second}"}}')[second][0] >= 1
    assert query(f'kvtweb_poll_failures_total{{server="{first}"}}') == {first: [0.0]}


def wine(rig):
    """kvtweb.exe watching kvtnetd.exe, both under Wine: the page, the fleet and a scrape."""
    if not rig.wine[0]:
        skip("wine is not installed")
    rig.start_server()
    rig.start_web()
    wait_for("kvtweb.exe to see kvtnetd.exe up", lambda: b'kvtnetd_up{server="127.0.0.1:51470"} 1'
             in request("GET", "/metrics")[1])
    status, page = request("GET", "/")
    assert status == 200 and b'name="kvt-token"' in page, (status, page[:200])
    fleet = json.loads(request("GET", "/api/fleet")[1])
    assert [s["reachable"] for s in fleet["servers"]] == [True], fleet


def screenshot(rig):
    rig.hold_jobs([("KvtProofA", "quarterly-report.pdf"), ("KvtProofA", "price-list-2027.pdf"),
                   ("KvtProofB", "label-sheet.pdf")])
    rig.start_server()
    rig.start_web()
    from selenium.webdriver.support.ui import WebDriverWait
    from selenium.webdriver.common.by import By
    driver = chrome(1100, 820)

    def shoot(out):
        height = driver.execute_script("return document.documentElement.scrollHeight")
        driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": 1100, "height": height, "deviceScaleFactor": 1, "mobile": False})
        driver.save_screenshot(out)
    try:
        driver.get(ORIGIN + "/")
        WebDriverWait(driver, DEADLINE).until(
            lambda d: len(d.find_elements(By.CSS_SELECTOR, "button.cancel")) == 3)
        shoot(rig.args.out)
        # The fleet (OUT-fleet.png): this server, and one that does not answer, on top.
        rig.start_web(f"127.0.0.1:{SERVER_PORT}", f"127.0.0.1:{free_port()}")
        driver.get(ORIGIN + "/")
        WebDriverWait(driver, DEADLINE).until(
            lambda d: "1 of 2 servers reachable" in d.find_element(By.ID, "fleet-state").text)
        shoot(rig.args.out.replace(".png", "") + "-fleet.png")
    finally:
        driver.quit()


class StandIns:
    """Servers that speak the wire protocol's opening and an empty job listing, on one asyncio
    thread; the `dead` ones take the connection and never answer. Counts the listings."""

    def __init__(self, count, dead=0):
        self.listings, self.ports, self.loop = 0, [], asyncio.new_event_loop()
        ready = threading.Event()

        async def serve(reader, writer, silent):
            try:
                if silent:
                    await asyncio.sleep(3600)
                await reader.readexactly(4)
                writer.write(b"\x01")
                while (frame := await reader.readexactly(4))[3] == 1:  # CMD_LIST_JOBS
                    self.listings += 1
                    writer.write(struct.pack("<I", 0))
            except (asyncio.IncompleteReadError, ConnectionError, asyncio.CancelledError):
                pass
            writer.close()

        async def start():
            for i in range(count):
                server = await asyncio.start_server(
                    lambda r, w, silent=i < dead: serve(r, w, silent), "127.0.0.1", 0)
                self.ports.append(server.sockets[0].getsockname()[1])
            ready.set()

        threading.Thread(target=lambda: (self.loop.run_until_complete(start()),
                                         self.loop.run_forever()), daemon=True).start()
        ready.wait(DEADLINE)

    def addresses(self):
        return [f"127.0.0.1:{p}" for p in self.ports]


def memory_kib(pid):
    with open(f"/proc/{pid}/status") as f:
        fields = dict(line.split(":", 1) for line in f)
    return int(fields["VmRSS"].split()[0]), int(fields["VmHWM"].split()[0])


def timed(path, count=20, source="127.0.0.1"):
    """Median and highest time of `count` requests, in ms."""
    times = []
    for _ in range(count):
        start = time.monotonic()
        with socket.socket() as s:
            s.settimeout(DEADLINE)
            s.bind((source, 0))
            s.connect(("127.0.0.1", WEB_PORT))
            s.sendall(f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1:{WEB_PORT}\r\n"
                      "Connection: close\r\n\r\n".encode())
            while s.recv(65536):
                pass
        times.append((time.monotonic() - start) * 1000)
    return f"median {statistics.median(times):.1f} ms, highest {max(times):.1f} ms"


def scale(rig):
    """The figures of docs/performance.md (kvtweb section) and docs/reliability.md."""
    say = lambda text: print(text, flush=True)
    if rig.args.old_kvtweb:  # first: it can't bind its port while closed connections linger
        rig.web = subprocess.Popen([rig.args.old_kvtweb], stdout=subprocess.DEVNULL)
        wait_for("kvtweb 1.0.0 to listen", lambda: port_open(WEB_PORT))
        say("kvtweb 1.0.0:")
        slow_clients(rig, say, 40, 0)
    say("kvtweb:")
    # Listings per minute on a server with 1 and with 20 pages open (each page asks kvtweb for
    # the overview every 3 s, as the page does).
    one = StandIns(1)
    rig.start_web(*one.addresses(), options=("--interval", "3"))
    for pages in (1, 20):
        stop = threading.Event()
        def page():
            while not stop.is_set():
                request("GET", f"/api/overview?server={one.addresses()[0]}")
                stop.wait(3)
        threads = [threading.Thread(target=page) for _ in range(pages)]
        for t in threads:
            t.start()
        before = one.listings
        time.sleep(30)
        stop.set()
        for t in threads:
            t.join()
        say(f"{pages} page(s) open for 30 s: {(one.listings - before) * 2} listings per minute")

    # 50 servers: 2 real, 43 stand-ins that answer, 5 that never do.
    rig.start_server()
    rig.start_second_server()
    stand = StandIns(48, dead=5)
    rig.start_web(f"127.0.0.1:{SERVER_PORT}", f"{SECOND}:{SERVER_PORT}", *stand.addresses(),
                  options=("--interval", "3", "--timeout", "5"))
    time.sleep(2)  # the first polls: the 5 dead ones wait out their 5 s time-out meanwhile
    for path in ("/", "/api/fleet", "/metrics"):
        say(f"50 servers, 5 dead: GET {path}: {timed(path)}")
    say(f"50 servers: kvtweb VmRSS/VmHWM {memory_kib(rig.web.pid)} KiB")

    slow_clients(rig, say, 200, 200)


def slow_clients(rig, say, heads, idle_count):
    """`heads` connections trickling their request heads and `idle_count` idle kept-alive ones,
    20 from each of several addresses (under the cap per address); then page requests from
    yet another address: their times, and kvtweb's memory."""
    before = memory_kib(rig.web.pid)
    stop = threading.Event()
    slow = [trickle(min(20, heads - i), stop, f"127.0.0.{10 + i // 20}")
            for i in range(0, heads, 20)]
    idle = []
    for i in range(idle_count):
        s = socket.socket()
        s.bind((f"127.0.0.{50 + i // 20}", 0))
        s.connect(("127.0.0.1", WEB_PORT))
        s.sendall(f"GET /app.css HTTP/1.1\r\nHost: 127.0.0.1:{WEB_PORT}\r\n\r\n".encode())
        s.recv(65536)
        idle.append(s)
    time.sleep(3)  # every slow head has sent a few lines
    try:
        result = timed("/", 10, "127.0.0.99")
    except OSError as e:
        result = f"no answer ({e})"
    say(f"{heads} slow heads, {idle_count} idle keep-alive connections: GET /: {result}; "
        f"VmRSS/VmHWM {before} KiB before, {memory_kib(rig.web.pid)} KiB under them")
    stop.set()
    for t in slow:
        t.join()
    for s in idle:
        s.close()


def kvtctl(rig):
    """kvtctl's progress bar, drawn on a terminal for a file of 1 MiB or more, each percentage
    once; and its time-out against a server that takes the connection and never answers."""
    # A data folder with a short path: the server's spool paths have a fixed ceiling.
    rig.data = tempfile.mkdtemp(prefix="kvt-")
    os.makedirs(os.path.join(rig.data, "Corvina", "spool"))
    rig.start_server()
    path = os.path.join(rig.work, "big.pdf")
    with open(path, "wb") as f:
        f.write(b"%PDF" + b"p" * ((1 << 20) - 4))
    ours, its = pty.openpty()
    upload = subprocess.Popen([rig.args.kvtctl, "upload", path], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=its)
    os.close(its)
    shown = b""
    while True:  # read as it comes, so that a full terminal never holds kvtctl up
        try:
            chunk = os.read(ours, 65536)
        except OSError:  # EIO: kvtctl has ended and its end of the terminal is closed
            break
        if not chunk:
            break
        shown += chunk
    os.close(ours)
    assert upload.wait(timeout=DEADLINE) == 0, shown[-300:]
    draws = [d for d in shown.split(b"\r") if d.startswith(b"[")]
    assert draws and draws[-1].startswith(b"[" + b"#" * 40 + b"] 100% of 1048576 bytes"), shown
    percents = [int(d[43:46]) for d in draws]
    assert percents == sorted(set(percents)), percents
    print(f"{len(draws)} draws of the bar")
    silent = socket.create_server(("127.0.0.1", 0))  # connections wait in its queue, unread
    ping = subprocess.run([rig.args.kvtctl, "--port", str(silent.getsockname()[1]), "--timeout",
                           "1", "ping"], capture_output=True, text=True, timeout=DEADLINE)
    silent.close()
    assert ping.returncode == 1 and "no answer from the server within 1000 ms" in ping.stderr, ping
    rig.stop_server()
    shutil.rmtree(rig.data)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("mode", choices=["browser", "requests", "monitoring", "wine", "screenshot",
                                         "scale", "kvtctl"])
    parser.add_argument("--old-kvtweb", help="scale: also the slow clients against this kvtweb")
    parser.add_argument("--kvtnetd", required=True)
    parser.add_argument("--kvtweb", required=True)
    parser.add_argument("--kvtctl")
    parser.add_argument("--work", required=True)
    parser.add_argument("--out")
    args = parser.parse_args()
    for name in ("kvtnetd", "kvtweb", "kvtctl", "out", "old_kvtweb"):
        if getattr(args, name):
            setattr(args, name, os.path.abspath(getattr(args, name)))
    rig = Rig(args)
    try:
        {"browser": browser, "requests": requests, "monitoring": monitoring, "wine": wine,
         "screenshot": screenshot, "scale": scale, "kvtctl": kvtctl}[args.mode](rig)
    finally:
        rig.close()
    print("OK")


if __name__ == "__main__":
    main()
