"""Runs the benchmarks of a build folder and prints their tables: usage: report.py FOLDER_OF_THE_PROGRAMS"""

import json
import math
import pathlib
import subprocess
import sys
import tempfile

PROGRAMS = pathlib.Path(sys.argv[1])
PEERS = {"decode": ["xmlrpc-c", "pugixml", "floor", "python", "memcpy"], "encode": ["xmlrpc-c", "pugixml", "python", "memcpy"]}


def run(*command):
    return subprocess.run([str(word) for word in command], check=True, capture_output=True, text=True).stdout


def times(folder):
    """{(operation, peer): {document: nanoseconds}}"""
    found = {}
    out = run(PROGRAMS / "XmlRpcValue_bench", folder, "--benchmark_format=json", "--benchmark_min_time=0.2",
              "--benchmark_repetitions=3", "--benchmark_enable_random_interleaving=true")
    units = {"ns": 1, "us": 1e3, "ms": 1e6}
    for entry in json.loads(out)["benchmarks"]:
        if entry["run_type"] != "iteration":
            continue
        operation, peer, document = entry["run_name"].split("/", 2)
        row = found.setdefault((operation, peer), {})
        nanoseconds = entry["cpu_time"] * units[entry["time_unit"]]
        row[document] = min(nanoseconds, row.get(document, nanoseconds))
    for name, both in json.loads(run("python3", pathlib.Path(__file__).with_name("python_peer.py"), folder)).items():
        for operation, nanoseconds in both.items():
            found.setdefault((operation, "python"), {})[name.replace("_", "/")] = nanoseconds
    found["decode", "memcpy"] = found["encode", "memcpy"] = found.pop(("copy", "memcpy"))
    return found


def mean(numbers):
    return math.exp(sum(map(math.log, numbers)) / len(numbers))


def speed_table(operation, found, sizes):
    own = dict(sorted(found[operation, "tarn"].items(), key=lambda item: (item[0].split("/")[0], sizes[item[0]])))
    print(f"\n## {operation}: time of the peer over ours\n")
    peers = PEERS[operation]
    print("| document | ns per byte | " + " | ".join(peers) + " |")
    print("|---" * (len(peers) + 2) + "|")
    ratios = {peer: [found[operation, peer][document] / own[document] for document in own] for peer in peers}
    for i, document in enumerate(own):
        cells = " | ".join(f"{ratios[peer][i]:.2f}" for peer in peers)
        print(f"| {document} | {own[document] / sizes[document]:.2f} | {cells} |")
    print("| **geometric mean** | | " + " | ".join(f"**{mean(ratios[peer]):.2f}**" for peer in peers) + " |")


def memory_table(folder, sizes):
    print("\n## Memory: peak of decoding and of encoding 10 MB\n")
    print("| document | decoding: bytes per byte | of xmlrpc-c's | encoding: bytes | of the text's |")
    print("|---|---|---|---|---|")
    for path in sorted(pathlib.Path(folder).glob("*_10MB.xml")):
        own, peer = (int(run(PROGRAMS / "XmlRpcValue_peak", name, path)) for name in ("tarn", "xmlrpc-c"))
        document = path.stem.replace("_", "/")
        encoding, text = map(int, run(PROGRAMS / "XmlRpcValue_peak", "encode", path).split())
        print(f"| {document} | {own / sizes[document]:.2f} | {own / peer:.2f} | {encoding:,} | {encoding / text:.2f} |")


with tempfile.TemporaryDirectory() as temporary:
    measured = times(temporary)
    lengths = {path.stem.replace("_", "/"): path.stat().st_size for path in pathlib.Path(temporary).glob("*.xml")}
    for kind in ("decode", "encode"):
        speed_table(kind, measured, lengths)
    memory_table(temporary, lengths)
print("\n## Growth\n\n```\n" + run(PROGRAMS / "Growth_bench").rstrip() + "\n```")
