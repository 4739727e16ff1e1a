// What every fuzz target does with its input: write it to files a reader looks for, then drive
// CFilelib through detection, initialisation, every getter, reads and events.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

struct FuzzFile {
    std::string suffix;  // appended to the common stem ("" for the main file)
    std::vector<uint8_t> bytes;
};

// Writes the files into a fresh temporary folder, opens stem + mainSuffix through the facade
// and exercises it. Only library errors may come out of it; anything else aborts the fuzzer.
void DriveFacade(const std::vector<FuzzFile>& files, const std::string& mainSuffix);
