// NihonKoden: Nihon Kohden EEG-1100/2100 family recordings (.EEG) with their companions of the
// same stem: .21E (electrode code -> name table, required), .PNT (recording date, optional) and
// .LOG (event log, optional). Companions are looked for with the opened file's extension case
// first (MB0400FU.EEG -> MB0400FU.21E), then the other case.
//
// Layout: the device string at 0 (one of the known device/version strings) and again at 0x81,
// then a table of control blocks, each listing data blocks. A data block holds the rate, the
// duration (in 0.1 s), the channels' electrode codes and then multiplexed little-endian unsigned
// 16-bit samples: one value per channel plus one trailing value the header does not list (not
// delivered). Every data block must have the same channels and rate; the blocks follow each
// other in time and each later block starts with a segment-boundary event (an acquisition
// break). The recording is continuous (run type 4).
//
// Calibration per electrode code, as the system defines its inputs: DC inputs (codes 42-73) and
// the mark channels (76, 77) span -12002.9 .. 12002.56 mV over the 16-bit range, every other
// input -3200 .. 3199.902 µV; values are delivered in volts (unit "V"). Channel names come from
// the .21E's [ELECTRODE] and [REFERENCE] sections; a code the table lacks is an error. Types:
// the head electrodes (codes 0-25) are EEG unless their name starts with '$' (marks); polygraphic
// (X), DC, mark and derived channels are not EEG.
//
// Events: every .LOG entry, named by its text (20 characters), at its time (hhmmss, seconds
// from the recording's start) x rate, code 0.
#pragma once

#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class NihonKoden : public ecFilebase {
public:
    explicit NihonKoden(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new NihonKoden(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    // The start of the recording from the .PNT file, "YYYY-MM-DD hh:mm:ss"; empty without it.
    std::string GetStartTime() const { return m_startTime; }

private:
    struct DataBlock {
        long long dataStart;
        long long firstSlice;
        long long slices;
    };
    [[noreturn]] void Fail(const std::string& text);
    std::string Companion(const char* upperExtension);
    std::vector<uint8_t> Chunk(FILE* fp, long long at, size_t bytes, long long fileSize);
    void ReadDataBlock(FILE* fp, long long at, long long fileSize);
    void NameChannels();
    void ReadStartTime();
    void DescribeLayout();

    std::vector<DataBlock> m_blocks;
    std::vector<int> m_codes;  // electrode code of every channel
    int m_rate = 0;
    std::string m_startTime;
};
