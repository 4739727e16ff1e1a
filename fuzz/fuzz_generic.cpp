// Fuzz target: the generic format, a header and a data file. The input holds the header text,
// then "\n--DATA--\n", then the data bytes.
#include "Drive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto parts = SplitInput(data, size, "\n--DATA--\n", 2);
    DriveFacade({{".dat.orva_hdr", parts[0]}, {".dat", parts[1]}, {".dat.evt", parts[0]}}, ".dat");
    return 0;
}
