# SPDX-License-Identifier: Apache-2.0
"""Prints "PASSED FAILED SKIPPED" over the JUnit files named; a file without a test is one failure."""

import sys
import xml.etree.ElementTree as ElementTree

totals = {"passed": 0, "failed": 0, "skipped": 0}
for path in sys.argv[1:]:
    try:
        cases = list(ElementTree.parse(path).iter("testcase"))
    except (OSError, ElementTree.ParseError):
        cases = []
    for case in cases:
        kinds = {child.tag for child in case}
        if kinds & {"failure", "error"} or case.get("status") == "fail":
            totals["failed"] += 1
        elif "skipped" in kinds or case.get("status") in ("notrun", "disabled"):
            totals["skipped"] += 1
        else:
            totals["passed"] += 1
    if not cases:
        totals["failed"] += 1
print(totals["passed"], totals["failed"], totals["skipped"])
