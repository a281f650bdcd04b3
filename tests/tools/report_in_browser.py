"""The inspection report in a real browser: headless Chromium opens reports that the
tool wrote, draws them, and shows the numbers of the tool's JSON.

usage: report_in_browser.py ZOR_REGISTER WORK_DIR
Exits 77 (skipped) when no Chromium is installed.
"""
import json
import os
import re
import shutil
import subprocess
import sys


def browser():
    for name in ("chromium", "chromium-browser", "google-chrome"):
        path = shutil.which(name)
        if path:
            return path
    return None


def dom(chromium, page):
    """The page's DOM once its scripts have run (up to 5 s of page time)."""
    out = subprocess.run(
        [chromium, "--headless", "--no-sandbox", "--disable-gpu", "--enable-unsafe-swiftshader",
         "--use-angle=swiftshader", "--window-size=1200,800", "--virtual-time-budget=5000", "--dump-dom",
         "file://" + os.path.abspath(page)],
        capture_output=True, text=True, timeout=120)
    if out.returncode != 0:
        raise AssertionError("chromium failed: " + out.stderr[-2000:])
    return out.stdout


def body(page_dom):
    tag = re.search(r"<body([^>]*)>", page_dom).group(1)
    return dict(re.findall(r'data-(\w+)="([^"]*)"', tag))


def value(page_dom, element):
    return float(re.search(r'id="%s" data-value="([^"]*)"' % element, page_dom).group(1))


def tool(zor, *args):
    out = subprocess.run([zor, *args], capture_output=True, text=True, timeout=300)
    if out.returncode != 0:
        raise AssertionError("zor-register %s failed: %s" % (" ".join(args), out.stderr))
    return out.stdout


def close(a, b):
    return abs(a - b) <= 1e-9 * max(1.0, abs(a), abs(b))


def main():
    zor, work = sys.argv[1], sys.argv[2]
    chromium = browser()
    if chromium is None:
        print("SKIP: no Chromium here (apt-get install chromium); the report was not opened in a browser")
        return 77
    os.makedirs(work, exist_ok=True)
    os.chdir(work)
    tool(zor, "demo", "--save", "pair", "--triangles", "20000", "--quiet")
    passed, failures = [], []

    def check(what, ok):
        print(("ok    " if ok else "FAIL  ") + what)
        (passed if ok else failures).append(what)

    for command in ("align", "icp", "morph"):
        report = json.loads(tool(zor, command, "pair/moving.stl", "pair/fixed.stl", "--json", "--report",
                                 command + ".html"))
        page = dom(chromium, command + ".html")
        state = body(page)
        check(command + ": the page drew its view", state.get("drawn") == "1")
        check(command + ": the view is not blank (%s pixels drawn)" % state.get("painted"),
              int(state.get("painted", "0")) > 5000)
        deviation = report["deviation"]
        for element, key in (("zor-within", "within_range"), ("zor-p95", "p95"), ("zor-largest", "largest")):
            check("%s: %s on the page equals the JSON's %s" % (command, element, key),
                  close(value(page, element), deviation[key]))

    # A box a metre away, morphed where it lies: nothing to match, and the page says so
    # rather than showing colours as if they judged a result.
    with open("far.off", "w") as f:
        f.write("OFF\n8 12 0\n")
        for k in range(8):
            f.write("%d %d %d\n" % (1000 + 10 * (k & 1), 10 * (k >> 1 & 1), 10 * (k >> 2 & 1)))
        for t in ((0, 2, 1), (1, 2, 3), (4, 5, 6), (5, 7, 6), (0, 1, 4), (1, 5, 4), (2, 6, 3), (3, 6, 7),
                  (0, 4, 2), (2, 4, 6), (1, 3, 5), (3, 7, 5)):
            f.write("3 %d %d %d\n" % t)
    report = json.loads(tool(zor, "morph", "far.off", "pair/fixed.stl", "--json", "--no-register", "--report",
                             "apart.html"))
    page = dom(chromium, "apart.html")
    check("apart: nothing matched (%s)" % report["stop"], report["stop"] == "no match")
    check("apart: the page names the problem", 'id="zor-problem"' in page)
    check("apart: the page still drew", body(page).get("drawn") == "1")
    print("%d passed, %d failed" % (len(passed), len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
