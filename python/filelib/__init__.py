"""Recordings of every format filelib reads, as NumPy arrays, and a bridge to MNE-Python.

    with filelib.open("recording.edf") as rec:
        data = rec.read()          # float32, (channels, slices), volts
"""
from collections import namedtuple
import os
import warnings

import numpy as np

from ._filelib import Error, OutputFormat, _Recording, _convert

__all__ = ["Error", "OutputFormat", "Recording", "Channel", "open", "convert"]

Channel = namedtuple("Channel", "name type unit scale offset")

_EVENT_FIELDS = ("onset", "duration", "code", "name", "kind")


class Recording(_Recording):
    """A recording opened for reading; a context manager that closes it."""

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def __repr__(self):
        if self.closed:
            return "<filelib.Recording closed>"
        info = self.info
        return "<filelib.Recording {format}: {n} channels, {slices} slices at {sample_rate:g} Hz>".format(
            n=len(self.channels), **info)

    @property
    def info(self):
        """The recording's description: format, code, sample_rate, slices, epochs, epoch_slices,
        prestim (s), run_type (1 single epoch, 2 epochs, 4 continuous), date, time, subject
        fields and description (None where the file stores none), bad_channels."""
        return self._info()

    @property
    def channels(self):
        """One Channel(name, type, unit, scale, offset) per channel; type as text ("EEG", "MEG",
        "trigger", "MEG+reference", "other", ...)."""
        return [Channel(*c) for c in self._channels()]

    def read(self, start=0, stop=None, channels=None):
        """Slices [start, stop) of the channels given (indices or names; all by default) as a
        float32 array (channels, slices); voltages in volts, other units as the file states."""
        return self._read(start, stop, None if channels is None else self._indices(channels))

    def read_seconds(self, t0=0.0, t1=None, channels=None):
        """As read(), with times in seconds from the start of the recording."""
        rate = self.info["sample_rate"]
        stop = None if t1 is None else int(round(t1 * rate))
        return self.read(int(round(t0 * rate)), stop, channels)

    def events(self):
        """The recording's events as a structured array (onset and duration in slices, code,
        name, kind)."""
        return _event_array(self._events())

    def event_list(self):
        """The recording's events as a list of dicts with the fields of events()."""
        return [dict(zip(_EVENT_FIELDS, e)) for e in self._events()]

    def find_triggers(self, threshold=0.5, dead_time=0, digital=False, words=False, mask=-1):
        """Crossings of `threshold` on the trigger channels (digital: rising from exactly 0), or with
        words=True every change of the trigger word (& mask) to a non-zero value; as events()."""
        return _event_array(self._find_triggers(threshold, dead_time, digital, words, mask))

    def to_mne(self, verbose=None):
        """The recording as mne.io.RawArray (mne.EpochsArray for epoched recordings)."""
        from . import _mne

        return _mne.to_mne(self, verbose)

    def _indices(self, channels):
        names = [c.name for c in self.channels]
        out = []
        for c in channels:
            if isinstance(c, str):
                if c not in names:
                    raise Error('[Recording::read] no channel named "%s".' % c)
                c = names.index(c)
            out.append(int(c))
        return out


def _event_array(rows):
    width = max([len(r[3]) for r in rows] + [1])
    dtype = [("onset", "i8"), ("duration", "i8"), ("code", "i4"), ("name", "U%d" % width), ("kind", "i4")]
    return np.array(rows, dtype=dtype)


def open(path, format=None):
    """Opens a recording; `format` a reader's code (info["code"]) instead of detection."""
    return Recording(os.fspath(path), format or 0)


def convert(src, dst, format=None, start=0, stop=None, channels=None, source_format=None):
    """Writes slices [start, stop) of the channels given (indices or names; all by default) of the
    recording at `src` to `dst`, in `format` (an OutputFormat or its name in any case: "edf", "bdf",
    "brainvision", "brainvisionint16", "generic"; by default the one dst's extension names).
    A stop past the end writes to the end. Refuses outputs that exist. Texts the format cannot hold in full come as warnings. Returns the
    number of slices written."""
    if isinstance(format, str):
        names = {name.lower(): value for name, value in OutputFormat.__members__.items()}
        if format.lower() not in names:
            raise Error("[filelib.convert] no output format %r; formats: %s." % (format, ", ".join(names)))
        format = names[format.lower()]
    if channels is not None and any(isinstance(c, str) for c in channels):
        with open(src, source_format) as rec:
            channels = rec._indices(channels)
    written, notes = _convert(os.fspath(src), os.fspath(dst), format, start, stop, list(channels or []),
                              source_format or 0)
    for note in notes:
        warnings.warn(note)
    return written
