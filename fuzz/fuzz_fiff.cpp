// Fuzz target: arbitrary bytes as a ".fif" file opened through the facade.
#include "Drive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    DriveFacade({{".fif", std::vector<uint8_t>(data, data + size)}}, ".fif");
    return 0;
}
