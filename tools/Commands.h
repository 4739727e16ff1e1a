// The subcommands of the filelib program.
#pragma once

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "filelib/Selection.h"

class CFilelib;

struct Options {
    std::string file;
    std::string out;
    std::vector<std::string> inputs;  // concat: the recordings joined
    std::set<std::string> given;  // every option on the command line, "--first" ...
    long first = 0;
    long count = -1;  // -1: the subcommand's default
    double start = 0;  // seconds, with --start
    double stop = 0;   // seconds, with --stop
    std::vector<std::string> channels;
    std::vector<std::string> types;  // channel type words, with --types
    bool json = false;
    bool csv = false;
    bool digital = false;
    bool words = false;
    bool force = false;  // convert, concat, plot: replace existing outputs
    std::string to;      // convert: the output format's name; empty: by the output's extension
    double threshold = 0.5;
    int deadTime = 0;
    long mask = -1;
    double duration = 10;  // plot: seconds per page
    long page = 1;         // plot: the page drawn, from 1
    int format = 0;  // a manufacturer code: read FILE with that reader instead of detecting it
};

// The part of the recording the options name: a window by --start/--stop (seconds from the first
// slice) or by --first/--count (slices), and channels by --channels (names, in the order given)
// or --types (type words). Without a window, count is -1 (the command's own default); without
// channel options, every channel. A window outside the recording or an unknown name is an error.
ecSelection SelectionOf(CFilelib& file, const Options& o);

int RunInfo(const Options& o);
int RunEvents(const Options& o);
int RunDump(const Options& o);
int RunStats(const Options& o);
int RunConvert(const Options& o);
int RunConcat(const Options& o);
int RunTriggers(const Options& o);
int RunPlot(const Options& o);
