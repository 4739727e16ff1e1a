#include <gtest/gtest.h>

#include "companion/ByteCursor.h"
#include "companion/Events.h"
#include "companion/Matrix.h"
#include "companion/Utility.h"
#include "companion/Xml.h"
#include "fixtures/Bytes.h"
#include "fixtures/Describe.h"
#include "fixtures/Errors.h"

namespace {
ecLabeledMatrix<float> ThreeRows()
{
    ecLabeledMatrix<float> m;
    m.resize(3, 2, 0, 0);
    const char* names[] = {"A", "B", "C"};
    for (int r = 0; r < 3; ++r) {
        m[r][0] = static_cast<float>(r);
        m[r][1] = static_cast<float>(10 * r);
        m.SetRowLabeledState(r, ecLabeledState(names[r], "V"));
    }
    return m;
}
}  // namespace

TEST(Matrix, ContiguousRowsResizeDeleteAndSort)
{
    ecLabeledMatrix<float> m = ThreeRows();
    EXPECT_EQ(m[1] + 2, m[2]);  // one row-major block
    m.resize(3, 2, 0, 0);       // same shape keeps the contents
    EXPECT_EQ(m[2][1], 20.0f);
    EXPECT_EQ(m.GetRowLabeledState(7).GetLabel(), "");  // out of range: an empty label, no crash
    m.resize(2, 4, 0, 0);
    EXPECT_EQ(m[1][3], 0.0f);
    EXPECT_EQ(m.GetRowLabeledState(1).GetLabel(), "B");
    m.resize(-1, 5, 0, 0);
    EXPECT_EQ(m.nrow(), 0);

    ecLabeledMatrix<float> d = ThreeRows();
    EXPECT_FALSE(d.DeleteLabeledRow("Z"));
    EXPECT_TRUE(d.DeleteLabeledRow("B"));
    ASSERT_EQ(d.nrow(), 2);
    EXPECT_EQ(d.GetRowLabeledState(1).GetLabel() + std::to_string(d[1][1]), "C20.000000");

    ecLabeledMatrix<float> s = ThreeRows();
    EXPECT_EQ(s.SortOnRows({ecLabeledState("C", ""), ecLabeledState("Q", ""), ecLabeledState("A", "")}), 2);
    std::string order;
    for (int r = 0; r < 3; ++r)
        order += s.GetRowLabeledState(r).GetLabel() + std::to_string(static_cast<int>(s[r][1]));
    EXPECT_EQ(order, "C20A0B10");
}

// One zeroed block behind the row pointers.
TEST(Matrix, ArraysStartAtZero)
{
    int** grid = nullptr;
    ASSERT_TRUE(ecArray::Alloc(grid, 3, 4));
    EXPECT_EQ(grid[2][3], 0);
    ecArray::Free(grid);
    EXPECT_EQ(grid, nullptr);
    short* line = nullptr;
    EXPECT_FALSE(ecArray::Alloc(line, 0));
}

TEST(Events, StableSortBinaryCodesAndBoundaries)
{
    ecEventList list;
    auto add = [&](const char* name, int code, long begin, long end) {
        ecEvent e;
        e.SetEventName(name);
        e.SetEventCode(code);
        e.SetBegin(begin);
        e.SetEnd(end);
        list.AppendOneEvent(e);
    };
    add("late", 5, 30, 31);
    add("first-at-10", 1, 10, 50);
    add("second-at-10", 2, 10, 12);
    ecEvent boundary;
    boundary.SetBegin(20);
    boundary.SetSegmentBoundaryDefaults();
    list.AppendOneEvent(boundary);
    EXPECT_EQ(list.GetEventCnt(true), 4);
    EXPECT_EQ(list.GetEventCnt(false), 3);
    list.SortEventListInTimelyOrder("");
    EXPECT_EQ(EventsText(list), "first-at-10@10..50#1 second-at-10@10..12#2 New Segment@20 late@30..31#5");
    EXPECT_TRUE(list.GetEvent(2).IsSegmentBoundary());
    list.SortEventListInTimelyOrder("End");
    EXPECT_EQ(EventsText(list), "second-at-10@10..12#2 New Segment@20 late@30..31#5 first-at-10@10..50#1");
    list.ConvertCodesToBinary(4);
    EXPECT_EQ(EventsText(list), "0010@10..12#2 0000@20 0101@30..31#5 0001@10..50#1");
    list.Clear();
    EXPECT_EQ(list.GetEventCnt(true), 0);
}

TEST(Events, ReadEventFile)
{
    TempDir dir;
    WriteTextFile(dir.path("ok.evt"), "# name code begin end kind\n\"Stim A\"\t3\t100\t110\t2\nR1 1 200\n\n");
    WriteTextFile(dir.path("bad.evt"), "Stim 3 100\nbroken line here x\n");
    ecEventList list;
    ecEvent keep;
    keep.SetEventName("keep");
    list.AppendOneEvent(keep);
    EXPECT_FALSE(list.ReadEventFile(dir.path("bad.evt").c_str(), false));
    EXPECT_FALSE(list.ReadEventFile(dir.path("none.evt").c_str(), false));
    EXPECT_EQ(list.GetEventCnt(true), 1);
    ASSERT_TRUE(list.ReadEventFile(dir.path("ok.evt").c_str(), true));
    EXPECT_EQ(EventsText(list), "keep@0 Stim A@100..110#3/2 R1@200#1/2");
    ASSERT_TRUE(list.ReadEventFile(dir.path("ok.evt").c_str(), false));
    EXPECT_EQ(list.GetEventCnt(true), 2);
}

TEST(Xml, ReadsRealWorldShapes)
{
    const std::string text =
        "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE h [<!ENTITY x \"y\">]>\n"
        "<!-- header -->\n<Root version='2'>\n  <Name>a &lt;b&gt; &amp; &quot;c&quot; &apos;d&apos; &#65;&#x42; &#xE9;</Name>\n"
        "  <List><Item>1</Item><!-- skip --><Item> 2 </Item><Item>3</Item></List>\n"
        "  <Deep><Inner><Value>-7</Value></Inner></Deep>\n  <Empty/>\n  <Raw><![CDATA[<not a tag>]]></Raw>\n"
        "  <Flag>true</Flag><F>2.5e-3</F>\n</Root>\n";
    ecXml xml;
    ASSERT_TRUE(xml.Read(text));
    EXPECT_EQ(xml.GetName(), "Root");
    EXPECT_EQ(xml.GetString("Name"), "a <b> & \"c\" 'd' AB \xC3\xA9");
    EXPECT_EQ(xml.GetInt("Value"), -7);  // found among the descendants
    EXPECT_TRUE(xml.TagExists("Empty"));
    EXPECT_FALSE(xml.TagExists("Missing"));
    EXPECT_EQ(xml.GetInt("Missing"), 0);
    EXPECT_EQ(xml.GetString("Raw"), "<not a tag>");
    EXPECT_TRUE(xml.GetBool("Flag"));
    EXPECT_FLOAT_EQ(xml.GetFloat("F"), 0.0025f);

    ecXml list = xml.Sub("List");
    EXPECT_EQ(list.Children("Item").size(), 3u);
    EXPECT_EQ(list.GetUnsignedIntNext("Item"), 1u);
    EXPECT_EQ(list.GetUnsignedIntNext("Item"), 2u);
    char buf[4];
    EXPECT_EQ(list.CharacterDataNext(buf, "Item", sizeof buf, 0), 1);
    EXPECT_STREQ(buf, "3");
    EXPECT_EQ(list.CharacterDataNext(buf, "Item", sizeof buf, 0), -1);
    EXPECT_EQ(list.CharacterDataNext(buf, "Item", sizeof buf, 1), 1);
    EXPECT_STREQ(buf, "1");

    ecXml events;
    ASSERT_TRUE(events.Read("<E><Evt><Name>Stimulus long name</Name><Begin>5</Begin><End>9</End></Evt>"
                            "<Evt><Name>b</Name><Begin>7</Begin><End>7</End></Evt></E>"));
    int b = 0, e = 0;
    char name[8];
    ASSERT_TRUE(events.GetBeginEnd(b, e, "Evt", name, sizeof name, 0));
    EXPECT_EQ(b, 5);
    EXPECT_EQ(e, 9);
    EXPECT_STREQ(name, "Stimulu");  // cut to the buffer, terminated
    ASSERT_TRUE(events.GetBeginEnd(b, e, "Evt", name, sizeof name, 0));
    EXPECT_EQ(b, 7);
    EXPECT_FALSE(events.GetBeginEnd(b, e, "Evt", name, sizeof name, 0));
}

TEST(Xml, RefusesMalformedText)
{
    const char* bad[] = {"", "   ", "<a>", "<a></b>", "<a><b></a></b>", "<a>&bogus;</a>", "<a>&#0;</a>",
                         "<a x=1></a>", "<a x=\"1></a>", "<a></a><b></b>", "<a><!-- open</a>", "text only",
                         "<a><![CDATA[x</a>", "<>", "<a>&#x110000;</a>", "<a></a> trailing"};
    for (const char* text : bad) {
        ecXml xml;
        EXPECT_FALSE(xml.Read(text)) << text;
        EXPECT_FALSE(xml.IsValid());
    }
    ecXml missing;
    EXPECT_FALSE(missing.Read("/nonexistent/file.xml"));
    std::string deep;
    for (int i = 0; i < 100000; ++i)
        deep += "<d>";
    EXPECT_FALSE(missing.Read(deep));  // bounded depth, no stack overflow
}

TEST(Utility, StringsPathsAndByteOrder)
{
    std::string line = "a, b,,c ";
    std::vector<std::string> f;
    EXPECT_EQ(SplitFields(line, f, ", "), 3);
    EXPECT_EQ(f[2], "c");
    EXPECT_EQ(MidString("abc", 5, 1), "");
    EXPECT_TRUE(IsEqual("VHDR", "vhdr", false));
    EXPECT_FALSE(IsEqual("VHDR", "vhdr", true));
    // Dots in directory names are not extensions.
    EXPECT_EQ(GetFileNameDirectory("/data/run.1/file.cnt"), "/data/run.1/");
    EXPECT_EQ(GetFileNameExtension("/data/run.1/file"), "");
    EXPECT_EQ(GetFileNameNoExtension("/data/run.1/file.cnt"), "/data/run.1/file");
    EXPECT_EQ(GetFileNameNoExtension("C:\\x.y\\file"), "C:\\x.y\\file");

    float fin = 1.0f, fout = 0;
    swaf(&fin, &fout);
    EXPECT_EQ(FloatToBits(fout), 0x0000803Fu);
    Bytes be;
    be.f64be(-2.5);
    double raw = 0, host = 0;
    std::memcpy(&raw, be.data().data(), 8);
    swad_ieeebi64(&raw, &host);
    EXPECT_EQ(host, -2.5);

    // Lines longer than the buffer are cut and the rest of the line skipped; CR LF and LF both end one.
    TempDir dir;
    WriteTextFile(dir.path("t.txt"), "first line\r\nsecond-and-long\nlast");
    FILE* fp = std::fopen(dir.path("t.txt").c_str(), "rb");
    char buf[8];
    EXPECT_EQ(GetLineFromFile(fp, buf, sizeof buf), 7);
    EXPECT_STREQ(buf, "first l");
    EXPECT_EQ(GetLineFromFile(fp, buf, sizeof buf), 7);
    EXPECT_EQ(GetLineFromFile(fp, buf, sizeof buf), 4);
    EXPECT_STREQ(buf, "last");
    EXPECT_EQ(GetLineFromFile(fp, buf, sizeof buf), -1);
    std::fclose(fp);
}

// The readers' headers exercise the cursor's common fields; here the big-endian words no reader
// reads yet, the sign, the text's NUL, the moving reads and the refusals.
TEST(ByteCursor, DecodesBothOrdersAndRefusesFieldsOutsideTheBuffer)
{
    Bytes b;
    b.u16le(0x1234).u32be(0xA1B2C3D4).f32le(1.5f).f64be(3.25).text("AB", 4, '\0');
    ByteCursor c(b.data().data(), b.size());
    EXPECT_EQ(c.u32be(2), 0xA1B2C3D4u);
    EXPECT_EQ(c.i32be(2), static_cast<int32_t>(0xA1B2C3D4u));
    EXPECT_EQ(c.f64be(10), 3.25);
    EXPECT_EQ(c.str(18, 4), "AB");
    EXPECT_EQ(c.next_u16le(), 0x1234);
    EXPECT_EQ(c.next_u32be(), 0xA1B2C3D4u);
    EXPECT_EQ(c.tell(), 6u);
    EXPECT_THROW(c.u32le(20), ecError);
    EXPECT_THROW(c.u8(22), ecError);
    EXPECT_THROW(c.str(20, static_cast<size_t>(-1)), ecError);
    EXPECT_THROW(c.seek(23), ecError);
    c.seek(20);
    EXPECT_THROW(c.next_u32le(), ecError);
    EXPECT_EQ(Message([&] { c.u16le(21); }), "[ByteCursor] Field of 2 bytes at offset 21 lies outside the 22-byte header.");
}
