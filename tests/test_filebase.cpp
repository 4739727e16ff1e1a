#include <gtest/gtest.h>

#include "fixtures/Bytes.h"
#include "fixtures/Describe.h"
#include "fixtures/Errors.h"
#include "filelib/ecFilebase.h"

namespace {
class Bare : public ecFilebase {
public:
    void Initialize(int) override {}
    int ReadData(ecLabeledMatrix<float>&, int, int) override { return 0; }
    int InitialEventList(ecEventList*, ecProgressDlg*) override { return 0; }
    using ecFilebase::CloseInputFile;
};

// A reader that fills its tables itself may leave them shorter than its channel count.
class ShortTables : public Bare {
public:
    ShortTables()
    {
        SetNumChans(3);
        m_vsChanNames.resize(1);
        m_viChanTypes.resize(1);
        m_vsChanUnits.resize(1);
        m_vbUseChanUnit.clear();
        m_vbUseChanUnitPrefix.resize(1);
        m_vfChanScales.clear();
    }
};
}  // namespace

TEST(ecFilebase, EachAccessorRefusesWithItsOwnText)
{
    Bare none, three;
    three.SetNumChans(3);
    ShortTables cut;
    std::string s = "x";
    const std::string p = "[ecFilebase::";
    const std::pair<std::function<void()>, std::string> rows[] = {
        {[&] { none.GetSampleRate(); }, "GetSampleRate]: Sampling rate was not set."},
        {[&] { none.GetChanName(0, s); }, "GetChanName] Channel index (0) out of range (0)"},
        {[&] { none.GetChanType(0); }, "GetChanType] Channel index (0) out of range (0)"},
        {[&] { none.GetChanUnit(-1, s); }, "GetChanUnit] Channel index (-1) out of range (0)"},
        {[&] { none.UseChanUnit(0); }, "UseChanUnit] Channel index (0) out of range (0)"},
        {[&] { none.UseChanUnitPrefix(0); }, "UseChanUnitPrefix] Channel index (0) out of range (0)"},
        {[&] { none.GetChanScale(0); }, "GetChanScale]: Invalid arguments."},
        {[&] { none.GetChanOffset(0); }, "GetChanOffset]: Invalid arguments."},
        {[&] { three.SetChanType(5, 1); }, "SetChanName]: Invalid arguments."},
        {[&] { three.SetChanName(3, s); }, "SetChanName]: Invalid arguments."},
        {[&] { three.SetChanScale(-1, 1); }, "SetChanScale]: Invalid arguments."},
        {[&] { three.SetChanOffset(3, 1); }, "SetChanOffset]: Invalid arguments."},
        {[&] { three.SetChanUnit(3, s); }, "SetChanUnit]: Invalid arguments."},
        {[&] { three.SetUseChanUnit(3, true); }, "SetUseChanUnit]: Invalid arguments."},
        {[&] { three.SetUseChanUnitPrefix(3, true); }, "SetUseChanUnitPrefix]: Invalid arguments."},
        {[&] { cut.GetChanName(1, s); }, "GetChanName] Channel index (1) misssing name"},
        {[&] { cut.GetChanType(2); }, "GetChanType] Channel index (2) misssing type"},
        {[&] { cut.GetChanUnit(1, s); }, "GetChanUnit] Channel index (1) misssing unit"},
        {[&] { cut.UseChanUnit(0); }, "UseChanUnit] Channel index (0) misssing unit"},
        {[&] { cut.UseChanUnitPrefix(1); }, "UseChanUnitPrefix] Channel index (1) misssing unit"},
        {[&] { cut.GetChanName(3, s); }, "GetChanName] Channel index (3) out of range (3)"},
        {[&] { cut.GetChanScale(0); }, "GetChanScale]: Invalid arguments."},
        {[&] { cut.SetChanScale(0, 2); }, "SetChanScale]: Invalid arguments."},
    };
    for (const auto& [call, text] : rows)
        EXPECT_EQ(Message(call), p + text);
    EXPECT_EQ(three.GetChanType(2), 1024);  // the refused setters changed nothing
    cut.GetChanName(0, s);
    EXPECT_EQ(s, "1");
    try {
        none.GetpNewFilebase("x");
        FAIL();
    } catch (const ecError& e) {
        EXPECT_STREQ(e.what(), "[ecFilebase::GetpNewFilebase] (must be implemented in the derived class) Contact KVI");
        EXPECT_EQ(std::vector<int>({e.GetKind(), e.GetCode(), e.GetInt1(), e.GetInt2()}), std::vector<int>({2, 0, -1, -1}));
    }
}

TEST(ecFilebase, CountersThatClampAndTheRateKeptAsPeriod)
{
    Bare r;
    r.SetNumEpochs(0);
    EXPECT_EQ(r.GetNumEpochs(), 1);
    r.SetNumEpochs(-5);
    r.SetNumSlices(-1);
    r.SetEpochSlices(-2);
    r.SetValidEpochCnt(-3);
    EXPECT_EQ(std::vector<int>({r.GetNumEpochs(), r.GetNumSlices(), r.GetEpochSlices(), r.GetValidEpochCnt()}),
              std::vector<int>({1, 0, 0, 0}));

    r.SetSampleRate(250, 0);
    EXPECT_FLOAT_EQ(r.GetSampleRate(), 250.0f);
    r.SetSampleRate(0.004f, 1);
    EXPECT_FLOAT_EQ(r.GetSampleRate(), 250.0f);
    EXPECT_EQ(Message([&] { r.SetSampleRate(0, 0); }), "[ecFilebase::SetSampleRate]: Invalid arguments.");
    EXPECT_EQ(Message([&] { r.SetSampleRate(-1, 1); }), "[ecFilebase::SetSampleRate]: Invalid arguments.");
    EXPECT_FLOAT_EQ(r.GetSampleRate(), 250.0f);
}

TEST(ecFilebase, SetNumChansRebuildsEveryTable)
{
    Bare r;
    r.SetNumChans(3);
    EXPECT_EQ(ChannelsOf(r), "1//1024 2//1024 3//1024");
    for (int c = 0; c < 3; ++c) {
        EXPECT_EQ(std::make_pair(r.GetChanScale(c), r.GetChanOffset(c)), std::make_pair(1.0f, 0.0f));
        EXPECT_FALSE(r.UseChanUnit(c) || r.UseChanUnitPrefix(c));
    }
    std::string fz = "Fz", name;
    r.SetChanName(0, fz);
    r.SetChanScale(0, 2.5f);
    r.SetNumChans(0);  // ignored
    EXPECT_EQ(r.GetNumChans(), 3);
    EXPECT_EQ(r.GetChanScale(0), 2.5f);
    r.SetNumChans(2);
    EXPECT_EQ(ChannelsOf(r) + " " + std::to_string(r.GetChanScale(0)), "1//1024 2//1024 1.000000");
    EXPECT_EQ(Message([&] { r.GetChanName(2, name); }), "[ecFilebase::GetChanName] Channel index (2) out of range (2)");
}

// Copies share the source's handles; the handle is closed exactly once, by the last holder
// (the sanitizer build catches a double close or a use after close).
TEST(ecFilebase, CopiesShareHandlesAndTheLastHolderClosesThem)
{
    TempDir dir;
    WriteTextFile(dir.path("f"), "abc");
    auto* source = new Bare;
    source->SetNumChans(2);
    source->SetInputFilePointer(std::fopen(dir.path("f").c_str(), "rb"));
    FILE* fp = source->GetInputFilePointer();
    ASSERT_NE(fp, nullptr);
    {
        Bare copy(*source);
        EXPECT_EQ(copy.GetInputFilePointer(), fp);
        EXPECT_EQ(copy.GetNumChans(), 2);
        Bare assigned;
        assigned = copy;
        EXPECT_EQ(assigned.GetInputFilePointer(), fp);
    }
    EXPECT_EQ(std::fgetc(fp), 'a');  // still open after both copies are gone
    Bare survivor(*source);
    delete source;
    EXPECT_EQ(std::fgetc(survivor.GetInputFilePointer()), 'b');
    survivor.CloseInputFile();
    EXPECT_EQ(survivor.GetInputFilePointer(), nullptr);

    // Swapping handles hands the old one back to the caller, unclosed.
    Bare swapper;
    FILE* first = std::fopen(dir.path("f").c_str(), "rb");
    swapper.SetInputFilePointer(first);
    swapper.SetInputFilePointer(nullptr);
    EXPECT_EQ(std::fgetc(first), 'a');
    std::fclose(first);
}
