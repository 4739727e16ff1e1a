#include <gtest/gtest.h>

#include <sstream>

#include "companion/Xml.h"
#include "filelib/ecBase.h"

TEST(ecBase, FlagsXmlAndEqualityThatIgnoresErrorCodeAndDirtyFlag)
{
    ecBase a(9);
    a.SetState(0x2);
    a.SetStateFlag(0x5);
    a.ClearStateFlag(0x3);
    a.SetOptionFlag(0x9);
    a.ClearOptionFlag(0x1);
    a.SetDirty(true);
    std::ostringstream out;
    EXPECT_TRUE(a.WriteXml(out));
    EXPECT_EQ(out.str(), "<state>4</state><option>8</option><ErrorCode>0</ErrorCode><InstanceType>9</InstanceType>"
                         "<bDirtyFlag>1</bDirtyFlag>");

    // The instance type is not read back; missing tags leave their fields alone.
    ecXml xml;
    ASSERT_TRUE(xml.Read("<o><state>4</state><option>8</option><ErrorCode>77</ErrorCode></o>"));
    ecBase b(6);
    b.SetDirty(true);
    EXPECT_TRUE(b.ReadXml(xml));
    EXPECT_EQ(b.GetErrorCode(), 77);
    EXPECT_EQ(b.GetInstanceType(), 6);
    EXPECT_TRUE(b.IsDirty());
    EXPECT_EQ(a == b, 0);
    b.SetInstanceType(9);
    b.SetDirty(false);
    EXPECT_EQ(a == b, 1);
}

TEST(ecLabeledState, WriteReadAndEquality)
{
    ecLabeledState s("Fz", "V");
    s.SetState(3);
    s.SetUseDataUnit(true);
    std::ostringstream out;
    s.WriteXml(out);
    EXPECT_EQ(out.str(), "<item><l>Fz</l><s>3</s><DataUnit>V</DataUnit><UseDataUnit>1</UseDataUnit>"
                         "<UseSIPrefix>0</UseSIPrefix></item>");
    ecXml xml;
    ASSERT_TRUE(xml.Read("<row>" + out.str() + "</row>"));
    ecLabeledState r;
    r.SetUseSIPrefix(true);
    EXPECT_TRUE(r.ReadXml(xml));
    EXPECT_FALSE(r.UseSIPrefix());
    EXPECT_EQ(r == s, 1);
    // Optional tags absent: unit and flags stay as they were.
    ASSERT_TRUE(xml.Read("<row><item><l>Cz</l><s>1</s></item></row>"));
    r.ReadXml(xml);
    EXPECT_EQ(r.GetLabel(), "Cz");
    EXPECT_EQ(r.GetDataUnit(), "V");
    EXPECT_EQ(r == s, 0);
}

TEST(ecError, ANullMessageIsAnEmptyText)
{
    EXPECT_STREQ(ecError(nullptr, 1, 0, -1, -1).what(), "");
}
