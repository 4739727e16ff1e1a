// Recordings beyond 4 GiB, one per reader-case row whose format can hold them: sparse files whose
// last slices are known, read through 64-bit offsets.
#include <gtest/gtest.h>

#include <cstdio>

#include "filelib/filelib.h"
#include "fixtures/Bytes.h"
#include "fixtures/ReaderCases.h"

TEST(LargeFiles, LastSlicesOfEveryFormatBeyond4GiB)
{
    int written = 0;
    for (const ReaderCase& row : ReaderCases()) {
        if (!row.beyond4GiB)
            continue;
        SCOPED_TRACE(row.name);
        TempDir dir;
        const std::string stem = dir.path("big");
        std::vector<std::vector<float>> expected;
        if (!row.beyond4GiB(stem, expected))
            continue;  // the file system here cannot hold the sparse file
        ++written;
        CFilelib f;
        std::string name = stem + row.opened;
        ASSERT_EQ(f.GuessFileMFR(name), row.code);
        f.Initialize(0);
        const int n = static_cast<int>(expected[0].size());
        ecLabeledMatrix<float> m;
        ASSERT_EQ(f.ReadData(m, f.GetNumSlices() - n, n), n);
        for (size_t c = 0; c < expected.size(); ++c)
            for (int t = 0; t < n; ++t)
                EXPECT_FLOAT_EQ(m[static_cast<long>(c)][t], expected[c][static_cast<size_t>(t)]) << c << "," << t;
        for (const std::string& suffix : row.suffixes)
            std::remove((stem + suffix).c_str());
    }
    if (written == 0)
        GTEST_SKIP() << "the file system here cannot make a sparse file of more than 4 GiB";
}
