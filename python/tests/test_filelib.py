"""The Python package against the program, over the real recordings in /work/shared/data."""
import json
import os
import pathlib
import subprocess

import numpy as np
import pytest

import filelib

DATA = pathlib.Path(os.environ.get("FILELIB_DATA", pathlib.Path(__file__).parents[3] / "shared" / "data"))
if not DATA.is_dir():
    assert not os.environ.get("FILELIB_REQUIRE_SHARED_DATA"), "the real recordings are required"
    pytest.skip("the real recordings (%s) are absent" % DATA, allow_module_level=True)
PROGRAM = os.environ.get("FILELIB_PROGRAM", "filelib")


def program(*args):
    return json.loads(subprocess.run([PROGRAM, *map(str, args), "--json"], check=True, capture_output=True).stdout)


@pytest.mark.parametrize("name, first, count", [
    ("edf/test.edf", 1000, 300), ("bdf/test_bdf_stim_channel.bdf", 4990, 10),
    ("brainvision/File_brainvision_3_int16.vhdr", 0, 700), ("fiff/neuromag122_test_file-raw.fif", 20, 50),
    ("ctf/testdata_ctf_short_discontinuous.ds", 1150, 200)])
def test_read_equals_dump_and_info(name, first, count):
    info = program("info", DATA / name)
    dump = program("dump", DATA / name, "--first", first, "--count", count)
    with filelib.open(DATA / name) as rec:
        data = rec.read(first, first + count)
        assert [c.name for c in rec.channels] == dump["channels"]
        keys = ("code", "slices", "epochs")
        assert [rec.info[k] for k in keys] == [info[k] for k in keys]
        np.testing.assert_array_equal(data, np.array(dump["data"], dtype=np.float32))
        last = len(dump["channels"]) - 1
        picked = rec.read(first, first + count, [last, dump["channels"][0]])
        np.testing.assert_array_equal(picked, data[[last, 0]])
        assert data.dtype == np.float32 and rec.read_seconds(0, 0.5).shape == (last + 1, round(info["sample_rate"] / 2))


def test_events_and_triggers_equal_program():
    path = DATA / "edf" / "test_edf_stim_channel.edf"
    with filelib.open(path) as rec:
        for ours, theirs in [(rec.events(), program("events", path)),
                             (rec.find_triggers(threshold=1), program("triggers", path, "--threshold", 1))]:
            assert len(ours) > 0
            assert [(e["name"], e["code"], e["onset"], e["onset"] + e["duration"], e["kind"]) for e in ours] == \
                [(e["name"], e["code"], e["begin"], e["end"], e["kind"]) for e in theirs]
        assert rec.event_list()[0] == dict(zip(rec.events().dtype.names, rec.events()[0].tolist()))


EDF = DATA / "edf" / "test.edf"
OUT_OF_RANGE = "[Recording::read] slices %d to %d are not within the recording's 0 to 3072."


@pytest.mark.parametrize("call, text", [
    (lambda: filelib.open("/nonexistent.edf"),
     "[filelib.open] cannot open /nonexistent.edf: no such file or not readable"),
    (lambda: filelib.open(EDF).read(0, 10 ** 6), OUT_OF_RANGE % (0, 10 ** 6)),
    (lambda: filelib.open(EDF).read(5, 4), OUT_OF_RANGE % (5, 4)),
    (lambda: filelib.open(EDF).read(channels=[139]),
     "[Recording::read] channel 139 is not within the recording's 0 to 138."),
    (lambda: filelib.open(EDF).read(channels=["Cz"]), '[Recording::read] no channel named "Cz".'),
    (lambda: filelib.convert(EDF, EDF), "[filelib.convert] %s exists; nothing written." % EDF),
])
def test_errors_carry_exact_text(call, text):
    with pytest.raises(filelib.Error) as raised:
        call()
    assert str(raised.value) == text


def test_context_manager_closes_and_convert_reads_back(tmp_path):
    with filelib.open(DATA / "bdf" / "test.bdf") as rec:
        data = rec.read()
    assert rec.closed
    with pytest.raises(filelib.Error, match=r"^\[Recording::read\] The recording is closed\.$"):
        rec.read()
    assert filelib.convert(DATA / "bdf" / "test.bdf", tmp_path / "copy.dat", start=100, channels=[5, "Fp1"]) == 1948
    with filelib.open(tmp_path / "copy.dat") as copy:
        np.testing.assert_array_equal(copy.read(), data[[5, 0], 100:])
