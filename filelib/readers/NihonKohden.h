// NihonKoden: Nihon Kohden EEG-1100/2100 family recordings (.EEG) with their companions of the
// same stem: .21E (electrode code -> name table, required), .PNT (patient, date; optional) and
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
// The extended format (device "EEG-1200A V01.00"): a second table of control blocks, addressed at
// 0x3EE, lists extended data blocks with 64-bit addresses; each holds its channel count (16-bit,
// at 68) and 10-byte channel entries with 16-bit electrode codes from 72, followed by the samples
// laid out as above. The old data blocks keep only the rate (block k of both tables pairs up).
// The extended block states no usable duration: its samples run to the next extended block or the
// end of the file. Codes beyond the old table's 0-255 are µV inputs and not typed EEG.
//
// Recording information: date and time from the .EEG's header (the .PNT's when it holds none),
// the patient's code, name, sex and birth date from the .PNT.
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

    // The start of the recording, "YYYY-MM-DD hh:mm:ss"; empty when neither the .EEG nor the .PNT states it.
    std::string GetStartTime() const
    {
        return m_recordingInfo.date.empty() ? "" : m_recordingInfo.date + " " + m_recordingInfo.time;
    }

private:
    // The old tables hold 32-bit addresses in 20-byte entries; the extended ones 64-bit addresses
    // in 24-byte entries, a control block's list starting two bytes later.
    struct TableLayout {
        long long controlEntries, stride;
        int width;
    };
    static constexpr TableLayout kOldTables{18, 20, 4}, kExtendedTables{20, 24, 8};
    struct DataBlock {
        long long dataStart;
        long long firstSlice;
        long long slices;
    };
    [[noreturn]] void Fail(const std::string& text);
    std::string Companion(const char* upperExtension);
    std::vector<uint8_t> Chunk(FILE* fp, long long at, size_t bytes, long long fileSize);
    std::vector<long long> Addresses(FILE* fp, long long countAt, long long first, const TableLayout& l,
                                     long long fileSize);
    std::vector<long long> DataBlockAddresses(FILE* fp, long long table, const TableLayout& l, long long fileSize);
    void ReadDataBlock(FILE* fp, long long at, long long fileSize);
    void ReadExtendedBlocks(FILE* fp, const std::vector<long long>& oldBlocks, long long fileSize);
    void AddBlock(long long at, const std::vector<int>& codes, int rate, long long dataStart, long long slices,
                  long long fileSize);
    void NameChannels();
    void ReadRecordingInfo(const std::vector<uint8_t>& head);
    void DescribeLayout();

    std::vector<DataBlock> m_blocks;
    std::vector<int> m_codes;  // electrode code of every channel
    int m_rate = 0;
};
