// Fuzz target: arbitrary bytes as a ".edf" file opened through the facade.
#include "Drive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    DriveFacade({{".edf", std::vector<uint8_t>(data, data + size)}}, ".edf");
    return 0;
}
