#!/usr/bin/env python3
"""Reads the record the tapestry viewer's self-test left in a page dumped by
headless Chromium and checks it.
  check_viewer.py DUMP LEVELS INBETWEENS FRAME SOURCE
The page must have shown level 0, played the in-betweens in order up to
level 1 and back, looked up FRAME from SOURCE ("frame layout" or "index
map"), and logged no error."""
import html
import json
import re
import sys


def main():
    dump, levels, inbetweens, frame, source = sys.argv[1:6]
    inbetweens = int(inbetweens)
    text = open(dump, encoding="utf-8", errors="replace").read()
    found = re.search(r'<pre id="selftest">(.*?)</pre>', text, re.S)
    if not found or not found.group(1).strip():
        print("no self-test record in the page")
        return 1
    log = json.loads(html.unescape(found.group(1)))
    problems = []
    if log.get("errors"):
        problems.append("errors: %s" % log["errors"])
    out = [[0, i] for i in range(1, inbetweens + 1)] + [[1, 0]]
    back = [[0, i] for i in range(inbetweens, 0, -1)] + [[0, 0]]
    expected = [[0, 0]] + out + back
    if log.get("shown") != expected:
        problems.append("pictures shown %s, expected %s" % (log.get("shown"), expected))
    if log.get("levelAfterZoom") != 1:
        problems.append("level after zooming out: %s" % log.get("levelAfterZoom"))
    clicks = log.get("clicks") or [{}]
    if clicks[-1].get("frame") != int(frame) or clicks[-1].get("from") != source:
        problems.append("click: %s, expected frame %s from the %s" % (clicks[-1], frame, source))
    for p in problems:
        print(p)
    if not problems:
        print("shown %s; frame %s from the %s" % (log["shown"], frame, source))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
