// Fuzz target: arbitrary bytes as a ".bdf" file opened through the facade.
#include "Drive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    DriveFacade({{".bdf", std::vector<uint8_t>(data, data + size)}}, ".bdf");
    return 0;
}
