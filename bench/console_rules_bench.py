#!/usr/bin/env python3
"""The console's rules page with many rules, beside the client's own `get`.

Not a timed test: run by hand (or `cmake --build ... --target
console_rules_bench`); the figures go to docs/performance.md ("Console rules
page").

A scratch root on a tmpfs inside a private mount namespace (the browser
tests' sandbox: nothing is written to the machine's /opt/korvex) gets
--rules rule files in the layout the plug-in writes, then a real kxserv and
kxconsole serve it. Three ways of listing every rule are timed, interleaved,
--repeat times each, and their medians compared:

  a. `kxctl request get @rule_resource=1 rule=`: the request GET /api/rules
     makes of kxserv, through the command-line client (its start included);
  b. GET /api/rules over HTTP with a logged-in session, body read whole;
  c. headless Chromium opening /rules until the page holds every rule (its
     count line says so), its first page of rows is in the table and a frame
     has been drawn after that.

For (c) the page's own marks split the time into fetching the list
(request, transfer and JSON parse) and building the first page (sorting and
filtering every rule, building one page of rows).

Exit codes: 0 every reply listed every rule, 1 one did not, 2 a setup
failure, 77 no browser installed.

Environment: KX_KXSERV, KX_KXCTL, KX_KXCONSOLE, KX_PLUGIN, KX_KXAECCTL,
KX_KXAIDE, KX_ASSETS (the custom target sets them).
"""

import argparse
import http.client
import json
import os
import re
import statistics
import subprocess
import sys
import time
import urllib.parse

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                "..", "tests", "browser"))
import console_browser_test as browser_test  # noqa: E402

# Resolves once the page has drawn its first page of rows (its
# kx-rules-rendered mark is set and rows are in the table) and the next frame
# is drawn; answers the page's marks (ms since navigation start), the rows in
# the table and the count line, which names the number of rules loaded.
WAIT_FOR_TABLE = """
const [done] = arguments;
const began = performance.now();
let seen = null;
function mark(name) {
  const found = performance.getEntriesByName(name, 'mark');
  return found.length ? found[0].startTime : null;
}
function check() {
  const rows = document.querySelectorAll('#rules-table tbody tr').length;
  if (rows === 0 || mark('kx-rules-rendered') === null) {
    requestAnimationFrame(check);
    return;
  }
  seen = performance.now();
  // One more frame: the rows have been laid out and painted.
  requestAnimationFrame(() => setTimeout(() => {
    const api = performance.getEntriesByType('resource')
        .filter((e) => e.name.endsWith('/api/rules'))[0];
    done({rows, count: document.getElementById('rules-count').textContent,
          drawn: performance.now(), began, seen,
          fetch_start: api ? api.startTime : null,
          response_end: api ? api.responseEnd : null,
          fetched: mark('kx-rules-fetched'), rendered: mark('kx-rules-rendered'),
          dom_loaded: performance.getEntriesByType('navigation')[0]
              .domContentLoadedEventEnd});
  }, 0));
}
check();
"""


def rule_file(index):
    """The index-th rule: two users, one group, three resources."""
    name = f"rule-{index}"
    return name, browser_test.rule_file_text(
        name, {f"user{index % 300}", f"user{index % 17}"}, [f"group{index % 60}"],
        [f"/usr/bin/tool{index}", f"/usr/lib/libtool{index}.so",
         f"/opt/app/{name}/bin/run"],
        enabled=index % 10 != 0, extended=index % 7 == 0)


def write_rules(root, count):
    directory = os.path.join(root, "etc", "aec", "rules")
    os.makedirs(directory, exist_ok=True)
    for index in range(count):
        name, text = rule_file(index)
        with open(os.path.join(directory, f"{name}.conf"), "w") as f:
            f.write(text)


class ApiSession:
    """An HTTP session with the console, logged in with a one-time link."""

    def __init__(self, sandbox):
        parts = urllib.parse.urlsplit(sandbox.url)
        self.host, self.port = parts.hostname, parts.port
        token = urllib.parse.parse_qs(
            urllib.parse.urlsplit(sandbox.login_link()).query)["token"][0]
        status, headers, _ = self.request(f"/login?token={token}", {})
        cookie = headers.get("set-cookie", "")
        if status != 303 or not cookie:
            raise RuntimeError(f"login refused: {status}")
        self.cookie = cookie.split(";")[0]

    def request(self, path, headers):
        connection = http.client.HTTPConnection(self.host, self.port, timeout=60)
        try:
            connection.request("GET", path, headers=headers)
            response = connection.getresponse()
            body = response.read()
            return (response.status,
                    {k.lower(): v for k, v in response.getheaders()}, body)
        finally:
            connection.close()

    def rules(self):
        status, _, body = self.request("/api/rules", {"Cookie": self.cookie})
        if status != 200:
            raise RuntimeError(f"GET /api/rules answered {status}")
        return body


def timed(function):
    start = time.perf_counter()
    result = function()
    return (time.perf_counter() - start) * 1000, result


def ms_or_unknown(value):
    """A page timestamp; the page may lack a mark (an older rules.js)."""
    return "?" if value is None else f"{value:.0f}"


def median(values):
    return statistics.median(values) if values else float("nan")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--rules", type=int, default=10000,
                        help="rule files in the scratch root (10000)")
    parser.add_argument("--repeat", type=int, default=7,
                        help="interleaved runs of each way (7)")
    args = parser.parse_args()
    if args.rules < 1 or args.repeat < 1:
        parser.error("--rules and --repeat must be at least 1")
    found = browser_test.find_browser()
    if found is None:
        print("console_rules_bench: chromium, chromedriver or selenium missing",
              file=sys.stderr)
        return browser_test.SKIP
    browser_test.enter_private_namespace()
    sys.stdout.reconfigure(line_buffering=True)

    print(f"load average at start: {os.getloadavg()}")
    sandbox = browser_test.Sandbox()
    browser = None
    failures = 0
    try:
        start = time.perf_counter()
        write_rules(sandbox.root, args.rules)
        print(f"{args.rules} rule files written in "
              f"{time.perf_counter() - start:.1f} s")
        kxctl = [browser_test.require_env("KX_KXCTL"), "--root", sandbox.root,
                 "request", "get", "@rule_resource=1", "rule="]
        api = ApiSession(sandbox)
        browser = browser_test.start_browser(
            *found, os.path.join(sandbox.base, "profile"))
        browser.set_script_timeout(120)
        browser.get(sandbox.login_link())

        times = {"a": [], "b": [], "c": []}
        parts = {"fetch_start": [], "fetch": [], "draw": [], "rows": []}
        reply_bytes = {}
        for run in range(args.repeat):
            ms, out = timed(lambda: subprocess.run(
                kxctl, check=True, capture_output=True).stdout)
            listed = out.count(b"<name>")
            failures += listed != args.rules
            times["a"].append(ms)
            reply_bytes["a"] = len(out)

            ms, body = timed(api.rules)
            listed = len(json.loads(body)["rules"])
            failures += listed != args.rules
            times["b"].append(ms)
            reply_bytes["b"] = len(body)

            start = time.perf_counter()
            browser.get(sandbox.url + "/rules")
            page = browser.execute_async_script(WAIT_FOR_TABLE)
            times["c"].append((time.perf_counter() - start) * 1000)
            # The page draws one page of rows; its count line says how many
            # rules it holds.
            counted = re.fullmatch(r"Rules \d+–(\d+) of (\d+)", page["count"])
            failures += (counted is None or int(counted.group(2)) != args.rules
                         or int(counted.group(1)) != page["rows"])
            if None not in (page["fetched"], page["rendered"],
                            page["fetch_start"]):
                parts["fetch_start"].append(page["fetch_start"])
                parts["fetch"].append(page["fetched"] - page["fetch_start"])
                parts["draw"].append(page["rendered"] - page["fetched"])
                parts["rows"].append(page["drawn"])
            print(f"run {run + 1}: a {times['a'][-1]:.0f} ms, "
                  f"b {times['b'][-1]:.0f} ms, c {times['c'][-1]:.0f} ms "
                  "(in page, ms: " + ", ".join(
                      f"{label} {ms_or_unknown(page[key])}" for key, label in (
                          ("fetch_start", "fetch from"),
                          ("fetched", "fetched+parsed"),
                          ("rendered", "first page built"), ("drawn", "drawn"),
                          ("began", "waited from"), ("seen", "rows seen"))) +
                  ")")
        a, b, c = (median(times[k]) for k in "abc")
        print(f"\nmedians of {args.repeat}, {args.rules} rules:")
        print(f"  a. kxctl get (baseline)       {a:8.1f} ms  "
              f"({reply_bytes['a']} bytes of XML)")
        print(f"  b. GET /api/rules             {b:8.1f} ms  "
              f"({reply_bytes['b']} bytes of JSON)  b/a {b / a:.2f}"
              "  (goal <= 1.5)")
        print(f"  c. /rules page, page drawn    {c:8.1f} ms  c/a {c / a:.2f}")
        if parts["fetch"]:
            print(f"     in the page: /api/rules requested at "
                  f"{median(parts['fetch_start']):.0f} ms, fetch + JSON parse "
                  f"{median(parts['fetch']):.0f} ms, first page built "
                  f"{median(parts['draw']):.0f} ms, drawn at "
                  f"{median(parts['rows']):.0f} ms")
        print(f"load average at end: {os.getloadavg()}")
    finally:
        if browser is not None:
            browser.quit()
        sandbox.close()
    if failures:
        print(f"console_rules_bench: {failures} replies did not list every rule",
              file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
