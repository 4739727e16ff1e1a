// Fuzz target: BrainVision, three files. The input holds the header text, "\n--MARKERS--\n",
// the marker text, "\n--DATA--\n", then the binary data; the header should name f.eeg and f.vmrk.
#include "Drive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto first = SplitInput(data, size, "\n--MARKERS--\n", 2);
    const auto rest = SplitInput(first[1].data(), first[1].size(), "\n--DATA--\n", 2);
    DriveFacade({{".vhdr", first[0]}, {".vmrk", rest[0]}, {".eeg", rest[1]}}, ".vhdr");
    return 0;
}
