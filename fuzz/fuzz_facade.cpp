// Fuzz target: arbitrary bytes as a ".dat" file opened through the facade.
#include "Drive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    DriveFacade({{".dat", std::vector<uint8_t>(data, data + size)}}, ".dat");
    return 0;
}
