#!/usr/bin/python3
"""kvtweb against the real programs: kvtnetd on a data folder with spool files, the test run's
private CUPS scheduler (CUPS_SERVER) with held jobs, and kvtweb in front of them.

  web_test.py browser    --kvtnetd P --kvtweb P --work DIR   the page in headless Chromium
  web_test.py requests   --kvtnetd P --kvtweb P --work DIR   the request rules, one table
  web_test.py screenshot --kvtnetd P --kvtweb P --work DIR --out PNG

Exit code 77 (skipped) when what a mode needs is not installed. Every wait is on an event
with a deadline that only turns a hang into a failure.
"""
import argparse
import http.client
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import time

SERVER_PORT, WEB_PORT = 51470, 51480
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


def port_open(port):
    try:
        socket.create_connection(("127.0.0.1", port), timeout=1).close()
        return True
    except OSError:
        return False


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
        self.jobs = {}  # title: CUPS job id

    def start_server(self):
        env = dict(os.environ, ProgramData=self.data)
        self.server = subprocess.Popen([self.args.kvtnetd], cwd=self.work, env=env,
                                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_for("kvtnetd to listen", lambda: port_open(SERVER_PORT))

    def stop_server(self):
        self.server.send_signal(signal.SIGTERM)
        self.server.wait(timeout=DEADLINE)

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

    def scheduler_holds(self, job_id):
        out = subprocess.run(["lpstat", "-W", "not-completed", "-o"], check=True,
                             capture_output=True, text=True).stdout
        return re.search(rf"-{job_id}\s", out) is not None

    def start_web(self):
        self.web = subprocess.Popen([self.args.kvtweb, "--server", f"127.0.0.1:{SERVER_PORT}",
                                     "--listen", f"127.0.0.1:{WEB_PORT}"],
                                    stdout=subprocess.DEVNULL)
        wait_for("kvtweb to listen", lambda: port_open(WEB_PORT))

    def close(self):
        for p in (self.web, self.server):
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


def request(method, path, headers=(), body=None):
    conn = http.client.HTTPConnection("127.0.0.1", WEB_PORT, timeout=DEADLINE)
    conn.putrequest(method, path, skip_host=True, skip_accept_encoding=True)
    names = [n.lower() for n, _ in headers]
    if "host" not in names:
        conn.putheader("Host", f"127.0.0.1:{WEB_PORT}")
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
    return r.status, data


def requests(rig):
    rig.start_server()
    rig.start_web()
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
        ("garbage request line", b"HELLO THERE\r\n\r\n", 400),
        ("header line over the limit",
         b"GET / HTTP/1.1\r\nHost: 127.0.0.1:51480\r\nX: " + b"x" * 20000 + b"\r\n\r\n", 400),
        # kvtweb reads what the client announced until its 5 s read time-out, then answers.
        ("huge announced body, never sent", b"POST /api/cancel HTTP/1.1\r\nHost: 127.0.0.1:51480"
         b"\r\nX-KVT-Token: " + token.encode() + b"\r\nContent-Length: 10000000000\r\n\r\n", 413),
    ]
    for name, raw, expected in raw_cases:
        status = exchange(raw)
        if status != expected:
            failures.append(f"{name}: {status} instead of {expected}")
    # Nothing above deleted a file or stopped the program: the listing still shows both files.
    assert os.path.exists(spool_file), "a request deleted a spool file"
    status, data = request("GET", "/api/jobs")
    assert status == 200 and data.count(b'"name":"17800000000000') == 2, (status, data[:200])
    assert rig.web.poll() is None, "kvtweb ended"
    if failures:
        raise AssertionError("\n".join(failures))
    print(f"{len(cases) + len(raw_cases)} requests answered as expected")


def screenshot(rig):
    rig.hold_jobs([("KvtProofA", "quarterly-report.pdf"), ("KvtProofA", "price-list-2027.pdf"),
                   ("KvtProofB", "label-sheet.pdf")])
    rig.start_server()
    rig.start_web()
    from selenium.webdriver.support.ui import WebDriverWait
    from selenium.webdriver.common.by import By
    driver = chrome(1100, 820)
    try:
        driver.get(ORIGIN + "/")
        WebDriverWait(driver, DEADLINE).until(
            lambda d: len(d.find_elements(By.CSS_SELECTOR, "button.cancel")) == 3)
        height = driver.execute_script("return document.documentElement.scrollHeight")
        driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": 1100, "height": height, "deviceScaleFactor": 1, "mobile": False})
        driver.save_screenshot(rig.args.out)
    finally:
        driver.quit()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("mode", choices=["browser", "requests", "screenshot"])
    parser.add_argument("--kvtnetd", required=True)
    parser.add_argument("--kvtweb", required=True)
    parser.add_argument("--work", required=True)
    parser.add_argument("--out")
    args = parser.parse_args()
    for name in ("kvtnetd", "kvtweb", "out"):
        if getattr(args, name):
            setattr(args, name, os.path.abspath(getattr(args, name)))
    rig = Rig(args)
    try:
        {"browser": browser, "requests": requests, "screenshot": screenshot}[args.mode](rig)
    finally:
        rig.close()
    print("OK")


if __name__ == "__main__":
    main()
