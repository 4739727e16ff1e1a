#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>

#include "companion/ChannelKind.h"
#include "companion/Utility.h"
#include "filelib/filelib.h"
#include "fixtures/ClinicalFiles.h"
#include "fixtures/GenericFiles.h"
#include "fixtures/Json.h"
#include "fixtures/NeuroscanFiles.h"

namespace {
struct ToolRun {
    int status;
    std::string out;
    std::string err;
};

// Runs the program inside `dir`, so that arguments name its files as they are.
ToolRun Tool(const TempDir& dir, const std::string& args)
{
    const std::string out = dir.path("stdout.txt"), err = dir.path("stderr.txt");
    const std::string line = "cd '" + dir.dir() + "' && " + FILELIB_TOOL_PATH + " " + args + " >" + out + " 2>" + err;
    const int raw = std::system(line.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadTextFile(out), ReadTextFile(err)};
}

// g.dat: a generic pair with an event file and a trigger channel TRIG holding 0, 0, 3, 3, 0, 0;
// v.vhdr: a BrainVision set; x.eeg: a Neuroscan epoched header without its sweeps (it opens,
// its data cannot be read); a.avg: a Neuroscan average of 3 points; f.lay: a Persyst layout
// (never detected: read by its extension) of 2 slices in f.dat.
void WriteRecordings(const TempDir& dir)
{
    GenericSpec spec;
    spec.chans = 3;
    spec.slices = 6;
    spec.names = {"A", "EKG1", "TRIG"};
    spec.types = {1024, 1024, 0x8000};
    spec.scales = {0.5f, 1, 1};
    WriteGenericPair(dir, "g.dat", spec, {{1, 2, 3, 4, 5, 6}, {0, -1, 0, 1, 0, -1}, {0, 0, 3, 3, 0, 0}});
    WriteTextFile(dir.path("g.dat.evt"), "\"Stim x\" 3 2\n");
    WriteTextFile(dir.path("v.vhdr"), "Brain Vision Data Exchange Header File Version 1.0\n[Common Infos]\nDataFile=v.eeg\n"
                                      "MarkerFile=v.vmrk\nNumberOfChannels=1\nSamplingInterval=2000\n[Channel Infos]\n"
                                      "Ch1=Cz,,0.123456789,uV\n");
    WriteTextFile(dir.path("v.vmrk"), "[Marker Infos]\nMk1=Stimulus,S  3,2,1,0\n");
    Bytes().i16le(10).i16le(-20).i16le(30).i16le(-40).write(dir.path("v.eeg"));
    NeuroscanSpec eeg;
    eeg.points = 3;
    eeg.sweeps = 2;
    NeuroscanHeader(eeg).write(dir.path("x.eeg"));
    NeuroscanHeader(eeg).zeros(2 * (5 + 3 * 4)).write(dir.path("a.avg"));
    WriteTextFile(dir.path("f.lay"), PersystLayout({"Cz"}, 0, 0, ""));
    Ints({1, 2}).write(dir.path("f.dat"));
}

// Every file of `dir` but the program's captured output, with its content.
std::map<std::string, std::string> Snapshot(const TempDir& dir)
{
    std::map<std::string, std::string> files;
    for (const auto& e : std::filesystem::directory_iterator(dir.dir())) {
        const std::string name = e.path().filename().string();
        if (name.find("std") != 0)
            files[name] = ReadTextFile(dir.path(name));
    }
    return files;
}
}  // namespace

// Statuses, messages and what each command takes; none of these runs may change, add or leave a
// file: a convert never writes over its source or the files read with it, whatever their
// spelling, and a failing one leaves the existing output as it was.
TEST(Tool, CommandLineRulesLeaveEveryFileAsItWas)
{
    TempDir dir;
    WriteRecordings(dir);
    WriteTextFile(dir.path("notes.txt"), "just some text that is no recording");
    WriteTextFile(dir.path("old.f32"), "old");
    ASSERT_EQ(link(dir.path("g.dat").c_str(), dir.path("hard.dat").c_str()), 0);
    ASSERT_EQ(link(dir.path("g.dat.evt").c_str(), dir.path("linked.evt").c_str()), 0);
    std::map<std::string, std::string> before = Snapshot(dir);
    const struct {
        std::string args;
        int status;
        std::string says;  // part of standard output or error
    } cases[] = {
        {"--help", 0, "Usage:\n  filelib concat OUT.orva_mf IN... [--force]\n  filelib convert FILE OUT [--to edf|bdf|brainvision|brainvision16|generic] "},
        {"concat j.orva_mf", 1, "usage: filelib concat OUT.orva_mf IN... [--force]"},
        {"dump --help", 0, "Usage: filelib dump FILE"},
        {"--version", 0, "filelib " FILELIB_VERSION "\n"},
        {"frobnicate x", 1, "unknown command \"frobnicate\""},
        {"info nothing.cnt", 1, "cannot open nothing.cnt"},
        {"info notes.txt", 2, "notes.txt is not a recording filelib recognises. Supported formats: "},
        {"info f.lay", 0, "Format:        PerSyst (code 25)\n"},
        {"dump v.vhdr --format 25", 1, "[PerSyst::Initialize] Not a Persyst layout file (no [FileInfo] section): v.vhdr"},
        {"events g.dat --format 99", 1, "--format 99 is no reader's code. Supported formats: "},
        {"convert f.lay f.dat --force", 1, "convert would overwrite f.dat"},  // the data file the layout names
        {"dump g.dat --channels Nope", 1, "no channel named \"Nope\" in g.dat\n"},
        {"plot g.dat", 1, "plot needs --out FILE.svg"},
        {"stats a.avg", 0, "\n3 slices from 0 read in "},  // asks for no more than the recording holds
        {"dump a.avg --json", 0, "{\"first\": 0, \"count\": 3, "},
        {"triggers v.vhdr", 1, "v.vhdr has no trigger channel"},
        {"triggers g.dat --threshold 2 --json", 0, "{\"name\": \"1\", \"code\": 0, \"begin\": 2, \"end\": 2, \"kind\": 2, \"onset_s\": 0.008, \"duration_s\": 0}\n]"},
        {"triggers g.dat --words --mask 0x2 --json", 0, "{\"name\": \"2\", \"code\": 2, \"begin\": 2"},
        {"triggers g.dat --words --mask 0X4 --json", 0, "[]\n"},
        {"triggers g.dat --words --mask 0xG", 1, "--mask needs a whole number, not \"0xG\""},
        {"triggers g.dat --mask 2", 1, "--mask applies to --words only"},
        {"convert g.dat out --csv", 1, "convert does not take --csv; usage: filelib convert FILE OUT [--to "},
        {"info g.dat --count 3", 1, "info does not take --count"},
        {"convert g.dat g.dat", 1, "convert would overwrite g.dat, which is g.dat, read for g.dat; nothing written"},
        {"convert g.dat ./g.dat.orva_hdr --force", 1, "convert would overwrite ./g.dat.orva_hdr"},
        {"convert g.dat.orva_hdr hard.dat", 1, "convert would overwrite hard.dat"},  // a link to the data
        {"convert g.dat linked --force", 1, "convert would overwrite linked.evt"},  // a link to the events
        {"convert v.vhdr v.eeg", 1, "convert would overwrite v.eeg"},  // the data file the header names
        {"convert g.dat old.f32", 1, "old.f32 exists; --force replaces it"},
        {"convert x.eeg old.f32 --force", 1, "[CNeuroscan::ReadEEGData]: Error in reading epoch data."},
        // Windows in seconds (stop excluded) or slices, channels by name or kind; g.dat runs 6 slices at 250 Hz.
        {"dump g.dat --start 0.004 --stop 0.016 --csv", 0, "slice,time_s,A,EKG1,TRIG\n1,0.004,1,-1,0\n2,0.008,1.5,0,3\n3,0.012,"},
        {"dump g.dat --first 5 --types ecg,TRIGGER", 0, "slice\ttime_s\tEKG1\tTRIG\n5\t0.02\t-1\t0\n"},
        {"dump a.avg --csv --count 1", 0, "\n0,-0.1,"},  // epoched: seconds from the stimulus
        {"stats g.dat --stop 0.012 --channels TRIG", 0, "\nTRIG                          0              3              1        1.73205\n3 slices from 0"},
        {"dump g.dat --start 0.004 --first 1", 1, "give the window in seconds (--start/--stop) or in slices"},
        {"dump g.dat --start 0.024", 1, "--start 0.024 s lies outside the recording (6 slices, 0.024 s)"},
        {"plot g.dat --out p.svg --stop 0.03", 1, "--stop 0.03 s must lie after --start and within the recording"},
        {"stats g.dat --start 0.01 --stop 0.011", 1, "holds no slice"},
        {"events g.dat --first 2 --count 5", 1, "--first 2 --count 5 reaches outside the recording"},
        {"dump g.dat --first 6", 1, "--first 6 lies outside"},
        {"dump g.dat --start nan", 1, "--start needs a number, not \"nan\""},
        {"dump g.dat --types eog", 1, "no channel of the kinds --types names in g.dat"},
        {"stats g.dat --types eeg,brain", 1, "--types: no channel kind \"brain\""},
        {"events g.dat --start 0.012", 0, "\n0 events\n"},
        {"events g.dat --stop 0.012", 0, "Stim x                      3          2          2     2     0.008000     0.000000\n1 events"},
        // The machine-readable forms; samples as the shortest text that reads back to the same float.
        {"info g.dat --json", 0, "{\"format\": \"CGeneric\", \"code\": 2, \"run_type\": 4, \"run_type_words\": \"continuous\", "
                                 "\"sample_rate\": 250, \"slices\": 6, \"duration_s\": 0.024, \"duration\": \"0:00:00.024\", "
                                 "\"epochs\": 1, \"epoch_slices\": 6, \"valid_epochs\": 1, \"prestim\": 0.1, "},
        {"info g.dat --json", 0, "\"reference_channel\": -1, \"reference_words\": \"not stated\", "},
        {"info g.dat --json", 0, "\"events\": 1, \"channels\": [\n  {\"name\": \"A\", \"type\": 1024, \"kind\": \"EEG\", "
                                 "\"unit\": \"V\", \"scale\": 0.5, \"offset\": 0, "},
        {"events v.vhdr --json", 0, "[\n  {\"name\": \"Stimulus/S  3\", \"code\": 3, \"begin\": 1, \"end\": 2, \"kind\": 2, "
                                    "\"onset_s\": 0.002, \"duration_s\": 0.002}\n]\n"},
        {"dump v.vhdr --first 1 --count 3 --json", 0, "{\"first\": 1, \"count\": 3, \"channels\": [\"Cz\"], "
                                                      "\"time_s\": [0.002, 0.004, 0.006], \"data\": [\n"
                                                      "  [-2.4691358e-06, 3.7037037e-06, -4.9382716e-06]\n]}"},
        {"info g.dat", 0, "Duration:      0:00:00.024 (6 slices, 0.024 s)\nEpochs:        none (continuous)\n"
                          "Reference:     not stated\nEvents:        1\nChannels:      3 (1 EEG, 1 ECG, 1 trigger)\n"},
    };
    for (const auto& c : cases) {
        const ToolRun run = Tool(dir, c.args);
        EXPECT_EQ(run.status, c.status) << c.args;
        EXPECT_NE((run.out + run.err).find(c.says), std::string::npos) << c.args << ":\n" << run.out << run.err;
    }
    EXPECT_EQ(Snapshot(dir), before);

    // --force replaces an existing output; the copy reads back and nothing else is left.
    WriteTextFile(dir.path("copy.f32.evt"), "old");
    ASSERT_EQ(Tool(dir, "convert g.dat copy.f32 --force").status, 0);
    std::map<std::string, std::string> after = Snapshot(dir);
    EXPECT_EQ(after.size(), before.size() + 3);
    EXPECT_EQ(after["copy.f32.evt"], "# name\tcode\tbegin\tend\tkind\n\"Stim x\"\t3\t2\t2\t2\n");
    CFilelib copy;
    std::string name = dir.path("copy.f32");
    ASSERT_EQ(copy.GuessFileMFR(name), 2);
    copy.Initialize(0);
    EXPECT_EQ(copy.GetNumSlices(), 6);
}

// What dev-set recordings state about themselves, as their READMEs and MNE-Python report it (MFF:
// the local time the file writes; Neuroscan's scan41 date field is garbled, so it states none).
TEST(Tool, InfoStatesDateSubjectFiltersAndKinds)
{
    TempDir dir;
    const struct {
        std::string file;
        std::string says;
    } rows[] = {
        {"fiff/test_elekta_3ch_raw.fif", "\"date\": \"2016-05-09\", \"time\": \"11:43:27.273957\""},
        {"fiff/test_elekta_3ch_raw.fif", "\"description\": \"TRIUX system\""},
        {"fiff/test_elekta_3ch_raw.fif", "\"kind\": \"MEG\", \"unit\": \"T\", \"scale\": 1.33e-10, \"offset\": 0, "
                                         "\"rate\": null, \"filter\": \"HP:0.1Hz LP:330Hz\""},
        {"fiff/neuromag122_test_file-raw.fif", "\"duration\": \"0:00:01.001\""},
        {"ctf/testdata_ctf_short_discontinuous.ds", "\"date\": \"2013-04-29\", \"time\": \"09:36:00\""},
        {"mff/example_3.mff", "\"date\": \"2020-01-29\", \"time\": \"06:19:39.202537\""},
        {"neuroscan/test_CNT_events_mne_JWoess_clipped__v1_9dafcf2.cnt", "\"date\": \"2018-01-03\", \"time\": \"14:35:20\""},
        {"neuroscan/scan41_short.cnt", "\"date\": null, \"time\": null"},
        {"ant/test-na-271.cnt", "\"date\": \"2024-09-06\", \"time\": \"10:45:07.411\""},
        {"plexon/File_plexon_3.plx", "\"date\": \"2010-02-22\", \"time\": \"20:00:57\""},
        {"egi/test_egi.raw", "\"date\": \"2014-04-08\", \"time\": \"09:46:44.736\""},
        {"nicolet/test_nicolet_raw.data", "\"subject\": {\"id\": \"102\", \"name\": null"},
        {"nicolet/test_nicolet_raw.data", "\"name\": \"EOG1\", \"type\": 0, \"kind\": \"EOG\""},
        {"persyst/sub-pt1_ses-02_task-monitor_acq-ecog_run-01_clip2.lay",  // its birth date is cut short
         "\"date\": \"2014-12-19\", \"time\": \"02:37:48\", \"subject\": {\"id\": \"0\", \"name\": \"No_Name\", "
         "\"sex\": null, \"birth_date\": null}"},
    };
    for (const auto& row : rows) {
        const ToolRun run = Tool(dir, "info " + std::string(FILELIB_SHARED_DATA) + "/" + row.file + " --json");
        ASSERT_EQ(run.status, 0) << row.file << run.err;
        EXPECT_NE(run.out.find(row.says), std::string::npos) << row.file << ":\n" << run.out.substr(0, 1500);
        EXPECT_EQ(ParseJson(run.out)["format"].type, Json::String) << row.file;
    }
    const std::pair<const char*, const char*> labels[] = {
        {"EOG Left", "EOG"}, {" eog1", "EOG"},  {"EKG", "ECG"},       {"ECG-R", "ECG"}, {"EMG chin", "EMG"},
        {"EMGX", ""},        {"Resp", "resp"},  {"STI 014", "trigger"}, {"TRIGGER", "trigger"}, {"EEG Fz", "EEG"},
        {"EEGx", ""},        {"Fp1", ""},
    };
    for (const auto& [label, kind] : labels)
        EXPECT_EQ(InferChannelType(label), kind) << label;
    // The pieces headers write dates and times in.
    EXPECT_EQ(IsoDate(2013, "Apr", 29) + IsoDate(18, "01", 3) + IsoDate(99, "12", 31), "2013-04-292018-01-031999-12-31");
    EXPECT_EQ(IsoDate(199, "NOV", 19) + IsoDate(2020, "13", 1) + IsoDate(2020, "Foo", 1) + IsoDate(2020, "1", 0), "");
    EXPECT_EQ(ClockTime(9, 36, 0) + " " + ClockTime(10, 47, 1.5), "09:36:00 10:47:01.500000");
    EXPECT_EQ(ClockTime(24, 0, 0) + ClockTime(1, 60, 0) + ClockTime(1, 0, -1), "");
}
