#include <gtest/gtest.h>

#include "companion/IniText.h"
#include "companion/Units.h"
#include "fixtures/Bytes.h"

TEST(IniText, SectionsKeysAndTextInAnyCaseAndEncoding)
{
    const struct {
        const char* text;
        const char* section;
        const char* key;
        const char* value;
    } kCases[] = {
        {"[Common Infos]\nDataFile=a.eeg\n", "common INFOS", "DATAFILE", "a.eeg"},
        {"\xEF\xBB\xBF[S]\r\n k = v \r\n", "s", "k", "v"},          // byte-order mark, CR LF, blanks
        {"[S]\nUnit=\xB5V\n", "S", "Unit", "\xC2\xB5V"},             // Latin-1 re-encoded
        {"[S]\nUnit=\xC2\xB5V\n", "S", "Unit", "\xC2\xB5V"},         // UTF-8 kept
        {"[S]\n; k=comment\nk=1\nK=2\n", "S", "k", "2"},             // the last of repeated keys
        {"[S]\nk=a=b\n", "S", "k", "a=b"},
        {"[S]\nk=1\n[comment]\nk=2\n[S]\nk=3\n", "S", "k", "1"},     // free text ends the parse
        {"k=outside\n[S]\n", "S", "k", ""},
        {"[S]\nk=1\n", "T", "k", ""},
    };
    for (const auto& c : kCases)
        EXPECT_EQ(ecIniText(c.text, "Comment").Get(c.section, c.key), c.value) << c.text;

    TempDir dir;
    WriteTextFile(dir.path("a.ini"), "[S]\nk=1\n");
    ecIniText ini;
    EXPECT_FALSE(ini.ReadFile(dir.path("a.ini"), 7));  // larger than allowed
    EXPECT_FALSE(ini.ReadFile(dir.path("missing.ini"), 100));
    ASSERT_TRUE(ini.ReadFile(dir.path("a.ini"), 8));
    EXPECT_EQ(ini.Get("s", "K"), "1");
}

TEST(Units, VoltsPerUnit)
{
    const struct {
        const char* unit;
        double volts;
    } kUnits[] = {{"V", 1},         {"mV", 1e-3},       {"uV", 1e-6},         {"\xC2\xB5V", 1e-6},
                  {"\xCE\xBCV", 1e-6}, {"\xB5V", 1e-6}, {"nV", 1e-9},         {"MV", 0},
                  {"\xC2\xB5S", 0}, {"C", 0},           {"", 0}};
    for (const auto& u : kUnits)
        EXPECT_EQ(VoltsPerUnit(u.unit), u.volts) << u.unit;
}
