// MicroMed: Micromed System 98 recordings (.TRC, the title "* MICROMED ..." at offset 0), header
// types 2 to 4. The header's descriptor table (16-byte entries from offset 176: area name,
// offset, length) locates the areas by position, as the vendor's header definitions order them:
// ORDER (the electrode of every stored channel), LABCOD (128 bytes per electrode), NOTE, and in
// type 4 only TRIGGER (the 15th). Types 2 and 3 store 1-byte ORDER entries and electrodes with
// 16-bit logical ranges (no status byte); type 4 2-byte entries and 32-bit ranges.
//
// Data: multiplexed unsigned 8- or 16-bit samples (1 or 2 bytes; 4-byte samples are read as
// signed 32-bit, as the electrode table's logical ranges are), from the header's data offset to
// the end of the file (whole slices). Every electrode's rate is the header's minimum rate times
// its own coefficient; files whose electrodes differ in rate are refused.
//
// Units: value = (count - logical ground) x (physical max - physical min) / (logical max -
// logical min + 1) in the electrode's unit. Voltages (nV, µV, mV, V) are delivered in volts,
// unit "V", typed EEG; percent ("%"), beats per minute ("bpm") and dimensionless ("") channels
// keep their numbers and unit and are not EEG.
//
// Recording information: date and time, the patient's name ("first last") and birth date, and
// every channel's prefilter ("HP:0.15Hz LP:70Hz"; the high pass stored in mHz, the low pass in Hz).
//
// Events: the TRIGGER area's entries (slice, value) named by the value in decimal with code =
// value, and the NOTE area's texts (code 0), each inside the recording; empty entries are
// skipped.
#pragma once

#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class ByteCursor;

class MicroMed : public ecFilebase {
public:
    explicit MicroMed(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new MicroMed(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    int GetHeaderType() const { return m_headerType; }
    // The recording's start from the header, "YYYY-MM-DD hh:mm:ss".
    std::string GetStartTime() const { return m_recordingInfo.date + " " + m_recordingInfo.time; }

private:
    // Where an electrode's fields lie in its 128 bytes. Header types 2 and 3 store 1-byte ORDER
    // codes and 16-bit logical values without the status byte; type 4 2-byte codes and 32-bit values.
    struct ElectrodeLayout {
        int codeBytes, logicalBytes;
        size_t lmin, lmax, ground, pmin, pmax, unit, highPass, lowPass, coefficient;
    };
    static constexpr ElectrodeLayout kCompactElectrodes{1, 2, 14, 16, 18, 20, 24, 28, 30, 34, 38};
    static constexpr ElectrodeLayout kType4Electrodes{2, 4, 14, 18, 22, 26, 30, 34, 36, 40, 44};
    struct Area {
        long long offset = 0, length = 0;
    };
    [[noreturn]] void Fail(const std::string& text);
    Area AreaAt(const std::vector<uint8_t>& head, size_t index, long long fileSize);
    std::vector<uint8_t> ReadArea(const Area& area);
    void ReadRecordingInfo(const ByteCursor& h);
    // Names, units, conversions and filters of the channels; returns their common rate.
    double DescribeElectrodes(const std::vector<uint8_t>& order, const std::vector<uint8_t>& labcod, int rateMin,
                              const ElectrodeLayout& l);
    void DescribeLayout(long long slices);

    int m_headerType = 0;
    int m_bytes = 2;
    long long m_dataStart = 0;
    std::vector<double> m_gains, m_shifts;
    Area m_notes, m_triggers;
};
