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


# Where MNE cannot follow, and why; reported as skipped.
KNOWN = {("windaq/AUTO.WDQ", "vhdr"): "MNE's configparser takes the unit '%' for an interpolation"}
PREFIX = {"f": 1e-15, "p": 1e-12, "n": 1e-9, "u": 1e-6, "m": 1e-3}


def edf_signals(path):
    """Per data signal of an EDF/BDF header: the step in SI units, and the factor that takes MNE's
    values there (MNE scales uV and mV to volts and leaves other units as they are)."""
    with open(path, "rb") as f:
        ns = int(f.read(256)[252:256])
        signals = f.read(256 * ns)
    column = lambda offset, width: [signals[ns * offset + width * i: ns * offset + width * (i + 1)].decode("latin-1").strip() for i in range(ns)]
    labels, units = column(0, 16), column(96, 8)
    pmin, pmax, dmin, dmax = (list(map(float, column(o, 8))) for o in (104, 112, 120, 128))
    out = []
    for i in range(ns):
        si = PREFIX.get(units[i][:1], 1) if len(units[i]) == 2 and units[i][1] in "VT" else 1
        if not labels[i].endswith("Annotations"):
            out.append(((pmax[i] - pmin[i]) / (dmax[i] - dmin[i]) * si, 1 if units[i].endswith("V") else si))
    return out


def compare(source, out, kind, info, dump, events):
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        raw = READERS[kind](out, preload=False, verbose="error")
    problems = []
    names = [n[:16] for n in dump["channels"]] if kind != "vhdr" else dump["channels"]
    if raw.ch_names != names:
        problems.append(f"channels {raw.ch_names[:5]}... != {names[:5]}...")
        return problems
    if abs(raw.info["sfreq"] - info["sample_rate"]) > 1e-3 * info["sample_rate"]:
        problems.append(f"rate {raw.info['sfreq']} != {info['sample_rate']}")
    n = dump["count"]
    theirs = raw.get_data(start=0, stop=n)
    ours = np.array(dump["data"], dtype=np.float64).reshape(len(dump["channels"]), n)
    rates = raw._raw_extras[0].get("n_samps") if kind != "vhdr" else None
    signals = edf_signals(out) if kind != "vhdr" else None
    for c, name in enumerate(raw.ch_names):
        if rates is not None and rates[c] != max(rates):
            continue  # MNE interpolates slower channels; filelib holds their samples
        if kind == "vhdr":  # the float32 samples, scaled by MNE's factor of the stated unit
            bad = np.flatnonzero(theirs[c] != ours[c].astype(np.float32).astype(np.float64) * raw._cals[c])
        else:
            step, to_si = signals[c]
            tolerance = 0.5 * step * (1 + 1e-6) + np.abs(ours[c]) * 2.4e-7
            bad = np.flatnonzero(np.abs(theirs[c] * to_si - ours[c]) > tolerance)
        if bad.size:
            i = bad[0]
            problems.append(f"{name}: {bad.size} samples differ, first at {i}: {theirs[c][i]!r} != {ours[c][i]!r}")
    rate = info["sample_rate"]
    # Segment boundaries (kind 0) are BrainVision's unnamed "New Segment" markers, which also
    # open a file with its date: they are compared in EDF, where they keep their names. Events
    # past the recording's end (a clipped file's) are not written.
    skipped = ("Epoch start", "New Segment") if kind == "vhdr" else ("Epoch start",)
    mine = sorted((e["begin"] / rate, e["name"]) for e in events
                  if 0 <= e["begin"] < info["slices"] and not (kind == "vhdr" and e["kind"] == 0))
    seen = sorted((o, d[:-1] if kind == "vhdr" and d.endswith("/") else d)
                  for o, d in zip(raw.annotations.onset, raw.annotations.description)
                  if (d[:-1] if kind == "vhdr" else d) not in skipped)
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
            if not info["channels"]:
                continue  # nothing to export (an annotations-only EDF+)
            count = min(info["slices"], SLICES)
            dump = json.loads(tool("dump", source, "--count", str(count), "--json")[1])
            events = json.loads(tool("events", source, "--json")[1])
            for kind in READERS:
                out = os.path.join(tmp, f"copy.{kind}")
                status, _, err = tool("convert", source, out, "--force")
                name = f"{os.path.relpath(source, sys.argv[2])} -> {kind}"
                if (os.path.relpath(source, sys.argv[2]), kind) in KNOWN:
                    print(f"skip {name}: {KNOWN[os.path.relpath(source, sys.argv[2]), kind]}")
                    continue
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
