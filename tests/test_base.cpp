#include <gtest/gtest.h>

#include <sstream>

#include "companion/Xml.h"
#include "filelib/ecBase.h"

namespace {
// Writes `from` and reads the text back into `into`, wrapped in an element of its own.
template <class T>
void ReadBack(const T& from, T& into)
{
    std::ostringstream out;
    ASSERT_TRUE(from.WriteXml(out));
    ecXml xml;
    ASSERT_TRUE(xml.Read("<o>" + out.str() + "</o>"));
    ASSERT_TRUE(into.ReadXml(xml));
}
}  // namespace

// Flags and labels survive their XML; equality ignores the error code and the dirty flag.
TEST(ecBase, XmlRoundTripAndEquality)
{
    ecBase a(9);
    a.SetState(0x2);
    a.SetStateFlag(0x5);
    a.ClearStateFlag(0x3);
    a.SetOptionFlag(0x9);
    a.ClearOptionFlag(0x1);
    a.SetDirty(true);
    ecBase b(6);
    ReadBack(a, b);
    EXPECT_EQ(std::vector<long>({b.GetState(), b.GetOption(), b.GetInstanceType(), b.IsDirty()}),
              std::vector<long>({4, 8, 9, 1}));
    b.SetDirty(false);
    ecXml xml;  // without an instance type, which stays as it was
    ASSERT_TRUE(xml.Read("<o><state>4</state><option>8</option><ErrorCode>77</ErrorCode></o>"));
    ASSERT_TRUE(b.ReadXml(xml));
    EXPECT_EQ(b.GetErrorCode(), 77);
    EXPECT_EQ(a == b, 1);
    b.SetInstanceType(6);
    EXPECT_EQ(a == b, 0);

    ecLabeledState s("Fz", "V"), r;
    s.SetState(3);
    s.SetUseDataUnit(true);
    r.SetUseSIPrefix(true);
    ReadBack(s, r);
    EXPECT_EQ(r == s, 1);
    r.SetDataUnit("uV");
    EXPECT_EQ(r == s, 0);
}

TEST(ecError, ANullMessageIsAnEmptyText)
{
    EXPECT_STREQ(ecError(nullptr, 1, 0, -1, -1).what(), "");
}
