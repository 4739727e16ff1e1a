#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "filelib/filelib.h"
#include "filelib/readers/BrainVision.h"
#include "filelib/readers/EGI_Simple.h"
#include "fixtures/Bytes.h"
#include "fixtures/Describe.h"
#include "fixtures/Errors.h"
#include "fixtures/VendorFiles.h"

namespace {
// Three channels at 256 Hz: "Fp1,a" 0.5 µV per count, GSR 2 µS per count, Oz with no unit (µV).
std::string Header(const std::string& format, const std::string& orientation, const std::string& extra = "")
{
    return "Brain Vision Data Exchange Header File Version 2.0\r\n; comment\r\n[Common Infos]\r\nCodepage=UTF-8\r\n"
           "DataFile=d.eeg\r\nMarkerFile=d.vmrk\r\nDataFormat=BINARY\r\nDataOrientation=" + orientation +
           "\r\nNumberOfChannels=3\r\nSamplingInterval=3906.25\r\n" + extra + "\r\n[Binary Infos]\r\nBinaryFormat=" +
           format + "\r\n\r\n[Channel Infos]\r\nCh1=Fp1\\1a,,0.5,\xC2\xB5V\r\nCh2=GSR,,2,\xC2\xB5S\r\nCh3=Oz,,,\r\n"
           "[Comment]\r\nCh4=not a channel\r\n";
}

std::string Edited(std::string text, const std::vector<std::pair<std::string, std::string>>& edits)
{
    for (const auto& [from, to] : edits)
        for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
            text.replace(at, from.size(), to);
    return text;
}

using Values = std::vector<std::vector<double>>;  // [channel][slice]
const Values kValues = {{1, -2, 3, -4}, {10, 20, 30, 40}, {-100, 0, 100, 32767}};

Bytes Data(const std::string& format, bool vectorized, bool big, const Values& values)
{
    Bytes b;
    const size_t slices = values[0].size(), channels = values.size();
    for (size_t i = 0; i < slices * channels; ++i) {
        const double v = vectorized ? values[i / slices][i % slices] : values[i % channels][i / channels];
        if (format == "INT_16")
            big ? b.u16be(static_cast<uint16_t>(static_cast<int16_t>(v))) : b.i16le(static_cast<int16_t>(v));
        else if (format == "INT_32")
            big ? b.u32be(static_cast<uint32_t>(static_cast<int32_t>(v))) : b.i32le(static_cast<int32_t>(v));
        else
            big ? b.f32be(static_cast<float>(v)) : b.f32le(static_cast<float>(v));
    }
    return b;
}

// Rate, epochs x slices, EEG count, every channel's name, unit and slices 1 to 3, then the
// number of events and their description.
std::string Summary(const std::string& path, int code = 29)
{
    CFilelib f;
    std::string name = path;
    if (f.GuessFileMFR(name) != code)
        return "not recognised";
    f.Initialize(0);
    std::ostringstream out;
    out << f.GetSampleRate() << " Hz, " << f.GetNumEpochs() << " x " << f.GetEpochSlices() << ", "
        << f.GetEEGChannelCount() << " EEG";
    ecLabeledMatrix<float> m;
    const int count = f.ReadData(m, 1, std::min(3, f.GetNumSlices() - 1));
    for (int c = 0; c < f.GetNumChans(); ++c) {
        std::string chan, unit;
        f.GetChanName(c, chan);
        f.GetChanUnit(c, unit);
        out << "; " << chan << " [" << unit << "]";
        for (int t = 0; t < count; ++t)
            out << " " << m[c][t];
    }
    ecEventList events;
    if (f.InitialEventList(&events, nullptr) > 0)
        out << " | " << events.GetEventCnt() << " events: " << EventsText(events);
    return out.str();
}
const std::string kSummary = "256 Hz, 1 x 4, 2 EEG; Fp1,a [V] -1e-06 1.5e-06 -2e-06; GSR [\xC2\xB5S] 40 60 80; "
                             "Oz [V] 0 0.0001 0.032767";
}  // namespace

TEST(BrainVision, EveryLayoutWritersSpellingsLengthsAndMarkers)
{
    auto expect = [](const std::string& what, const std::string& header, const Bytes& data,
                     const std::string& headerName = "d.vhdr", const std::string& markers = "",
                     const std::string& expected = kSummary) {
        TempDir dir;
        WriteTextFile(dir.path(headerName), header);
        data.write(dir.path("d.eeg"));
        if (!markers.empty())
            WriteTextFile(dir.path("d.vmrk"), markers);
        EXPECT_EQ(Summary(dir.path(headerName)), expected) << what;
    };
    for (const char* format : {"INT_16", "INT_32", "IEEE_FLOAT_32"})
        for (const char* orientation : {"MULTIPLEXED", "VECTORIZED"})
            for (bool big : {false, true})
                expect(std::string(format) + " " + orientation + (big ? " big-endian" : ""),
                       Header(format, orientation, big ? "[Binary Infos]\r\nUseBigEndianOrder=YES\r\n" : ""),
                       Data(format, orientation[0] == 'V', big, kValues));
    const std::string header = Header("INT_16", "MULTIPLEXED");
    const Bytes data = Data("INT_16", false, false, kValues);
    expect("sections, keys and words in other letter cases",
           Edited(header, {{"[Common Infos]", "[Common infos]"}, {"Ch", "ch"}, {"NumberOf", "numberof"},
                           {"MULTIPLEXED", "multiplexed"}}), data);
    expect("byte-order mark", "\xEF\xBB\xBF" + header, data);
    // A non-voltage unit keeps its ASCII "u" spelling.
    expect("Greek mu and ASCII u", Edited(header, {{"0.5,\xC2\xB5V", "0.5,\xCE\xBCV"}, {"2,\xC2\xB5S", "2,uS"}}), data,
           "d.vhdr", "", Edited(kSummary, {{"GSR [\xC2\xB5S]", "GSR [uS]"}}));
    expect("DataPoints beyond the data", Header("INT_16", "MULTIPLEXED", "DataPoints=9\r\n"), data);
    expect("a partial slice at the end", header, Bytes(data).u16le(1));
    Values withExtra = kValues;
    withExtra.push_back({7, 7, 7, 7});  // the trailing value V-Amp stores per slice
    expect("V-Amp, multiplexed", header, Data("INT_16", false, false, withExtra), "d.ahdr");
    expect("V-Amp, vectorized", Header("INT_16", "VECTORIZED", "DataPoints=4\r\n"),
           Data("INT_16", true, false, withExtra), "d.ahdr");
    expect("Latin-1 and segments",
           Edited(Header("INT_16", "MULTIPLEXED", "SegmentationType=MARKERBASED\r\nSegmentDataPoints=2\r\n"),
                  {{"Codepage=UTF-8", "Codepage=ANSI"}, {"\xC2\xB5", "\xB5"}}),
           data, "d.vhdr", "", Edited(kSummary, {{"1 x 4", "2 x 2"}}));
    // Positions count from 1, a position 0 is the first slice too; unreadable lines are
    // skipped; Mk10 comes after Mk4.
    expect("markers", header, data, "d.vhdr",
           "\xEF\xBB\xBF" "Brain Vision Data Exchange Marker File, Version 2.0\n[Marker infos]\n"
           "Mk1=New Segment,,1,1,0,20130202105441832000\nMk2=Stimulus,S 12,3,2,0\nMk10=Response,R  3,4,0,0\n"
           "Mk3=Comment,bad\\1idea,2,1,0\nmk4=Impedance,,0,1,0\nMk5=Stimulus,S  7,x,1,0\n"
           "Mk6=Stimulus,S  8,2,-1,0\nMk7=Stimulus\nMk8=Stimulus,S  9,1e12,1,0\n",
           kSummary + " | 5 events: New Segment@0 Stimulus/S 12@2..4#12/2 Comment/bad,idea@1..2/2 Impedance@0..1/2 "
                      "Response/R  3@3#3/3");
}

TEST(BrainVision, Refusals)
{
    TempDir dir;
    Data("INT_16", false, false, kValues).write(dir.path("d.eeg"));
    const std::string base = Header("INT_16", "MULTIPLEXED");
    const std::string outside = "' lies outside the header's folder.";
    const std::pair<std::string, std::string> kRefused[] = {
        {Edited(base, {{"=d.eeg", "=../d.eeg"}}), "The data file '../d.eeg" + outside},
        {Edited(base, {{"=d.eeg", "=a\\..\\d.eeg"}}), "The data file 'a\\..\\d.eeg" + outside},
        {Edited(base, {{"=d.eeg", "=/etc/passwd"}}), "The data file '/etc/passwd" + outside},
        {Edited(base, {{"=d.eeg", "=missing.eeg"}}), "Cannot open the data file " + dir.path("missing.eeg")},
        {Header("INT_64", "MULTIPLEXED"), "Unknown BinaryFormat 'INT_64'."},
        {Header("INT_16", "SIDEWAYS"), "Unknown DataOrientation 'SIDEWAYS'."},
        {Edited(base, {{"3906.25", "0"}}), "Invalid SamplingInterval '0'."},
        {Edited(base, {{"NumberOfChannels=3", "NumberOfChannels=x"}}), "Invalid NumberOfChannels 'x'."},
        {Header("INT_16", "MULTIPLEXED", "DataPoints=-1\n"), "Invalid DataPoints '-1'."},
        {"Some other text file\n", "Not a BrainVision header: " + dir.path("x.vhdr")},
    };
    for (const auto& [header, message] : kRefused) {
        WriteTextFile(dir.path("x.vhdr"), header);
        BrainVision bad(dir.path("x.vhdr").c_str());
        EXPECT_EQ(Message([&] { bad.Initialize(0); }), "[BrainVision::Initialize] " + message);
        EXPECT_EQ(bad.GetFileMFR(), header[0] == 'B' ? 29 : 0);
    }
}

TEST(EGISimple, VersionsValuesEventsAndAZeroRate)
{
    TempDir dir;
    // Version 2: 16-bit with range / 2^bits scaling (400 uV over 12 bits), one event code.
    Bytes v2 = EgiHeader(2, 2, 3, {"DIN1"}, 12, 400);
    for (int t = 0; t < 3; ++t)
        v2.u16be(static_cast<uint16_t>(100 * (t + 1))).u16be(static_cast<uint16_t>(-7)).u16be(t == 1 ? 1 : 0);
    v2.write(dir.path("v2.raw"));
    EXPECT_EQ(Summary(dir.path("v2.raw"), 44), "250 Hz, 1 x 3, 2 EEG; E1 [V] 1.95312e-05 2.92969e-05; E2 [V] "
                                                "-6.83594e-07 -6.83594e-07; DIN1 [] 1 0 | 1 events: DIN1@1#1/2");
    // Version 7: segmented doubles, two segments of two samples.
    Bytes v7 = EgiHeader(7, 1, 2, {}, 0, 0, 2);
    for (int s = 0; s < 2; ++s)
        v7.u16be(static_cast<uint16_t>(s + 1)).u32be(1000u * s).f64be(1.5 + s).f64be(-2.5 - s);
    v7.write(dir.path("v7.raw"));
    EXPECT_EQ(Summary(dir.path("v7.raw"), 44),
              "250 Hz, 2 x 2, 1 EEG; E1 [V] -2.5e-06 2.5e-06 -3.5e-06 | 2 events: std@0 target@2");

    Bytes zeroRate = EgiHeader(4, 2, 1, {});
    zeroRate.put_u16le(20, 0).zeros(8);
    zeroRate.write(dir.path("bad.raw"));
    EGI_Simple bad(dir.path("bad.raw").c_str());
    EXPECT_EQ(Message([&] { bad.Initialize(0); }), "[EGI_Simple::Initialize] The sampling rate is 0.");
}
