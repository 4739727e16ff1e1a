// What the writers share: staged output files, the window of a recording they copy, block reads
// of that window, and its events.
#pragma once

#include <cstdio>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "filelib/Selection.h"
#include "filelib/filelib.h"

namespace exportkit {

[[noreturn]] void Fail(const char* writer, const std::string& what);

// Output files written under temporary names beside their targets and renamed into place only
// when all are complete: a failure or a cancel leaves the targets as they were. A temporary name
// is claimed by creating the file exclusively, so no existing file is ever touched.
class StagedFiles {
public:
    StagedFiles(const char* writer, const std::vector<std::string>& targets);
    ~StagedFiles();
    StagedFiles(const StagedFiles&) = delete;
    StagedFiles& operator=(const StagedFiles&) = delete;

    const std::string& Temp(size_t i) const { return m_temps[i]; }
    // Writes file i through fill, which returns false when the progress object cancelled (then
    // false here too); raises when the file cannot be created or written.
    bool WriteBinary(size_t i, const std::function<bool(FILE*)>& fill);
    void WriteText(size_t i, const std::string& text);
    // Renames the files into place in the order given (the file that makes them a recording last).
    void Commit();

private:
    std::string Claim(const std::string& target) const;

    const char* m_writer;
    std::vector<std::string> m_targets;
    std::vector<std::string> m_temps;
};

// A selection checked against the recording: every channel index valid, the slices inside it.
struct Window {
    long first = 0;
    long count = 0;
    std::vector<int> channels;
};
Window Resolve(CFilelib& source, const ecSelection& selection, const char* writer);

// Reads the window in blocks: row i of a block is the window's i-th channel.
class WindowReader {
public:
    static constexpr int kBlockSlices = 5000;
    WindowReader(CFilelib& source, const Window& window, const char* writer, ecProgressDlg* progress,
                 int passes = 1);
    // The next block of the window (false at its end, or when the progress object cancelled:
    // Cancelled() tells which). Rewind() starts a further pass.
    bool Next();
    void Rewind() { m_done = 0; }
    bool Cancelled() const { return m_cancelled; }
    long Offset() const { return m_offset; }  // of the block's first slice, within the window
    int Slices() const { return m_slices; }
    const float* Row(size_t i) const { return m_block[m_window.channels[i]]; }

private:
    CFilelib& m_source;
    const Window& m_window;
    const char* m_writer;
    ecProgressDlg* m_progress;
    ecLabeledMatrix<float> m_block;
    long m_done = 0;
    long m_offset = 0;
    int m_slices = 0;
    bool m_cancelled = false;
};

// What the writers learn of a channel in a first pass: its range, and whether every sample lies on
// the reader's grid (value = n x scale + offset with n whole), with the range of n.
struct GridSurvey {
    double scale = 1, offset = 0;
    bool exactGrid = false;  // scale and offset from the reader's double-precision grid
    double lo = std::numeric_limits<double>::infinity(), hi = -std::numeric_limits<double>::infinity();
    double nlo = lo, nhi = hi;
    bool onGrid = true;

    GridSurvey() = default;
    GridSurvey(CFilelib& source, int chan);
    // Scale and offset in the written unit: the reader's grid as is, or its float scale and offset
    // as the short decimals they were made from.
    double Step(double toUnit) const;
    double Base(double toUnit) const;
    void Add(const float* row, int slices);
    bool Empty() const { return lo > hi; }
    // The grid holds the channel within whole numbers from low to high.
    bool Fits(double low, double high) const { return onGrid && scale > 0 && !Empty() && nlo >= low && nhi <= high; }
};

// The recording's events whose onset lies in the window, begin and end counted from its start.
std::vector<ecEvent> WindowEvents(CFilelib& source, const Window& window);
// Start slices (within the window) of the source's epochs, for multi-epoch runs.
std::vector<long> EpochStarts(CFilelib& source, const Window& window);
// The date ("YYYY-MM-DD") and time ("hh:mm:ss", whole seconds) of the window's first slice, where
// the recording states its start; false (both empty) where it does not.
bool WindowStart(CFilelib& source, const Window& window, std::string& date, std::string& time);
// The recording's sample rate rid of the float noise of its single-precision period (250 Hz
// rather than 249.99998, 1000 Hz rather than 999.9999): of the rate and the period to seven
// significant digits, the shorter; the fastest channel's when the channels state their own rates.
double RecordingRate(CFilelib& source);
// A value rounded to the seven significant digits a float holds.
double FloatDigits(double value);
// The shortest decimal that reads back as the same float: the value a reader's float scale
// (0.1 held as 0.100000001) was made from.
double ShortestDecimal(float value);

}  // namespace exportkit
