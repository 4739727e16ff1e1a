// Malformed input, driven by the reader-case table: every row's first seed cut short, its integer
// fields set to 0, 1, 65535, 2^31-1 and the like, the numbers of its text headers replaced by
// negative, huge, NaN and non-numeric texts, plus the row's own damaged inputs (loops, overflowing
// sizes, NaN rates). Every variant must either read or fail with the library's own error (a text
// that starts with the bracketed class and method): never a crash, a sanitizer report, or a
// standard-library error from a size taken on trust.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "fixtures/Bytes.h"
#include "fixtures/Exercise.h"
#include "fixtures/ReaderCases.h"

namespace {

using Files = std::vector<std::vector<uint8_t>>;

const char* const kAwkward[] = {"0", "-1", "65535", "2147483647", "4294967296", "nan", "-0.5", "abc", "1e308", ""};

// Writes every variant as the row's files and reads it; the outcome must be clean.
class Sweep {
public:
    Sweep(const ReaderCase& row, std::string stem) : m_row(row), m_stem(std::move(stem)) {}

    void Try(const Files& files, const std::string& what)
    {
        for (size_t k = 0; k < files.size(); ++k)
            Bytes().raw(std::string(files[k].begin(), files[k].end())).write(m_stem + m_row.suffixes[k]);
        const std::string outcome = ExerciseRecording(m_stem + m_row.opened);
        EXPECT_TRUE(outcome.empty() || outcome[0] == '[') << what << ": " << outcome;
        m_refused += outcome.empty() ? 0 : 1;
    }
    void Truncations(const Files& files, size_t file, size_t upTo, size_t step)
    {
        for (size_t n = 0; n < files[file].size(); n += n < upTo ? 1 : step) {
            Files cut = files;
            cut[file].resize(n);
            Try(cut, "cut at " + std::to_string(n));
        }
    }
    void Integers(const Files& files, size_t file, const std::vector<Field>& fields, bool bigEndian)
    {
        for (const Field& field : fields)
            for (uint32_t v : {0u, 1u, 0xFFFFu, 0xFFFFFFFFu, 0x7FFFFFFFu, 0x80000000u, 0x10000u}) {
                Files changed = files;
                std::vector<uint8_t>& b = changed[file];
                for (int k = 0; k < field.width && field.at + static_cast<size_t>(k) < b.size(); ++k)
                    b[field.at + static_cast<size_t>(k)] = static_cast<uint8_t>(v >> 8 * (bigEndian ? field.width - 1 - k : k));
                Try(changed, "field at " + std::to_string(field.at) + " = " + std::to_string(v));
            }
    }
    // Each number in the text part of each file (up to its first control byte), in turn.
    void TextNumbers(const Files& files, bool fixedWidth)
    {
        for (size_t file = 0; file < files.size(); ++file) {
            const std::vector<uint8_t>& b = files[file];
            const size_t textEnd = static_cast<size_t>(
                std::find_if(b.begin(), b.end(), [](uint8_t c) { return c < 0x20 && c != '\t' && c != '\r' && c != '\n'; }) -
                b.begin());
            for (size_t at = 0; at < textEnd; ++at) {
                if (!std::isdigit(b[at]) || (at > 0 && (std::isalnum(b[at - 1]) || b[at - 1] == '.')))
                    continue;
                const size_t start = at > 0 && b[at - 1] == '-' ? at - 1 : at;
                size_t end = at;
                while (end < textEnd && (std::isdigit(b[end]) || b[end] == '.'))
                    ++end;
                while (fixedWidth && end < textEnd && b[end] == ' ')
                    ++end;
                for (const std::string text : kAwkward) {
                    Files changed = files;
                    std::string value = text;
                    if (fixedWidth)
                        value.resize(end - start, ' ');
                    changed[file].erase(changed[file].begin() + static_cast<long>(start), changed[file].begin() + static_cast<long>(end));
                    changed[file].insert(changed[file].begin() + static_cast<long>(start), value.begin(), value.end());
                    Try(changed, "number at " + std::to_string(start) + " of file " + std::to_string(file) + " = '" + text + "'");
                }
                at = end;
            }
        }
    }
    int Refused() const { return m_refused; }

private:
    const ReaderCase& m_row;
    std::string m_stem;
    int m_refused = 0;
};

Files Split(const ReaderCase& row, const std::string& bytes)
{
    return SplitFiles(row, reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

TEST(Malformed, EveryReaderCaseReadsOrRefusesCleanly)
{
    for (const ReaderCase& row : ReaderCases()) {
        SCOPED_TRACE(row.name);
        TempDir dir;
        Sweep sweep(row, dir.path("f"));  // the stem the seeds' own references use
        const Files files = Split(row, row.seeds().front().second);
        const size_t opened = static_cast<size_t>(
            std::find(row.suffixes.begin(), row.suffixes.end(), row.opened) - row.suffixes.begin());
        ASSERT_LT(opened, files.size());
        const Damage& damage = row.damage;
        sweep.Truncations(files, opened, damage.cutUpTo, damage.cutStep);
        sweep.Integers(files, opened, damage.fields, damage.bigEndian);
        sweep.TextNumbers(files, damage.fixedWidthText);
        if (damage.extra)
            for (const auto& [what, bytes] : damage.extra())
                sweep.Try(Split(row, bytes), what);
        EXPECT_GT(sweep.Refused(), 0);
    }
}
