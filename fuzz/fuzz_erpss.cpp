// Fuzz target: arbitrary bytes as a ".raw" file opened through the facade.
#include "Drive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    DriveFacade({{".raw", std::vector<uint8_t>(data, data + size)}}, ".raw");
    return 0;
}
