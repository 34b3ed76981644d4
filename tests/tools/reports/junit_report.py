#!/usr/bin/python3
"""Reads a JUnit report as a CI does, through Debian's junitparser, and prints what it found as
one JSON object: the suite's counts, timestamp, host name and properties, and every case."""
import json
import sys

from junitparser import JUnitXml

report = JUnitXml.fromfile(sys.argv[1])
suites = list(report)
found = {"suites": len(suites), "cases": []}
for suite in suites:
    found.update(tests=suite.tests, failures=suite.failures, errors=suite.errors,
                 timestamp=suite.timestamp, hostname=suite.hostname,
                 properties={p.name: p.value for p in suite.properties()})
    for case in suite:
        results = [type(r).__name__.lower() for r in case.result]
        found["cases"].append({"classname": case.classname, "name": case.name,
                               "result": results[0] if results else "passed",
                               "time": case.time, "out": case.system_out or "",
                               "err": case.system_err or ""})
print(json.dumps(found))
