"""Recording.to_mne() against MNE-Python's own readers, on every real recording MNE reads."""
import json
import warnings

import numpy as np
import pytest

import filelib
from test_filelib import DATA

mne = pytest.importorskip("mne")

# Recording -> {channel: factor from ours to MNE's} where MNE's reading differs by design (None:
# not compared). MNE leaves non-voltage EDF channels unscaled, interpolates a slower channel to
# the recording's rate (the library repeats samples), scales EDF trigger codes as microvolts and
# labels eXimia microvolts (its trigger channels excepted) as volts.
CASES = {name: {} for name in [
    "bdf/test.bdf", "bdf/test_bdf_stim_channel.bdf", "brainvision/test.vhdr", "edf/test.edf",
    "brainvision/test_old_layout_latin1_software_filter.vhdr", "brainvision/File_brainvision_3_int16.vhdr",
    "ctf/testdata_ctf_short_discontinuous.ds", "edf/test_utf8_annotations.edf", "egi/test_egi.raw",
    "mff/example_3.mff", "fiff/neuromag122_test_file-raw.fif", "fiff/test_elekta_3ch_raw.fif",
    "neuroscan/scan41_short.cnt", "neuroscan/test_CNT_events_mne_JWoess_clipped__v1_9dafcf2.cnt",
    "nihonkohden/MB0400FU.EEG", "persyst/sub-pt1_ses-02_task-monitor_acq-ecog_run-01_clip2.lay"]}
CASES.update({"edf/edf+C.edf": {"ch3": 1e12}, "edf/test_uneven_samp.edf": {"0.2Hz Blk 1/0uV": None},
              "edf/test_edf_stim_channel.edf": {"DIG DTRIG": None},
              "eximia/test_eximia.nxe": {"*": 1e6, "GateIn": 1, "Trig1": 1, "Trig2": 1}})
# MNE places this format's events one slice early and adds its non-stimulus records as "0".
EVENTS_DIFFER = {"neuroscan/scan41_short.cnt", "neuroscan/test_CNT_events_mne_JWoess_clipped__v1_9dafcf2.cnt"}

def mne_reading(name):
    reader = json.loads((DATA / (name + ".expected.json")).read_text())["mne"]["reader"]
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        return getattr(mne.io, reader)(DATA / name, preload=True, verbose="error")


@pytest.mark.parametrize("name", sorted(CASES))
def test_to_mne_equals_mne_reader(name):
    theirs = mne_reading(name)
    ours = filelib.open(DATA / name).to_mne(verbose="error")
    data = ours.get_data()
    if data.ndim == 3:
        data = np.concatenate(list(data), axis=1)
    known = CASES[name]
    compared = [c for c in ours.ch_names if known.get(c, 0) is not None and c in theirs.ch_names]
    assert len(compared) >= len(ours.ch_names) - len(known) and data.shape[1] == theirs.n_times
    for channel in compared:
        expected = theirs.get_data(picks=[channel])[0]
        factor = known.get(channel, known.get("*", 1))
        np.testing.assert_allclose(data[ours.ch_names.index(channel)] * factor, expected, rtol=2e-7,
                                   atol=np.abs(expected).max() * 2e-7, err_msg=channel)
    if isinstance(ours, mne.BaseEpochs):  # epoch events where MNE's raw reading has the stimulus
        stimuli = {(round(o * theirs.info["sfreq"]), d) for o, d in zip(theirs.annotations.onset,
                                                                        theirs.annotations.description)}
        names = {code: key for key, code in ours.event_id.items() if key != "epoch"}
        coded = [(sample, names[code]) for sample, _, code in ours.events if code in names]
        assert coded and all(c in stimuli for c in coded) if names else ours.event_id == {"epoch": 1}
    if isinstance(ours, mne.io.BaseRaw) and name not in EVENTS_DIFFER:
        slice_ = 1.001 / theirs.info["sfreq"]
        for onset, description in zip(theirs.annotations.onset, theirs.annotations.description):
            assert any(abs(a["onset"] - onset) <= slice_ and a["description"] == description.rstrip("/")
                       for a in ours.annotations), (onset, description)
