"""Times Python's xmlrpc.client on the documents of a folder: usage: python_peer.py FOLDER; prints a JSON object."""

import json
import pathlib
import sys
import time
import xmlrpc.client


def nanoseconds(action):
    best = None
    spent = 0.0
    while spent < 0.2 or best is None:
        start = time.perf_counter()
        action()
        took = time.perf_counter() - start
        spent += took
        best = took if best is None else min(best, took)
    return best * 1e9


results = {}
for path in sorted(pathlib.Path(sys.argv[1]).glob("*.xml")):
    xml = "<methodResponse><params><param>" + path.read_text() + "</param></params></methodResponse>"
    value = xmlrpc.client.loads(xml)[0]
    results[path.stem] = {
        "decode": nanoseconds(lambda: xmlrpc.client.loads(xml)),
        "encode": nanoseconds(lambda: xmlrpc.client.dumps(value, methodresponse=True)),
    }
json.dump(results, sys.stdout)
