// Fuzz target: arbitrary bytes as a ".cnt" file opened through the facade.
#include "Drive.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    DriveFacade({{".cnt", std::vector<uint8_t>(data, data + size)}}, ".cnt");
    return 0;
}
