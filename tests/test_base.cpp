#include <gtest/gtest.h>

#include <sstream>

#include "companion/Xml.h"
#include "filelib/ecBase.h"

TEST(ecBase, FlagsAndEqualityIgnoreErrorCodeAndDirtyFlag)
{
    ecBase a;
    a.SetState(0x2);
    a.SetStateFlag(0x5);
    EXPECT_EQ(a.GetState(), 0x7);
    a.ClearStateFlag(0x3);
    EXPECT_EQ(a.GetState(), 0x4);
    a.SetOptionFlag(0x9);
    a.ClearOptionFlag(0x1);
    EXPECT_EQ(a.GetOption(), 0x8);

    ecXml xml;
    ASSERT_TRUE(xml.Read("<o><state>4</state><option>8</option><ErrorCode>77</ErrorCode><bDirtyFlag>1</bDirtyFlag></o>"));
    ecBase b;
    b.ReadXml(xml);
    EXPECT_EQ(b.GetErrorCode(), 77);
    EXPECT_TRUE(b.IsDirty());
    EXPECT_EQ(a == b, 1);
    b.SetInstanceType(3);
    EXPECT_EQ(a == b, 0);

    ecBase c(5);
    EXPECT_EQ(c.GetInstanceType(), 5);
    c = b;
    EXPECT_EQ(c.GetErrorCode(), 77);
    EXPECT_EQ(c.GetInstanceType(), 3);
}

TEST(ecBase, WriteXmlIsExact)
{
    ecBase a(9);
    a.SetState(-3);
    a.SetOption(12);
    a.SetDirty(true);
    std::ostringstream out;
    EXPECT_TRUE(a.WriteXml(out));
    EXPECT_EQ(out.str(),
              "<state>-3</state><option>12</option><ErrorCode>0</ErrorCode><InstanceType>9</InstanceType>"
              "<bDirtyFlag>1</bDirtyFlag>");
}

TEST(ecBase, ReadXmlKeepsInstanceTypeAndFlagWhenTagsAreMissing)
{
    ecBase a(6);
    a.SetDirty(true);
    ecXml xml;
    ASSERT_TRUE(xml.Read("<o><state>1</state><option>2</option></o>"));
    EXPECT_TRUE(a.ReadXml(xml));
    EXPECT_EQ(a.GetInstanceType(), 6);
    EXPECT_TRUE(a.IsDirty());
    EXPECT_EQ(a.GetState(), 1);
    EXPECT_EQ(a.GetOption(), 2);
    EXPECT_EQ(a.GetErrorCode(), 0);
}

TEST(ecLabeledState, WriteReadAndEquality)
{
    ecLabeledState s("Fz", "V");
    s.SetState(3);
    s.SetUseDataUnit(true);
    std::ostringstream out;
    s.WriteXml(out);
    EXPECT_EQ(out.str(),
              "<item><l>Fz</l><s>3</s><DataUnit>V</DataUnit><UseDataUnit>1</UseDataUnit>"
              "<UseSIPrefix>0</UseSIPrefix></item>");

    ecXml xml;
    ASSERT_TRUE(xml.Read("<row>" + out.str() + "</row>"));
    ecLabeledState r;
    r.SetUseSIPrefix(true);
    EXPECT_TRUE(r.ReadXml(xml));
    EXPECT_EQ(r.GetLabel(), "Fz");
    EXPECT_EQ(r.GetDataUnit(), "V");
    EXPECT_FALSE(r.UseSIPrefix());
    EXPECT_EQ(r == s, 1);

    // Optional tags absent: unit and flags stay as they were.
    ecXml bare;
    ASSERT_TRUE(bare.Read("<row><item><l>Cz</l><s>1</s></item></row>"));
    r.ReadXml(bare);
    EXPECT_EQ(r.GetLabel(), "Cz");
    EXPECT_EQ(r.GetDataUnit(), "V");
    EXPECT_EQ(r == s, 0);

    ecLabeledState copy(s);
    EXPECT_EQ(copy == s, 1);
    copy.SetDataUnit("uV");
    EXPECT_EQ(copy == s, 0);
}

TEST(ecError, CarriesMessageKindAndCodes)
{
    ecError e(nullptr, 1, 0, -1, -1);
    EXPECT_STREQ(e.what(), "");
    ecError f("[X::Y] broken", 2, 7, 3, 4);
    EXPECT_STREQ(f.what(), "[X::Y] broken");
    EXPECT_EQ(f.GetKind(), 2);
    EXPECT_EQ(f.GetCode(), 7);
    EXPECT_EQ(f.GetInt1(), 3);
    EXPECT_EQ(f.GetInt2(), 4);
    const std::exception& asStd = f;
    EXPECT_STREQ(asStd.what(), "[X::Y] broken");
}
