// A part of a recording to read or write: a window of slices and channels in the order wanted.
#pragma once

#include <vector>

struct ecSelection {
    long first = 0;             // first slice
    long count = -1;            // number of slices; -1: to the end of the recording
    std::vector<int> channels;  // channel indices in output order; empty: every channel
};
