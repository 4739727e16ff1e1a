// The plot command's drawing: one page of a window of a recording as an SVG file.
#pragma once

#include <string>

#include "filelib/Selection.h"

class CFilelib;

struct PlotRequest {
    std::string out;       // the SVG file to write
    std::string title;
    double duration = 10;  // seconds per page
    long page = 1;         // 1-based
};

struct PlotPage {
    long page = 1;
    long pages = 1;
    double start = 0;  // seconds from the recording's first slice
    long slices = 0;   // slices drawn
};

// Refuses output names that do not end in ".svg" (any case): the program writes no other image.
void RequireSvgName(const std::string& out);

// Cuts the window into pages of request.duration seconds, draws the requested one and writes it
// beside `out` as out.part, renamed into place when complete. Existing files are the caller's
// business. Raises std::runtime_error for a page the window does not have or a bad duration.
PlotPage WritePlot(CFilelib& f, const ecSelection& window, const PlotRequest& request);
