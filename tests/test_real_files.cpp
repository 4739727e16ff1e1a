// Every recording in ../shared/data that MNE-Python reads, against what MNE and BioSig report:
// channel names, rate, length and the first samples of every channel they dumped. A value
// passes when it agrees with either peer (they disagree where the formats leave room, and this
// library sides with one of them); the few channels where it deliberately agrees with neither
// are listed with the reason.
#include <gtest/gtest.h>

#include <dirent.h>

#include <cmath>
#include <fstream>
#include <sstream>

#include "filelib/filelib.h"
#include "fixtures/Json.h"

namespace {
const std::string kData = std::string(FILELIB_SHARED_DATA) + "/";

struct Deviation {
    const char* file;
    const char* channel;
    bool notInTheFile;  // a channel MNE makes up: not compared at all, else only its values are skipped
    const char* why;
};
const Deviation kDeviations[] = {
    {"test.bdf", "Status", false, "the BDF Status word is delivered as stored; MNE masks it, BioSig drops it"},
    {"test_bdf_stim_channel.bdf", "Status", false, "as above"},
    {"test.vhdr", "CP6", false, "a µS channel stays in µS; both peers convert it"},
    {"test.vhdr", "HR", false, "as above ('uS')"},
    {"test_egi.raw", "STI 014", true, "a trigger channel MNE synthesises from the event channels"},
};

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
    for (const char* family : {"bdf", "brainvision", "edf", "egi", "fiff", "neuroscan"}) {
        DIR* d = opendir((kData + family).c_str());
        if (!d)
            continue;
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            const std::string suffix = ".expected.json";
            if (name.size() > suffix.size() && name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
                out.push_back(std::string(family) + "/" + name.substr(0, name.size() - suffix.size()));
        }
        closedir(d);
    }
    return out;
}

Json Load(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return ParseJson(text.str());
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
    const std::vector<std::string> files = ExpectedFiles();
    ASSERT_GE(files.size(), 17u) << "the recordings of " << kData << " are missing";
    int compared = 0;
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        const Json expected = Load(kData + file + ".expected.json");
        const Json& mne = expected["mne"];
        if (mne.fields.count("error"))
            continue;  // what such files must do is tested with their reader
        const std::string base = file.substr(file.find('/') + 1);
        CFilelib f;
        std::string name = kData + file;
        ASSERT_NE(f.GuessFileMFR(name), 0);
        f.Initialize(0);
        std::vector<std::string> theirNames;
        for (const Json& n : mne["ch_names"].items)
            if (const Deviation* d = FindDeviation(base, n.text); !d || !d->notInTheFile)
                theirNames.push_back(n.text);
        std::vector<std::string> ours(static_cast<size_t>(f.GetNumChans()));
        for (int c = 0; c < f.GetNumChans(); ++c)
            f.GetChanName(c, ours[static_cast<size_t>(c)]);
        EXPECT_EQ(ours, theirNames);
        EXPECT_NEAR(f.GetSampleRate(), mne["sfreq"].number, 1e-3);
        EXPECT_EQ(f.GetNumSlices(), static_cast<long>(mne["n_samples"].number));

        ecLabeledMatrix<float> m;
        ASSERT_EQ(f.ReadData(m, 0, 10), 10);
        const Json& biosig = expected["biosig"];
        for (int c = 0; c < f.GetNumChans(); ++c) {
            const std::string& channel = ours[static_cast<size_t>(c)];
            const Json* a = PeerSamples(mne, channel);
            const Json* b = PeerSamples(biosig, channel);
            if (!a || FindDeviation(base, channel))
                continue;
            for (size_t t = 0; t < a->size() && t < 10; ++t) {
                const double v = m[c][static_cast<long>(t)];
                EXPECT_TRUE(Near(v, (*a)[t].number) || (b && Near(v, (*b)[t].number)))
                    << channel << "[" << t << "] = " << v << "; MNE " << (*a)[t].number;
            }
            ++compared;
        }
    }
    EXPECT_GE(compared, 200);
}
