"""Recording.to_mne(): a recording as MNE-Python objects."""
import datetime

import numpy as np

_MISSING = ("Recording.to_mne() needs MNE-Python, which is not installed "
            "(pip install mne, or the Debian package python3-mne).")


def _import_mne():
    try:
        import mne
    except ImportError as e:
        raise ImportError(_MISSING) from e
    return mne


def _channel_type(channel):
    words = channel.type.split("+")
    if "trigger" in words:
        return "stim"
    if "MEG" in words:
        if "reference" in words:
            return "ref_meg"
        return "grad" if channel.unit == "T/m" else "mag"
    if "EEG" in words:
        return "eeg"
    return "misc"


# MNE holds data in SI units: prefixed units other than voltages (which read() delivers in volts)
# are scaled here.
_PREFIXES = {"m": 1e-3, "u": 1e-6, "\u00b5": 1e-6, "\u03bc": 1e-6, "n": 1e-9, "p": 1e-12, "f": 1e-15}
_SI_UNITS = ("S", "A", "T", "C", "Ohm", "T/m")


def _si_factor(unit):
    if len(unit) > 1 and unit[0] in _PREFIXES and unit[1:] in _SI_UNITS:
        return _PREFIXES[unit[0]]
    return 1.0


def _unique(names):
    """MNE needs distinct channel names; repeats get "-1", "-2", ... appended."""
    seen = {}
    out = []
    for name in names:
        count = seen.get(name, 0)
        seen[name] = count + 1
        out.append(name if count == 0 else "%s-%d" % (name, count))
    return out


def _meas_date(info):
    stamp = datetime.datetime.fromisoformat(info["date"] + "T" + (info["time"] or "00:00:00"))
    return stamp.replace(tzinfo=datetime.timezone.utc)


def _annotations(mne, rec, rate):
    events = rec.events()
    names = [name or str(code) for name, code in zip(events["name"], events["code"])]
    return mne.Annotations(events["onset"] / rate, events["duration"] / rate, names)


def _epoch_events(rec, epochs, width, zero):
    """One MNE event per epoch: the coded event nearest to the epoch's time zero, where it lies;
    an epoch without one gets an event at its time zero with a code of its own, named "epoch"."""
    found = rec.events()
    chosen = [None] * epochs
    for name, code, begin in zip(found["name"], found["code"], found["onset"]):
        epoch = int(begin) // width
        if code == 0 or not 0 <= epoch < epochs:
            continue
        distance = abs(int(begin) - epoch * width - zero)
        if chosen[epoch] is None or distance < chosen[epoch][0]:
            chosen[epoch] = (distance, int(code), name or str(code), int(begin))
    event_id = {}
    for pick in chosen:
        if pick and pick[1] not in event_id.values():
            event_id[pick[2] if pick[2] not in event_id else "%s/%d" % (pick[2], pick[1])] = pick[1]
    spare = max(event_id.values(), default=0) + 1
    codes = [pick[1] if pick else spare for pick in chosen]
    if spare in codes:
        event_id["epoch"] = spare
    samples = [pick[3] if pick else e * width + zero for e, pick in enumerate(chosen)]
    return np.column_stack([samples, np.zeros(epochs, int), codes]), event_id


def to_mne(rec, verbose=None):
    mne = _import_mne()
    info = rec.info
    channels = rec.channels
    rate = info["sample_rate"]
    mne_info = mne.create_info(_unique([c.name for c in channels]), rate, [_channel_type(c) for c in channels],
                               verbose=verbose)
    mne_info["bads"] = [mne_info["ch_names"][c] for c in info["bad_channels"] if c < len(channels)]
    data = rec.read()
    scale = np.array([_si_factor(c.unit) for c in channels], dtype=np.float32)
    if (scale != 1).any():
        data *= scale[:, None]
    if info["run_type"] == 2:
        epochs, width = info["epochs"], info["epoch_slices"]
        shaped = data[:, : epochs * width].reshape(len(channels), epochs, width).transpose(1, 0, 2)
        events, event_id = _epoch_events(rec, epochs, width, int(round(info["prestim"] * rate)))
        out = mne.EpochsArray(shaped, mne_info, events, tmin=-info["prestim"], event_id=event_id, verbose=verbose)
    else:
        out = mne.io.RawArray(data, mne_info, verbose=verbose)
        out.set_annotations(_annotations(mne, rec, rate))
    if not out.annotations:
        # Epochs too: set_meas_date moves the annotations with the date and needs some.
        out.set_annotations(mne.Annotations([], [], []))
    if info["date"]:
        out.set_meas_date(_meas_date(info))
    return out
