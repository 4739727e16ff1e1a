// Fuzz target of one reader (FILELIB_FUZZ_CASE names its row of the reader-case table): the input
// is split into the recording's files as the row says, and the facade opens the one a caller names.
#include "Drive.h"
#include "fixtures/ReaderCases.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const ReaderCase& row = *FindReaderCase(FILELIB_FUZZ_CASE);
    const std::vector<std::vector<uint8_t>> parts = SplitFiles(row, data, size);
    std::vector<FuzzFile> files;
    for (size_t k = 0; k < parts.size(); ++k)
        files.push_back({row.suffixes[k], parts[k]});
    DriveFacade(files, row.opened);
    return 0;
}
