// Every recording in ../shared/data that MNE-Python reads, against what MNE and BioSig report:
// channel names, rate, length and the first samples of every channel they dumped. A value
// passes when it agrees with either peer (they disagree where the formats leave room, and this
// library sides with one of them); the few channels where it deliberately agrees with neither
// are listed with the reason. Events are compared with the peer whose convention this library
// shares, file by file.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>

#include "filelib/filelib.h"
#include "fixtures/Bytes.h"
#include "fixtures/Exercise.h"
#include "fixtures/Json.h"
#include "fixtures/SharedData.h"

namespace {
const std::string kData = std::string(FILELIB_SHARED_DATA) + "/";

struct Deviation {
    const char* file;
    const char* channel;
    bool notInTheFile;  // a channel MNE makes up: not compared at all, else only its values are skipped
    const char* why;
};
const Deviation kDeviations[] = {
    {"test.vhdr", "CP6", false, "a µS channel stays in µS; both peers convert it"},
    {"test.vhdr", "HR", false, "as above ('uS')"},
    {"test_egi.raw", "STI 014", true, "a trigger channel MNE synthesises from the event channels"},
    {"test_egi_multiepoch_paused.mff", "SESS", true, "MNE makes a trigger channel of each event code"},
    {"test_egi_multiepoch_paused.mff", "CELL", true, "as above"},
    {"test_egi_multiepoch_paused.mff", "bgin", true, "as above"},
    {"test_egi_multiepoch_paused.mff", "FIX+", true, "as above"},
    {"test_egi_multiepoch_paused.mff", "AM40", true, "as above"},
    {"test_egi_multiepoch_paused.mff", "ITI+", true, "as above"},
    {"test_egi_multiepoch_paused.mff", "STI 014", true, "and one of them all"},
};

// Files whose MNE values are microvolts labelled volts: scaled to volts before comparing, on the
// channels this library delivers in volts.
const struct {
    const char* file;
    double toVolts;
    const char* why;
} kMicrovoltPeers[] = {
    {"test_eximia.nxe", 1e-6, "MNE's eXimia gains give microvolts (its test leaves the scale unchecked)"},
};

double PeerScale(const std::string& file, const std::string& unit)
{
    for (const auto& p : kMicrovoltPeers)
        if (file == p.file && unit == "V")
            return p.toVolts;
    return 1;
}

// MNE renames 4D channels by their kind and position; these are the configuration's names in MNE's spelling.
std::vector<std::string> MneNamesOf4D(const std::vector<std::string>& names)
{
    const std::map<std::string, std::string> fixed = {{"TRIGGER", "STI 014"}, {"RESPONSE", "STI 013"}, {"UACurrent", "UTL 001"}};
    const std::map<char, std::string> numbered = {{'A', "MEG"}, {'M', "RFM"}, {'G', "RFG"}, {'X', "EXT"}, {'E', "EEG"}};
    std::map<char, int> counts;
    std::vector<std::string> out;
    for (size_t i = 0; i < names.size(); ++i) {
        const std::string& n = names[i];
        const auto kind = numbered.find(n.empty() ? ' ' : n[0]);
        char number[16];
        snprintf(number, sizeof number, " %03d", n[0] == 'A' ? static_cast<int>(i) + 1 : ++counts[n[0]]);
        out.push_back(fixed.count(n) ? fixed.at(n) : kind != numbered.end() ? kind->second + number : n);
    }
    return out;
}

const Deviation* FindDeviation(const std::string& file, const std::string& channel)
{
    for (const Deviation& d : kDeviations)
        if (file == d.file && channel == d.channel)
            return &d;
    return nullptr;
}

std::vector<std::string> ExpectedFiles()
{
    std::vector<std::string> out;
    const std::string suffix = ".expected.json";
    for (const char* family : {"ant", "bdf", "brainvision", "bti/4Dsim", "bti/linux", "ctf", "edf", "egi", "eximia",
                               "fiff", "mff", "micromed", "neuroscan", "nicolet", "nihonkohden", "persyst", "plexon", "windaq"}) {
        std::error_code missing;  // a family not present is no file to compare
        for (const auto& e : std::filesystem::directory_iterator(kData + family, missing)) {
            const std::string name = e.path().filename().string();
            if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
                out.push_back(std::string(family) + "/" + name.substr(0, name.size() - suffix.size()));
        }
    }
    return out;
}

// MNE where it reads the format, else the one peer that does; where none reads it, MNE's
// reading of the vendor's own export stands in.
const Json& MainPeer(const Json& expected)
{
    for (const char* peer : {"vendor_export_mne", "mne", "neo", "windaq3"})
        if (expected.fields.count(peer))
            return expected[peer];
    return expected["mne"];
}

// Which peer's event list a file's events match, and how to read it. Positions are compared as
// sorted lists (peers order simultaneous events differently).
struct EventSource {
    const char* file;
    const char* peer;
    int shift;              // added to the peer's positions
    const char* skipLabel;  // peer events with this label are not events of this library
    int skipCode;           // nor are peer events with this code (0: none)
    const char* why;
    std::vector<long> unlisted = {};  // events of the file that neither peer reports (its README lists them)
};
const EventSource kEventSources[] = {
    {"test.bdf", "biosig", 0, nullptr, 0, "Status transitions"},
    {"test_bdf_stim_channel.bdf", "biosig", 0, nullptr, 0, "Status transitions"},
    {"test.vhdr", "biosig", 0, nullptr, 0, "markers, 0-based"},
    {"test_old_layout_latin1_software_filter.vhdr", "biosig", 0, nullptr, 0, "markers, 0-based"},
    {"File_brainvision_3_int16.vhdr", "biosig", 0, nullptr, 0, "markers, 0-based"},
    {"test.edf", "mne", 0, nullptr, 0, "annotations and Status transitions"},
    {"test_utf8_annotations.edf", "biosig", 0, nullptr, 0, "annotations"},
    {"SC4001EC-Hypnogram.edf", "biosig", 0, nullptr, 0, "annotations (BioSig has no positions: count only)"},
    {"edf+C.edf", "mne", 0, nullptr, 0, "none"},
    {"test_edf_stim_channel.edf", "mne", 0, nullptr, 0, "the pulses of DIG DTRIG, which MNE types as EEG",
     {121, 170, 193, 255, 307, 340, 388, 528, 558, 591, 644, 668}},
    {"test_uneven_samp.edf", "mne", 0, nullptr, 0, "none"},
    {"test_eximia.nxe", "mne", 0, nullptr, 0, "none: the trigger channels carry them"},
    {"test_nicolet_raw.data", "mne", 0, nullptr, 0, "none"},
    {"sub-pt1_ses-02_task-monitor_acq-ecog_run-01_clip2.lay", "mne", 0, nullptr, 0, "comments"},
    {"test_egi.raw", "biosig", 0, nullptr, 0, "event channels; MNE adds its synthesised STI 014"},
    {"test_elekta_3ch_raw.fif", "mne", 0, nullptr, 0, "STI101 transitions"},
    {"neuromag122_test_file-raw.fif", "mne", 0, nullptr, 0, "none"},
    {"example_3.mff", "mne", 0, nullptr, 0, "an empty event track"},
    {"test_pdf_linux", "mne", 0, nullptr, 0, "TRIGGER word changes"},
    {"c,rfDC", "mne", 0, nullptr, 0, "TRIGGER word changes"},
    {"scan41_short.cnt", "mne", 1, "0", 0, "offset samples; the 0xE0 record is neither stimulus nor response"},
    {"test-na-271.cnt", "vendor_export_mne", 0, "Marker/Impedance", 0,
     "the export writes its 0-based impedance positions as 1-based ones (the first before the data); the .evt time "
     "stamps put them at 0 and 4.584 s", {0, 2292}},
    {"test-na-271-legacy.cnt", "vendor_export_mne", 0, "Marker/Impedance", 0, "as above", {0, 2292}},
    {"testdata_ctf_short_discontinuous.ds", "mne", 0, nullptr, 0, "no markers; MNE concatenates the two trials unmarked",
     {1201}},
    {"test_CNT_events_mne_JWoess_clipped__v1_9dafcf2.cnt", "biosig", 0, nullptr, 208,
     "offset samples; a 0xD0 record ends the exclusion its 0xC0 record starts"},
    {"MB0400FU.EEG", "mne", 0, nullptr, 0, "the .LOG entries"},
    {"File_micromed_1.TRC", "neo", 0, nullptr, 0, "the TRIGGER area"},
    {"AUTO.WDQ", "windaq3", 0, nullptr, 0, "the trailer's event markers, which windaq3 does not read",
     {198, 779, 1084, 1503, 1806, 2571}},
    {"DI-2108_sine_sample.WDH", "windaq3", 0, nullptr, 0, "an empty trailer"},
};

const EventSource* FindEventSource(const std::string& file)
{
    for (const EventSource& s : kEventSources)
        if (file == s.file)
            return &s;
    return nullptr;
}

bool Near(double ours, double theirs) { return std::fabs(ours - theirs) <= 1e-5 * std::fabs(theirs) + 1e-15; }

// The first samples a peer dumped for `channel`, or null when it did not dump that channel.
const Json* PeerSamples(const Json& peer, const std::string& channel)
{
    if (!peer.fields.count("first_samples_si"))
        return nullptr;
    const Json& names = peer["ch_names"];
    const Json& samples = peer["first_samples_si"];
    for (size_t k = 0; k < samples.size(); ++k) {
        const size_t index = peer.fields.count("kept_ch_index") ? static_cast<size_t>(peer["kept_ch_index"][k].number) : k;
        if (index < names.size() && names[index].text == channel)
            return &samples[k];
    }
    return nullptr;
}
}  // namespace

TEST(RealFiles, ChannelsLengthAndFirstSamplesAgreeWithThePeers)
{
    SHARED_DATA_OR_SKIP(data, "");
    const std::vector<std::string> files = ExpectedFiles();
    ASSERT_GE(files.size(), 17u) << "the recordings of " << data << " are missing";
    int compared = 0;
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        const Json expected = ParseJson(ReadTextFile(kData + file + ".expected.json"));
        const Json& mne = MainPeer(expected);
        if (mne.fields.count("error"))
            continue;  // what such files must do is tested with their reader
        const std::string base = file.substr(file.rfind('/') + 1);
        CFilelib f;
        ASSERT_NE(OpenRecording(f, kData + file), 0);
        std::vector<std::string> theirNames;
        for (const Json& n : mne["ch_names"].items)
            if (const Deviation* d = FindDeviation(base, n.text); !d || !d->notInTheFile)
                theirNames.push_back(n.text);
        std::vector<std::string> ours(static_cast<size_t>(f.GetNumChans()));
        for (int c = 0; c < f.GetNumChans(); ++c)
            f.GetChanName(c, ours[static_cast<size_t>(c)]);
        if (mne.fields.count("reader") && mne["reader"].text == "read_raw_bti")
            ours = MneNamesOf4D(ours);
        EXPECT_EQ(ours, theirNames);
        EXPECT_NEAR(f.GetSampleRate(), mne["sfreq"].number, 1e-3);
        // MNE pads the pauses of a paused MFF recording; mffpy, like this library, keeps the stored samples.
        const long padded = static_cast<long>(mne["n_samples"].number);
        const long stored = expected.fields.count("mffpy")
                                ? std::lround(expected["mffpy"]["signal_types"]["EEG"]["duration_s"].number * mne["sfreq"].number)
                                : padded;
        EXPECT_TRUE(f.GetNumSlices() == padded || f.GetNumSlices() == stored) << f.GetNumSlices();

        ecLabeledMatrix<float> m;
        ASSERT_EQ(f.ReadData(m, 0, 10), 10);
        const Json& biosig = expected["biosig"];
        for (int c = 0; c < f.GetNumChans(); ++c) {
            const std::string& channel = ours[static_cast<size_t>(c)];
            const Json* a = PeerSamples(mne, channel);
            const Json* b = PeerSamples(biosig, channel);
            if (!a || FindDeviation(base, channel))
                continue;
            std::string unit;
            f.GetChanUnit(c, unit);
            const double scale = PeerScale(base, unit);
            for (size_t t = 0; t < a->size() && t < 10; ++t) {
                if ((*a)[t].type != Json::Number)
                    continue;  // a value the peer gives only in another unit
                const double v = m[c][static_cast<long>(t)] / scale;
                EXPECT_TRUE(Near(v, (*a)[t].number) || (b && Near(v, (*b)[t].number)))
                    << channel << "[" << t << "] = " << v << "; MNE " << (*a)[t].number;
            }
            ++compared;
        }
    }
    EXPECT_GE(compared, 200);
}

namespace {
std::vector<long> Sorted(std::vector<long> v)
{
    std::sort(v.begin(), v.end());
    return v;
}

// The positions of a peer's events, filtered as `source` says, and how many it found in all.
// A transition MNE reports at slice 0 of a trigger channel is a starting value, not an event:
// a trigger needs a slice before it.
std::vector<long> PeerOnsets(const Json& peer, const EventSource& source, size_t& total)
{
    std::vector<long> out = source.unlisted;
    const Json& events = peer["events"];
    total = (peer.fields.count("events_total") ? static_cast<size_t>(peer["events_total"].number) : events.size()) +
            source.unlisted.size();
    for (const Json& e : events.items) {
        const bool startingValue = e.fields.count("source") && e["source"].text.rfind("stim:", 0) == 0 &&
                                   e["onset_sample"].number == 0;
        const bool skip = startingValue || (source.skipLabel && e["label"].text == source.skipLabel) ||
                          (source.skipCode && e.fields.count("code") && e["code"].number == source.skipCode);
        if (skip)
            --total;
        else if (e["onset_sample"].type == Json::Number)
            out.push_back(static_cast<long>(e["onset_sample"].number) + source.shift);
    }
    return Sorted(out);
}
}  // namespace

TEST(RealFiles, EventsAgreeWithThePeerOfTheSameConvention)
{
    SHARED_DATA_OR_SKIP(data, "");
    int files = 0;
    for (const std::string& file : ExpectedFiles()) {
        const std::string base = file.substr(file.rfind('/') + 1);
        const EventSource* source = FindEventSource(base);
        if (!source)
            continue;
        SCOPED_TRACE(file + ": " + source->why);
        const Json expected = ParseJson(ReadTextFile(kData + file + ".expected.json"));
        size_t total = 0;
        const std::vector<long> theirs = PeerOnsets(expected[source->peer], *source, total);
        CFilelib f;
        ASSERT_NE(OpenRecording(f, kData + file), 0);
        ecEventList events;
        f.InitialEventList(&events, nullptr);
        std::vector<long> ours;
        for (int i = 0; i < events.GetEventCnt(true); ++i)
            ours.push_back(events.GetEvent(i).GetBegin());
        ours = Sorted(ours);
        EXPECT_EQ(ours.size(), total);
        if (!theirs.empty() && ours.size() >= theirs.size()) {
            EXPECT_EQ(std::vector<long>(ours.begin(), ours.begin() + static_cast<long>(theirs.size())), theirs);
        }
        ++files;
    }
    EXPECT_EQ(files, static_cast<int>(std::size(kEventSources)));
}
