#!/usr/bin/env python3
"""The web console in a real browser, against a real kxserv and kxconsole.

Headless Chromium (driven by Selenium through chromedriver) uses the pages
as an administrator would. The service and the console run on a scratch
root on a tmpfs inside this process's private mount namespace, so nothing
is written to the machine's /opt/korvex.

Exit codes: 0 all passed, 1 a failure, 77 skipped (no browser installed and
KX_REQUIRE_BROWSER not set).

Environment (set by CTest): KX_KXSERV, KX_KXCTL, KX_KXCONSOLE, KX_PLUGIN,
KX_KXAECCTL, KX_KXAIDE, KX_ASSETS, KX_SCREENSHOTS.
"""

import datetime
import json
import os
import re
import shutil
import signal
import sqlite3
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse

SKIP = 77
IN_NAMESPACE = "KX_BROWSER_IN_NAMESPACE"
# A zone with a half-hour offset: a conversion that ignored the browser's
# local time would be off by hours and minutes, not by nothing.
BROWSER_TZ = "Asia/Kolkata"
BROWSER_UTC_OFFSET = datetime.timedelta(hours=5, minutes=30)
WAIT_SECONDS = 15


def find_browser():
    """Paths of chromium and chromedriver, or None when either is missing."""
    chromium = shutil.which("chromium") or shutil.which("chromium-browser")
    driver = shutil.which("chromedriver")
    if chromium is None or driver is None:
        return None
    try:
        import selenium  # noqa: F401
    except ImportError:
        return None
    return chromium, driver


def enter_private_namespace():
    """Re-runs this script in a private mount namespace (once)."""
    if os.environ.get(IN_NAMESPACE) == "1":
        return
    command = ["unshare", "--mount", "--propagation", "private"]
    if os.geteuid() != 0:
        command.append("--map-root-user")
    env = dict(os.environ, **{IN_NAMESPACE: "1"})
    try:
        os.execvpe(command[0], command + [sys.executable] + sys.argv, env)
    except OSError as error:
        sys.exit(f"console_browser_test: cannot run unshare: {error}")


def require_env(name):
    value = os.environ.get(name)
    if not value:
        sys.exit(f"console_browser_test: {name} is not set (run through ctest)")
    return value


# The engine's journal table and indexes (engine/journal/journal_schema.cpp).
JOURNAL_SCHEMA = """
CREATE TABLE IF NOT EXISTS logs (
  id INTEGER PRIMARY KEY, event_id INTEGER NOT NULL, date_time INTEGER,
  app TEXT, object_name TEXT, username TEXT, groupname TEXT, success INTEGER,
  pid INTEGER, uid INTEGER, gid INTEGER, hostname TEXT, description TEXT);
CREATE INDEX IF NOT EXISTS logs_time
  ON logs(date_time, event_id, success, username, groupname, app);
CREATE INDEX IF NOT EXISTS logs_user_time ON logs(username, date_time);
CREATE INDEX IF NOT EXISTS logs_app_time ON logs(app, date_time);
CREATE INDEX IF NOT EXISTS logs_group_time ON logs(groupname, date_time);
CREATE TABLE IF NOT EXISTS dropped_events (
  date_time INTEGER NOT NULL, count INTEGER NOT NULL);
"""


def rule_file_text(name, users, groups, resources, enabled=True, extended=False):
    """A rule file as the plug-in writes it (AecRule::ToJson)."""
    rule = {
        "name": name,
        "all_allowed": "false",
        "extended": "true" if extended else "false",
        "system": "false",
        "enable": "true" if enabled else "false",
        "user_list": sorted(users),
        "group_list": sorted(groups),
        "resource_list": sorted(resources),
    }
    return json.dumps(rule, indent=4) + "\n"


class Journal:
    """Writes rows as the engine's journal writer does (docs/journal.md)."""

    def __init__(self, path):
        self.path = path
        with sqlite3.connect(path) as db:
            db.executescript(JOURNAL_SCHEMA)

    def add(self, rows):
        """rows: (event_id, time, program, path, user, group, success)."""
        with sqlite3.connect(self.path) as db:
            db.executemany(
                "INSERT INTO logs (event_id, date_time, app, object_name,"
                " username, groupname, success) VALUES (?, ?, ?, ?, ?, ?, ?)",
                [(e, t, app or None, f'"{obj}";', user or None, group or None, ok)
                 for e, t, app, obj, user, group, ok in rows])


class Sandbox:
    """A scratch root on a tmpfs with kxserv and kxconsole serving it."""

    def __init__(self):
        self.base = tempfile.mkdtemp(prefix="kxbrowser-")
        # Only this namespace sees the tmpfs; it vanishes with the process.
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=512m", "kxbrowser",
                        self.base], check=True)
        self.root = os.path.join(self.base, "root")
        for sub in ("bin", "var/log", "var/export"):
            os.makedirs(os.path.join(self.root, sub))
        for tool in ("KX_KXAECCTL", "KX_KXAIDE"):
            shutil.copy(require_env(tool), os.path.join(self.root, "bin"))
        self.journal = Journal(os.path.join(self.root, "var/log/audit_logs.db"))
        self.kxserv = None
        self.console = None
        self.url = None
        try:
            self.start_service()
            self.start_console()
        except BaseException:
            self.close()  # no service left running after a failed start
            raise

    def path(self, relative):
        return os.path.join(self.root, relative)

    def start_service(self):
        log = open(self.path("var/log/kxserv.stderr"), "ab")
        self.kxserv = subprocess.Popen(
            [require_env("KX_KXSERV"), "--foreground", "-v", "--root", self.root,
             "--plugin", require_env("KX_PLUGIN")],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=log)
        log.close()
        socket = self.path("var/run/kxserv.sock")
        deadline = time.monotonic() + WAIT_SECONDS
        while not os.path.exists(socket):
            if self.kxserv.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError("kxserv did not start:\n" + self.service_log())
            time.sleep(0.05)

    def stop_service(self):
        if self.kxserv is not None:
            self.kxserv.send_signal(signal.SIGTERM)
            self.kxserv.wait(timeout=WAIT_SECONDS)
            self.kxserv = None

    def service_log(self):
        with open(self.path("var/log/kxserv.stderr"), errors="replace") as f:
            return f.read()

    def start_console(self):
        self.console = subprocess.Popen(
            [require_env("KX_KXCONSOLE"), "--root", self.root, "--port", "0",
             "--assets", require_env("KX_ASSETS"), "--foreground"],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        line = self.console.stdout.readline()
        match = re.match(r"kxconsole: listening on (http://127\.0\.0\.1:\d+)/", line)
        if not match:
            raise RuntimeError(f"kxconsole did not say where it listens: {line!r}")
        self.url = match.group(1)

    def login_link(self):
        """A fresh one-time link from kxctl, pointed at this console's port."""
        out = subprocess.run(
            [require_env("KX_KXCTL"), "--root", self.root, "console-login"],
            check=True, capture_output=True, text=True).stdout
        link = re.search(r"https?://\S+/login\?token=([0-9a-f]+)", out)
        if not link:
            raise RuntimeError(f"kxctl console-login printed no link: {out!r}")
        return f"{self.url}/login?token={link.group(1)}"

    def close(self):
        if self.console is not None:
            self.console.send_signal(signal.SIGTERM)
            try:
                self.console.wait(timeout=WAIT_SECONDS)
            except subprocess.TimeoutExpired:
                self.console.kill()
        try:
            self.stop_service()
        except subprocess.TimeoutExpired:
            self.kxserv.kill()
        subprocess.run(["umount", "-l", self.base], check=False)
        os.rmdir(self.base)


def start_browser(chromium, driver_path, profile):
    from selenium import webdriver
    from selenium.webdriver.chrome.service import Service

    options = webdriver.ChromeOptions()
    options.binary_location = chromium
    for argument in ("--headless=new", "--no-sandbox", "--disable-gpu",
                     "--disable-dev-shm-usage", "--window-size=1280,1000",
                     "--lang=en-US", f"--user-data-dir={profile}"):
        options.add_argument(argument)
    # The browser's console is read after each test: script errors and
    # Content-Security-Policy refusals fail it.
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    return webdriver.Chrome(service=Service(executable_path=driver_path),
                            options=options)


SANDBOX = None
BROWSER = None
SCREENSHOTS = None


def setUpModule():
    global SANDBOX, BROWSER, SCREENSHOTS
    SCREENSHOTS = require_env("KX_SCREENSHOTS")
    os.makedirs(SCREENSHOTS, exist_ok=True)
    os.environ["TZ"] = BROWSER_TZ
    SANDBOX = Sandbox()
    try:
        chromium, driver = find_browser()
        BROWSER = start_browser(chromium, driver, os.path.join(SANDBOX.base, "profile"))
        BROWSER.set_script_timeout(WAIT_SECONDS)
    except BaseException:
        tearDownModule()  # unittest does not call it when this fails
        raise


def tearDownModule():
    if BROWSER is not None:
        BROWSER.quit()
    if SANDBOX is not None:
        SANDBOX.close()


class ConsoleTest(unittest.TestCase):
    def setUp(self):
        self.b = BROWSER
        self.sandbox = SANDBOX
        self.b.get_log("browser")  # what earlier tests left

    def tearDown(self):
        # Answers with an error status are logged too; they are expected
        # (the CSRF refusal, the stopped service) and checked by the tests.
        problems = [entry["message"] for entry in self.b.get_log("browser")
                    if entry["level"] == "SEVERE"
                    and "Failed to load resource" not in entry["message"]]
        self.assertEqual(problems, [], "the browser reported script errors or refusals")

    # --- helpers ----------------------------------------------------------
    def wait(self, condition, message):
        from selenium.common.exceptions import TimeoutException
        from selenium.webdriver.support.ui import WebDriverWait
        try:
            return WebDriverWait(self.b, WAIT_SECONDS, poll_frequency=0.1).until(
                lambda _: condition())
        except TimeoutException:
            self.fail(f"{message}; the page said: {self.page_messages()}\n"
                      f"kxserv's last log lines:\n{self.sandbox.service_log()[-3000:]}")

    def page_messages(self):
        """What the page showed the user, for failure reports."""
        shown = []
        for css in ("#message", "#service-status"):
            found = self.find_all(css)
            if found and found[0].text:
                shown.append(f"{css}: {found[0].text!r}")
        return "; ".join(shown) or "nothing"

    def find(self, css):
        from selenium.webdriver.common.by import By
        return self.b.find_element(By.CSS_SELECTOR, css)

    def find_all(self, css):
        from selenium.webdriver.common.by import By
        return self.b.find_elements(By.CSS_SELECTOR, css)

    def text(self, css):
        return self.find(css).text

    def login(self):
        self.b.get(self.sandbox.login_link())
        self.wait(lambda: self.page() == "overview", "the login did not open the overview")

    def page(self):
        try:
            return self.find("body").get_attribute("data-page")
        except Exception:  # the page is being replaced
            return None

    def open(self, path, page):
        self.b.get(self.sandbox.url + path)
        self.wait(lambda: self.page() == page, f"{path} did not open the {page} page")

    def screenshot(self, name):
        self.b.save_screenshot(os.path.join(SCREENSHOTS, f"{name}.png"))

    def set_value(self, element_id, value):
        field = self.find(f"#{element_id}")
        field.clear()
        if value:
            field.send_keys(value)

    def set_datetime(self, element_id, local_value):
        # Typing into datetime-local depends on the browser's locale; the
        # value property takes the one standard form.
        self.b.execute_script(
            "document.getElementById(arguments[0]).value = arguments[1];",
            element_id, local_value)

    def fetch(self, method, path, body=None, headers=None):
        """fetch() from inside the page: {status, body}."""
        return self.b.execute_async_script(
            """const [method, path, body, headers, done] = arguments;
            const init = {method, headers: headers || {}, credentials: 'same-origin'};
            if (body !== null) init.body = body;
            fetch(path, init).then(async (r) => done({status: r.status, body: await r.text()}),
                                   (e) => done({status: -1, body: String(e)}));""",
            method, path, body, headers)

    def rule_file(self, name):
        return self.sandbox.path(f"etc/aec/rules/{name}.conf")

    def add_rule_on_page(self, name, users, resources):
        """Adds a rule with the rules page's form; the CSS path of its row."""
        self.open("/rules", "rules")
        self.set_value("rule-name", name)
        self.set_value("rule-users", users)
        self.set_value("rule-resources", resources)
        self.find("#rule-add").click()
        row = f'#rules-table tr[data-rule="{name}"]'
        self.wait(lambda: self.find_all(row), f"the new rule {name} did not appear in the list")
        return row

    # --- the behaviours ---------------------------------------------------
    def test_one_time_link_logs_in_and_a_reused_link_is_refused(self):
        self.b.delete_all_cookies()
        self.b.get(self.sandbox.url + "/")
        self.wait(lambda: self.page() == "welcome", "without a session / did not lead to welcome")
        self.assertIn("kxctl console-login", self.text("body"))
        self.screenshot("welcome")

        link = self.sandbox.login_link()
        self.b.get(link)
        self.wait(lambda: self.page() == "overview", "a fresh link did not log in")
        self.assertEqual(urllib.parse.urlparse(self.b.current_url).path, "/")
        self.assertIsNotNone(self.b.get_cookie("kxsession"))
        self.wait(lambda: self.text("#ov-state") in ("On", "Off"), "the overview stayed empty")
        self.screenshot("overview")

        self.b.delete_all_cookies()
        self.b.get(link)
        self.wait(lambda: "This login link is not valid" in self.text("body"),
                  "a used link was not refused")
        self.assertIsNone(self.b.get_cookie("kxsession"))
        self.b.get(self.sandbox.url + "/rules")
        self.wait(lambda: self.page() == "welcome", "a refused link opened a session")

    def test_added_rule_shows_in_list_and_on_disk(self):
        self.login()
        self.add_rule_on_page("build-tools", "root, daemon", "/usr/bin/env\n/usr/bin/sort")
        self.assertIn("Rule build-tools added.", self.text("#message"))
        with open(self.rule_file("build-tools")) as f:
            on_disk = json.load(f)
        self.assertEqual(on_disk["name"], "build-tools")
        self.assertEqual(on_disk["user_list"], ["daemon", "root"])
        # add also records what the programs load (their libraries).
        self.assertIn("/usr/bin/env", on_disk["resource_list"])
        self.assertIn("/usr/bin/sort", on_disk["resource_list"])

        # The search narrows the list; the detail shows the resources.
        self.set_value("rules-search", "no-such-rule")
        self.wait(lambda: not self.find_all('#rules-table tr[data-rule="build-tools"]'),
                  "the search did not hide the rule")
        self.set_value("rules-search", "sort")
        self.wait(lambda: self.find_all('#rules-table tr[data-rule="build-tools"]'),
                  "searching for one of its resources did not find the rule")
        self.find('tr[data-rule="build-tools"] .rule-view').click()
        self.wait(lambda: "/usr/bin/sort" in self.text("#rule-detail"),
                  "the rule's resources were not shown")
        self.screenshot("rules")

    def test_rule_disabled_renamed_and_removed_from_rules_page(self):
        self.login()
        row = self.add_rule_on_page("short-lived", "root", "/usr/bin/env")

        self.find(f"{row} .rule-toggle").click()
        self.wait(lambda: "disabled" in self.text(row), "the rule was not disabled")
        with open(self.rule_file("short-lived")) as f:
            self.assertEqual(json.load(f)["enable"], "false")

        self.find(f"{row} .rule-rename").click()
        self.set_value("rule-new-name", "renamed-rule")
        self.find("#rule-rename-form button[type=submit]").click()
        renamed = '#rules-table tr[data-rule="renamed-rule"]'
        self.wait(lambda: self.find_all(renamed), "the renamed rule is not listed")
        self.assertEqual(self.find_all(row), [])
        self.assertFalse(os.path.exists(self.rule_file("short-lived")))
        self.assertTrue(os.path.exists(self.rule_file("renamed-rule")))

        # Removing takes a second click.
        self.find(f"{renamed} .rule-remove").click()
        self.assertTrue(os.path.exists(self.rule_file("renamed-rule")))
        self.find(f"{renamed} .rule-remove").click()
        self.wait(lambda: not self.find_all(renamed), "the removed rule is still listed")
        self.assertFalse(os.path.exists(self.rule_file("renamed-rule")))

    def test_rules_page_pages_through_many_rules_and_search_covers_all(self):
        directory = self.sandbox.path("etc/aec/rules")
        names = [f"paged-{i:03d}" for i in range(250)]
        for name in names:
            with open(os.path.join(directory, f"{name}.conf"), "w") as f:
                f.write(rule_file_text(name, ["user7"], ["paged-group"],
                                       [f"/usr/lib/lib{name[-3:]}.so"]))

        def remove_files():
            for name in names:
                os.remove(os.path.join(directory, f"{name}.conf"))
        self.addCleanup(remove_files)

        self.login()
        total = len(json.loads(self.fetch("GET", "/api/rules")["body"])["rules"])
        self.assertGreaterEqual(total, 250)
        pages = (total + 99) // 100
        self.open("/rules", "rules")
        rows = "#rules-table tbody tr"
        self.wait(lambda: self.text("#rules-count") == f"Rules 1–100 of {total}",
                  f"the first page did not count 100 of {total} rules")
        self.assertEqual(self.text("#rules-page"), f"Page 1 of {pages}")
        self.assertEqual(len(self.find_all(rows)), 100)
        self.assertTrue(self.find_all('tr[data-rule="paged-000"]'))
        self.assertFalse(self.find_all('tr[data-rule="paged-249"]'))
        self.assertFalse(self.find("#rules-prev").is_enabled())
        self.screenshot("rules-paged")

        self.find("#rules-next").click()
        self.wait(lambda: self.text("#rules-page") == f"Page 2 of {pages}",
                  "next did not go to page 2")
        self.assertEqual(self.text("#rules-count"), f"Rules 101–200 of {total}")
        self.assertFalse(self.find_all('tr[data-rule="paged-000"]'))
        self.assertTrue(self.find("#rules-prev").is_enabled())
        for _ in range(pages - 2):
            self.find("#rules-next").click()
        self.wait(lambda: self.text("#rules-page") == f"Page {pages} of {pages}",
                  "next did not reach the last page")
        self.assertEqual(len(self.find_all(rows)), total - 100 * (pages - 1))
        self.assertFalse(self.find("#rules-next").is_enabled())
        self.find("#rules-prev").click()
        self.wait(lambda: self.text("#rules-page") == f"Page {pages - 1} of {pages}",
                  "previous did not go back a page")

        # The search covers every rule, not only the page shown, and starts
        # again at its own first page.
        self.set_value("rules-search", "paged-group")
        in_all = "" if total == 250 else f" matching ({total} in all)"
        self.wait(lambda: self.text("#rules-count") == f"Rules 1–100 of 250{in_all}",
                  "the search did not count the 250 rules of its group")
        self.assertEqual(self.text("#rules-page"), "Page 1 of 3")
        self.assertTrue(self.find_all('tr[data-rule="paged-000"]'))
        self.set_value("rules-search", "lib249.so")
        found = f"Rules 1–1 of 1 matching ({total} in all)"
        self.wait(lambda: self.text("#rules-count") == found,
                  "searching for a resource of a rule on the last page did not find it")
        self.assertEqual(self.text("#rules-page"), "Page 1 of 1")
        self.assertEqual([r.get_attribute("data-rule") for r in self.find_all(rows)],
                         ["paged-249"])
        self.find('tr[data-rule="paged-249"] .rule-view').click()
        self.wait(lambda: "/usr/lib/lib249.so" in self.text("#rule-detail"),
                  "the found rule's resources were not shown")

    def test_control_switched_on_and_hard_mode_goes_through_confirmation(self):
        self.login()
        self.open("/control", "control")
        self.wait(lambda: self.text("#ctl-state") in ("On", "Off"), "the control page stayed empty")
        self.assertEqual(self.text("#ctl-phase"), "No switch to hard mode is pending.")
        self.assertFalse(self.find("#ctl-confirm").is_enabled())

        self.find("#ctl-on").click()
        self.wait(lambda: self.text("#ctl-state") == "On", "control did not switch on")
        self.find("#ctl-hard").click()
        self.wait(lambda: "waiting for an administrator" in self.text("#ctl-phase")
                  or "was requested" in self.text("#ctl-phase"),
                  "hard mode did not wait for a confirmation")
        self.assertTrue(self.find("#ctl-confirm").is_enabled())
        self.screenshot("control-waiting")

        self.find("#ctl-confirm").click()
        self.wait(lambda: self.text("#ctl-phase") == "Hard mode is confirmed.",
                  "the confirmation did not show")
        self.assertTrue(self.text("#ctl-mode").startswith("Hard"))
        with open(self.sandbox.path("var/run/sysctl/korvex/secure/environment")) as f:
            self.assertEqual(f.read().strip(), "3")
        self.screenshot("control")

        # Leave the machine as the other tests expect it.
        self.find("#ctl-soft").click()
        self.wait(lambda: self.text("#ctl-mode").startswith("Soft"), "soft mode did not return")
        self.find("#ctl-off").click()
        self.wait(lambda: self.text("#ctl-state") == "Off", "control did not switch off")

    def test_journal_filtered_by_local_date_and_user_pages_through_rows(self):
        # 130 events of alice in a window two days ago, some of bob in it,
        # and alice's events just outside it on both sides.
        start = int(time.time()) // 3600 * 3600 - 2 * 86400
        rows = [(1051, start + 60 * i, f"/usr/bin/tool{i}", f"/usr/bin/tool{i}",
                 "alice", "staff", 0) for i in range(130)]
        rows += [(1050, start + 30 + 60 * i, "/usr/bin/env", "/usr/bin/env",
                  "bob", "staff", 1) for i in range(20)]
        rows += [(1051, start - 1, "/usr/bin/early", "/usr/bin/early", "alice", "staff", 0),
                 (1051, start + 3 * 3600, "/usr/bin/late", "/usr/bin/late", "alice", "staff", 0)]
        self.sandbox.journal.add(rows)

        def local(epoch):
            # The browser runs in BROWSER_TZ: its pickers hold that local time.
            moment = datetime.datetime.utcfromtimestamp(epoch) + BROWSER_UTC_OFFSET
            return moment.strftime("%Y-%m-%dT%H:%M:%S")

        self.login()
        self.open("/journal", "journal")
        self.set_datetime("j-since", local(start))
        self.set_datetime("j-until", local(start + 3 * 3600))
        self.set_value("j-user", "alice")
        self.find("#j-apply").click()
        self.wait(lambda: self.text("#j-total") == "130 events", "the filter did not count 130")
        self.assertEqual(self.text("#j-page"), "Page 1 of 3")
        rows_shown = self.find_all("#j-table tbody tr")
        self.assertEqual(len(rows_shown), 50)
        # Newest first: tool129 at the top.
        self.assertIn("/usr/bin/tool129", rows_shown[0].text)
        self.assertNotIn("bob", self.text("#j-table tbody"))
        self.assertFalse(self.find("#j-prev").is_enabled())
        self.screenshot("journal")

        self.find("#j-next").click()
        self.wait(lambda: self.text("#j-page") == "Page 2 of 3", "next did not go to page 2")
        self.assertIn("/usr/bin/tool79", self.find_all("#j-table tbody tr")[0].text)
        self.find("#j-next").click()
        self.wait(lambda: self.text("#j-page") == "Page 3 of 3", "next did not go to page 3")
        self.assertEqual(len(self.find_all("#j-table tbody tr")), 30)
        self.assertIn("/usr/bin/tool0", self.find_all("#j-table tbody tr")[-1].text)
        self.assertFalse(self.find("#j-next").is_enabled())
        self.find("#j-prev").click()
        self.wait(lambda: self.text("#j-page") == "Page 2 of 3", "previous did not go back")

        csv = urllib.parse.urlparse(self.find("#j-csv").get_attribute("href"))
        query = urllib.parse.parse_qs(csv.query)
        self.assertEqual(query["since"], [str(start)])
        self.assertEqual(query["until"], [str(start + 3 * 3600)])
        self.assertEqual(query["user"], ["alice"])
        exported = self.fetch("GET", f"{csv.path}?{csv.query}")
        self.assertEqual(exported["status"], 200)
        lines = exported["body"].strip().split("\n")
        self.assertEqual(lines[0].strip(), "time,event,outcome,program,object,user,group")
        self.assertEqual(len(lines), 1 + 130)

    def test_program_name_with_markup_renders_as_text(self):
        markup = ["<script>alert(1)</script>",
                  '<img src=x onerror="document.title=\'owned\'">']
        now = int(time.time())
        self.sandbox.journal.add(
            [(1051, now - 10 - i, name, "/tmp/x", "mallory", "staff", 0)
             for i, name in enumerate(markup)])
        self.login()
        self.open("/journal", "journal")
        self.set_value("j-user", "mallory")
        self.find("#j-apply").click()
        self.wait(lambda: self.text("#j-total") == "2 events", "the markup rows were not found")
        cells = [cell.text for cell in self.find_all("#j-table .j-program-cell")]
        self.assertEqual(sorted(cells), sorted(markup))
        self.assertEqual(self.find_all("#j-table script, #j-table img"), [])
        self.assertNotEqual(self.b.title, "owned")
        from selenium.common.exceptions import NoAlertPresentException
        with self.assertRaises(NoAlertPresentException):
            self.b.switch_to.alert.text
        self.screenshot("journal-markup")

    def test_learned_rule_accepted_from_learning_page_exists(self):
        now = int(time.time())
        self.sandbox.journal.add(
            [(1051, now - 100 - i, "/usr/bin/od", "/usr/bin/od", "root", "root", 0)
             for i in range(3)])
        self.login()
        self.open("/learning", "learning")
        self.find("#l-propose").click()
        proposal = '#l-proposals [data-proposal="learned-od"]'
        self.wait(lambda: self.find_all(proposal), "no rule was proposed for /usr/bin/od")
        self.assertIn("/usr/bin/od", self.text(proposal))

        # Before the rule exists, hard mode would deny root's od.
        self.find("#l-whatif").click()
        self.wait(lambda: "/usr/bin/od" in self.text("#l-report"),
                  "the what-if report did not name /usr/bin/od")
        self.assertTrue(self.text("#l-verdict").startswith("Hard mode would have denied some"))
        self.screenshot("learning")

        self.find(f"{proposal} .l-accept").click()
        self.wait(lambda: "Rule learned-od added." in self.text("#message"),
                  "accepting did not report the new rule")
        self.assertTrue(os.path.exists(self.rule_file("learned-od")))
        self.open("/rules", "rules")
        self.wait(lambda: self.find_all('#rules-table tr[data-rule="learned-od"]'),
                  "the accepted rule is not in the list")

    def test_post_without_csrf_token_is_refused(self):
        self.login()
        self.open("/rules", "rules")
        body = '{"name":"sneaky","users":["root"],"groups":[],"resources":["/usr/bin/od"]}'
        headers = {"Content-Type": "application/json"}
        refused = self.fetch("POST", "/api/rules/add", body, headers)
        self.assertEqual(refused["status"], 403, refused["body"])
        self.assertIn("csrf", refused["body"])
        wrong = self.fetch("POST", "/api/rules/add", body,
                           dict(headers, **{"X-CSRF-Token": "0" * 64}))
        self.assertEqual(wrong["status"], 403, wrong["body"])
        listed = self.fetch("GET", "/api/rules")
        self.assertEqual(listed["status"], 200)
        self.assertNotIn('"sneaky"', listed["body"])
        self.assertFalse(os.path.exists(self.rule_file("sneaky")))

    def test_whitelist_and_exceptions_saved_from_lists_page(self):
        self.login()
        self.open("/lists", "lists")
        self.set_value("wl-users", "backup")
        self.set_value("wl-groups", "adm")
        self.find("#wl-save").click()
        self.wait(lambda: self.text("#message").startswith("Whitelist saved."),
                  "the whitelist was not saved")
        with open(self.sandbox.path("etc/aec/white-list.config")) as f:
            saved = f.read()
        self.assertIn("backup", saved)
        self.assertIn("adm", saved)
        # Read back from the service, not just left in the form.
        self.open("/lists", "lists")
        self.wait(lambda: self.find("#wl-users").get_attribute("value") == "backup",
                  "the saved whitelist was not read back")
        self.assertEqual(self.find("#wl-groups").get_attribute("value"), "adm")

        self.set_value("ex-resources", "/usr/bin/sort")
        self.find("#ex-save").click()
        self.wait(lambda: self.text("#message").startswith("Exceptions saved."),
                  "the exceptions were not saved")
        with open(self.sandbox.path("etc/aec/resource-exception.conf")) as f:
            self.assertIn("sort", f.read())
        self.open("/lists", "lists")
        self.wait(lambda: self.find("#ex-resources").get_attribute("value") == "/usr/bin/sort",
                  "the saved exceptions were not read back")
        self.screenshot("lists")

    def test_stopped_service_shows_banner_until_it_is_back(self):
        self.login()
        self.open("/rules", "rules")
        banner = "#service-status"
        self.assertFalse(self.find(banner).is_displayed())
        self.sandbox.stop_service()
        try:
            self.wait(lambda: self.find(banner).is_displayed()
                      and "The service is not reachable" in self.text(banner),
                      "no banner while the service was stopped")
            self.screenshot("service-unreachable")
        finally:
            self.sandbox.start_service()
        self.wait(lambda: not self.find(banner).is_displayed(),
                  "the banner stayed after the service came back")


def main():
    browser = find_browser()
    if browser is None:
        if os.environ.get("KX_REQUIRE_BROWSER"):
            print("console_browser_test: chromium, chromedriver or python3-selenium is "
                  "missing and KX_REQUIRE_BROWSER is set", file=sys.stderr)
            return 1
        print("console_browser_test: skipped: chromium, chromedriver or python3-selenium "
              "is not installed", file=sys.stderr)
        return SKIP
    enter_private_namespace()
    result = unittest.main(argv=[sys.argv[0], "-v"] + sys.argv[1:], exit=False).result
    return 0 if result.wasSuccessful() else 1


if __name__ == "__main__":
    sys.exit(main())
