// The subcommands of the filelib program.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

struct Options {
    std::string file;
    std::string out;
    long first = 0;
    long count = -1;  // -1: the subcommand's default
    std::vector<std::string> channels;
    bool json = false;
    bool csv = false;
    bool digital = false;
    bool words = false;
    bool force = false;  // convert: replace existing outputs
    std::string to;      // convert: the output format's name; empty: by the output's extension
    double threshold = 0.5;
    int deadTime = 0;
    long mask = -1;
    int format = 0;  // a manufacturer code: read FILE with that reader instead of detecting it
};

// A file no reader recognises (exit status 2).
class Unrecognized : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

int RunInfo(const Options& o);
int RunEvents(const Options& o);
int RunDump(const Options& o);
int RunStats(const Options& o);
int RunConvert(const Options& o);
int RunTriggers(const Options& o);
int RunPlot(const Options& o);
