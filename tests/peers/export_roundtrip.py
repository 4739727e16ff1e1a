#!/usr/bin/env python3
"""Converts every dev-set recording filelib reads to EDF+, BDF+ and BrainVision with
`filelib convert`, reads each output with MNE-Python and compares channels, rate, samples and
events with what `filelib dump` and `filelib events` deliver from the source.

usage: export_roundtrip.py FILELIB DATA_DIR   (exit status 1 when any comparison fails)
"""
import json, os, subprocess, sys, tempfile, warnings
import numpy as np
import mne

FAMILIES = ["ant", "bdf", "brainvision", "bti/4Dsim", "bti/linux", "ctf", "edf", "egi", "eximia", "fiff",
            "mff", "micromed", "neuroscan", "nicolet", "nihonkohden", "persyst", "plexon", "windaq"]
READERS = {"edf": mne.io.read_raw_edf, "bdf": mne.io.read_raw_bdf, "vhdr": mne.io.read_raw_brainvision}
SLICES = 5000  # samples compared per channel, from the start
TOOL = sys.argv[1]


def tool(*args):
    run = subprocess.run([TOOL, *args], capture_output=True, text=True)
    return run.returncode, run.stdout, run.stderr


def recordings(data):
    for family in FAMILIES:
        folder = os.path.join(data, family)
        for name in sorted(os.listdir(folder)) if os.path.isdir(folder) else []:
            if name.endswith(".expected.json"):
                yield os.path.join(folder, name[: -len(".expected.json")])


def edf_steps(path):
    """Per data signal of an EDF/BDF header: the physical step in volts (other units: as stated)."""
    with open(path, "rb") as f:
        head = f.read(256)
        ns = int(head[252:256])
        signals = f.read(256 * ns)
    column = lambda offset, width: [signals[ns * offset + width * i: ns * offset + width * (i + 1)].decode("latin-1").strip() for i in range(ns)]
    scale = {"uV": 1e-6, "mV": 1e-3}
    labels, units = column(0, 16), column(96, 8)
    pmin, pmax, dmin, dmax = (list(map(float, column(o, 8))) for o in (104, 112, 120, 128))
    return [(pmax[i] - pmin[i]) / (dmax[i] - dmin[i]) * scale.get(units[i], 1) for i in range(ns) if not labels[i].endswith("Annotations")]


def compare(source, out, kind, info, dump, events):
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        raw = READERS[kind](out, preload=False, verbose="error")
    problems = []
    if raw.ch_names != dump["channels"]:
        problems.append(f"channels {raw.ch_names[:5]}... != {dump['channels'][:5]}...")
        return problems
    if abs(raw.info["sfreq"] - info["sample_rate"]) > 1e-3 * info["sample_rate"]:
        problems.append(f"rate {raw.info['sfreq']} != {info['sample_rate']}")
    n = dump["count"]
    theirs = raw.get_data(start=0, stop=n)
    ours = np.array(dump["data"], dtype=np.float64).reshape(len(dump["channels"]), n)
    rates = raw._raw_extras[0].get("n_samps") if kind != "vhdr" else None
    steps = edf_steps(out) if kind != "vhdr" else None
    for c, name in enumerate(raw.ch_names):
        if rates is not None and rates[c] != max(rates):
            continue  # MNE interpolates slower channels; filelib holds their samples
        if kind == "vhdr":
            bad = np.flatnonzero(theirs[c].astype(np.float32) != ours[c].astype(np.float32))
        else:
            tolerance = 0.5 * steps[c] * (1 + 1e-6) + np.abs(ours[c]) * 2.4e-7
            bad = np.flatnonzero(np.abs(theirs[c] - ours[c]) > tolerance)
        if bad.size:
            i = bad[0]
            problems.append(f"{name}: {bad.size} samples differ, first at {i}: {theirs[c][i]!r} != {ours[c][i]!r}")
    rate = info["sample_rate"]
    mine = sorted((e["begin"] / rate, e["name"]) for e in events)
    seen = sorted((o, d[:-1] if kind == "vhdr" and d.endswith("/") else d)
                  for o, d in zip(raw.annotations.onset, raw.annotations.description) if d != "Epoch start")
    if len(mine) != len(seen):
        problems.append(f"{len(seen)} events read, {len(mine)} written")
    for (onset, text), (their_onset, their_text) in zip(mine, seen):
        if text != their_text or abs(onset - their_onset) > 1.0 / rate:
            problems.append(f"event {text!r} at {onset:.6f} s read as {their_text!r} at {their_onset:.6f} s")
            break
    return problems


def main():
    failures = checked = 0
    with tempfile.TemporaryDirectory() as tmp:
        for source in recordings(sys.argv[2]):
            status, text, _ = tool("info", source, "--json")
            if status != 0:
                continue  # not a recording filelib reads
            info = json.loads(text)
            count = min(info["slices"], SLICES)
            dump = json.loads(tool("dump", source, "--count", str(count), "--json")[1])
            events = json.loads(tool("events", source, "--json")[1])
            for kind in READERS:
                out = os.path.join(tmp, f"copy.{kind}")
                status, _, err = tool("convert", source, out, "--force")
                name = f"{os.path.relpath(source, sys.argv[2])} -> {kind}"
                try:
                    problems = [err.strip()] if status else compare(source, out, kind, info, dump, events)
                except Exception as error:  # MNE refuses the file
                    problems = [f"MNE cannot read it: {error}"]
                checked += 1
                failures += bool(problems)
                print(("FAIL " if problems else "ok   ") + name + "".join("\n     " + p for p in problems[:5]))
    print(f"{checked - failures} passed, {failures} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
