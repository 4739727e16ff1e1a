#!/usr/bin/env python3
"""Reading a 1 GB-class EDF through the Python package against the program's `stats`.

    PYTHONPATH=build/python python3 bench/python_read.py [--program build/tools/filelib] [--mb 1024]

Writes a 64-channel 16-bit EDF of about --mb MB into a temporary directory, reads it whole with
`filelib stats` (its own timing of the read loop) and through Recording.read() in blocks of
BLOCK slices, and prints both times and their ratio (the package aims at 1.2 or less). Page
cache warm: the file is read once before either is timed.
"""
import argparse
import re
import subprocess
import tempfile
import time
from pathlib import Path

import numpy as np

import filelib

CHANNELS, RATE, BLOCK = 64, 1000, 50000


def write_edf(path, records):
    fields = [("%-16s" % ("EEG%d" % c), "%-80s" % "", "%-8s" % "uV", "%-8s" % "-3200", "%-8s" % "3200",
               "%-8s" % "-32768", "%-8s" % "32767", "%-80s" % "", "%-8s" % RATE, "%-32s" % "") for c in range(CHANNELS)]
    header = "%-8s%-80s%-80s%-8s%-8s%-8d%-44s%-8d%-8s%-4d" % (
        "0", "X", "X", "01.01.24", "00.00.00", 256 * (CHANNELS + 1), "", records, "1", CHANNELS)
    header += "".join("".join(f[i] for f in fields) for i in range(10))
    record = (np.random.default_rng(1).integers(-2000, 2000, CHANNELS * RATE)).astype("<i2").tobytes()
    with open(path, "wb") as out:
        out.write(header.encode("ascii"))
        for _ in range(records):
            out.write(record)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", default="build/tools/filelib")
    parser.add_argument("--mb", type=int, default=1024)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory() as tmp:
        path = Path(tmp) / "bench.edf"
        write_edf(path, args.mb * 2 ** 20 // (CHANNELS * RATE * 2))
        size = path.stat().st_size
        path.read_bytes()
        stats = subprocess.run([args.program, "stats", str(path)], check=True, capture_output=True, text=True).stdout
        cpp = float(re.search(r"read in ([0-9.]+) s", stats).group(1))
        with filelib.open(path) as rec:
            start = time.perf_counter()
            for first in range(0, rec.info["slices"], BLOCK):
                rec.read(first, min(first + BLOCK, rec.info["slices"]))
            py = time.perf_counter() - start
    print("%d MB EDF: filelib stats %.3f s, Recording.read() in blocks of %d slices %.3f s, ratio %.2f"
          % (size // 2 ** 20, cpp, BLOCK, py, py / cpp))


if __name__ == "__main__":
    main()
