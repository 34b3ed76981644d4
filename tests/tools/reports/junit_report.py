#!/usr/bin/python3
"""Reads a JUnit report as a CI does, through Debian's junitparser, and prints what it found as
one JSON object: the suite's counts, host name and properties, and every case."""
import json
import sys

from junitparser import JUnitXml

found = {"cases": []}
for suite in JUnitXml.fromfile(sys.argv[1]):
    found.update(failures=suite.failures, errors=suite.errors, hostname=suite.hostname,
                 properties={p.name: p.value for p in suite.properties()})
    for case in suite:
        results = [type(r).__name__.lower() for r in case.result]
        found["cases"].append({"name": case.name, "result": results[0] if results else "passed",
                               "out": case.system_out or "", "err": case.system_err or ""})
print(json.dumps(found))
