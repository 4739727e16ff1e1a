#include <gtest/gtest.h>

#include <functional>

#include "fixtures/Bytes.h"
#include "fixtures/MemoryReader.h"

namespace {
class Bare : public ecFilebase {
public:
    void Initialize(int) override {}
    int ReadData(ecLabeledMatrix<float>&, int, int) override { return 0; }
    int InitialEventList(ecEventList*, ecProgressDlg*) override { return 0; }
    using ecFilebase::CloseInputFile;
};

std::string MessageOf(const std::function<void()>& f)
{
    try {
        f();
    } catch (const ecError& e) {
        EXPECT_EQ(e.GetCode(), 0);
        EXPECT_EQ(e.GetInt1(), -1);
        EXPECT_EQ(e.GetInt2(), -1);
        return e.what();
    }
    return "(nothing raised)";
}
}  // namespace

TEST(ecFilebase, FreshObjectDefaultsAndMessages)
{
    Bare r;
    EXPECT_EQ(MessageOf([&] { r.GetSampleRate(); }), "[ecFilebase::GetSampleRate]: Sampling rate was not set.");
    EXPECT_EQ(r.GetReferenceChannel(), -1);
    EXPECT_EQ(r.GetDomain(), 1);
    EXPECT_EQ(r.GetNumChans(), 0);
    EXPECT_EQ(r.GetNumEpochs(), 0);
    EXPECT_EQ(r.GetInputFilePointer(), nullptr);
    std::string s;
    EXPECT_EQ(MessageOf([&] { r.GetChanName(0, s); }), "[ecFilebase::GetChanName] Channel index (0) out of range (0)");
    EXPECT_EQ(MessageOf([&] { r.GetChanType(0); }), "[ecFilebase::GetChanType] Channel index (0) out of range (0)");
    EXPECT_EQ(MessageOf([&] { r.GetChanUnit(-1, s); }), "[ecFilebase::GetChanUnit] Channel index (-1) out of range (0)");
    EXPECT_EQ(MessageOf([&] { r.UseChanUnit(0); }), "[ecFilebase::UseChanUnit] Channel index (0) out of range (0)");
    EXPECT_EQ(MessageOf([&] { r.UseChanUnitPrefix(0); }),
              "[ecFilebase::UseChanUnitPrefix] Channel index (0) out of range (0)");
    EXPECT_EQ(MessageOf([&] { r.GetChanScale(0); }), "[ecFilebase::GetChanScale]: Invalid arguments.");
    EXPECT_EQ(MessageOf([&] { r.GetChanOffset(0); }), "[ecFilebase::GetChanOffset]: Invalid arguments.");
    try {
        r.GetpNewFilebase("x");
        FAIL();
    } catch (const ecError& e) {
        EXPECT_STREQ(e.what(), "[ecFilebase::GetpNewFilebase] (must be implemented in the derived class) Contact KVI");
        EXPECT_EQ(e.GetKind(), 2);
    }
}

TEST(ecFilebase, CountersClampAndSampleRateIsKeptAsPeriod)
{
    Bare r;
    r.SetNumEpochs(0);
    EXPECT_EQ(r.GetNumEpochs(), 1);
    r.SetNumEpochs(-5);
    EXPECT_EQ(r.GetNumEpochs(), 1);
    r.SetNumSlices(-1);
    EXPECT_EQ(r.GetNumSlices(), 0);
    r.SetEpochSlices(-2);
    EXPECT_EQ(r.GetEpochSlices(), 0);
    r.SetValidEpochCnt(-3);
    EXPECT_EQ(r.GetValidEpochCnt(), 0);

    r.SetSampleRate(250, 0);
    EXPECT_FLOAT_EQ(r.GetSampleRate(), 250.0f);
    r.SetSampleRate(0.004f, 1);
    EXPECT_FLOAT_EQ(r.GetSampleRate(), 250.0f);
    EXPECT_EQ(MessageOf([&] { r.SetSampleRate(0, 0); }), "[ecFilebase::SetSampleRate]: Invalid arguments.");
    EXPECT_EQ(MessageOf([&] { r.SetSampleRate(-1, 1); }), "[ecFilebase::SetSampleRate]: Invalid arguments.");
    EXPECT_FLOAT_EQ(r.GetSampleRate(), 250.0f);
}

TEST(ecFilebase, SetNumChansRebuildsEveryTable)
{
    Bare r;
    r.SetNumChans(3);
    std::string name, unit;
    for (int c = 0; c < 3; ++c) {
        r.GetChanName(c, name);
        EXPECT_EQ(name, std::to_string(c + 1));
        EXPECT_EQ(r.GetChanType(c), 1024);
        EXPECT_EQ(r.GetChanScale(c), 1.0f);
        EXPECT_EQ(r.GetChanOffset(c), 0.0f);
        r.GetChanUnit(c, unit);
        EXPECT_EQ(unit, "");
        EXPECT_FALSE(r.UseChanUnit(c));
        EXPECT_FALSE(r.UseChanUnitPrefix(c));
    }
    std::string fz = "Fz", uv = "uV";
    r.SetChanName(0, fz);
    r.SetChanUnit(0, uv);
    r.SetChanScale(0, 2.5f);
    r.SetChanOffset(0, -1.0f);
    r.SetUseChanUnit(0, true);
    r.SetUseChanUnitPrefix(0, true);
    r.SetChanType(1, 0x8000);
    r.GetChanName(0, name);
    EXPECT_EQ(name, "Fz");
    EXPECT_EQ(r.GetChanScale(0), 2.5f);
    EXPECT_EQ(r.GetChanOffset(0), -1.0f);
    EXPECT_TRUE(r.UseChanUnit(0) && r.UseChanUnitPrefix(0));
    EXPECT_EQ(r.GetChanType(1), 0x8000);

    r.SetNumChans(0);  // ignored
    EXPECT_EQ(r.GetNumChans(), 3);
    r.SetNumChans(2);
    r.GetChanName(0, name);
    EXPECT_EQ(name, "1");
    EXPECT_EQ(r.GetChanScale(0), 1.0f);
    EXPECT_EQ(MessageOf([&] { r.GetChanName(2, name); }), "[ecFilebase::GetChanName] Channel index (2) out of range (2)");
}

TEST(ecFilebase, SettersRefuseIndicesOutsideTheTablesWithTheirOwnTexts)
{
    Bare r;
    r.SetNumChans(3);
    std::string v = "x";
    EXPECT_EQ(MessageOf([&] { r.SetChanType(5, 1); }), "[ecFilebase::SetChanName]: Invalid arguments.");
    EXPECT_EQ(MessageOf([&] { r.SetChanName(3, v); }), "[ecFilebase::SetChanName]: Invalid arguments.");
    EXPECT_EQ(MessageOf([&] { r.SetChanScale(-1, 1); }), "[ecFilebase::SetChanScale]: Invalid arguments.");
    EXPECT_EQ(MessageOf([&] { r.SetChanOffset(3, 1); }), "[ecFilebase::SetChanOffset]: Invalid arguments.");
    EXPECT_EQ(MessageOf([&] { r.SetChanUnit(3, v); }), "[ecFilebase::SetChanUnit]: Invalid arguments.");
    EXPECT_EQ(MessageOf([&] { r.SetUseChanUnit(3, true); }), "[ecFilebase::SetUseChanUnit]: Invalid arguments.");
    EXPECT_EQ(MessageOf([&] { r.SetUseChanUnitPrefix(3, true); }),
              "[ecFilebase::SetUseChanUnitPrefix]: Invalid arguments.");
    EXPECT_EQ(r.GetNumChans(), 3);
    EXPECT_EQ(r.GetChanType(2), 1024);
}

// A reader that fills its tables itself may leave them shorter than its channel count.
TEST(ecFilebase, ShortTablesGiveTheMisssingTexts)
{
    class Short : public Bare {
    public:
        Short()
        {
            SetNumChans(3);
            m_vsChanNames.resize(1);
            m_viChanTypes.resize(1);
            m_vsChanUnits.resize(1);
            m_vbUseChanUnit.clear();
            m_vbUseChanUnitPrefix.resize(1);
            m_vfChanScales.clear();
        }
    } r;
    std::string s;
    EXPECT_EQ(MessageOf([&] { r.GetChanName(1, s); }), "[ecFilebase::GetChanName] Channel index (1) misssing name");
    EXPECT_EQ(MessageOf([&] { r.GetChanType(2); }), "[ecFilebase::GetChanType] Channel index (2) misssing type");
    EXPECT_EQ(MessageOf([&] { r.GetChanUnit(1, s); }), "[ecFilebase::GetChanUnit] Channel index (1) misssing unit");
    EXPECT_EQ(MessageOf([&] { r.UseChanUnit(0); }), "[ecFilebase::UseChanUnit] Channel index (0) misssing unit");
    EXPECT_EQ(MessageOf([&] { r.UseChanUnitPrefix(1); }),
              "[ecFilebase::UseChanUnitPrefix] Channel index (1) misssing unit");
    EXPECT_EQ(MessageOf([&] { r.GetChanName(3, s); }), "[ecFilebase::GetChanName] Channel index (3) out of range (3)");
    EXPECT_EQ(MessageOf([&] { r.GetChanScale(0); }), "[ecFilebase::GetChanScale]: Invalid arguments.");
    EXPECT_EQ(MessageOf([&] { r.SetChanScale(0, 2); }), "[ecFilebase::SetChanScale]: Invalid arguments.");
    r.GetChanName(0, s);
    EXPECT_EQ(s, "1");
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
