// MicroMed: Micromed System 98 recordings (.TRC, the title "* MICROMED ..." at offset 0), header
// types 2 to 4. The header's descriptor table (16-byte entries from offset 176: area name,
// offset, length) locates the areas by their names: ORDER (the electrode of every stored
// channel), LABCOD (128 bytes per electrode), NOTE and TRIGGER; a file whose table lacks ORDER or
// LABCOD is refused.
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
// Events: the TRIGGER area's entries (slice, value) named by the value in decimal with code =
// value, and the NOTE area's texts (code 0), each inside the recording; empty entries are
// skipped.
#pragma once

#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class MicroMed : public ecFilebase {
public:
    explicit MicroMed(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new MicroMed(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    int GetHeaderType() const { return m_headerType; }
    // The recording's start from the header, "YYYY-MM-DD hh:mm:ss".
    std::string GetStartTime() const { return m_startTime; }

private:
    struct Area {
        long long offset = 0, length = 0;
    };
    [[noreturn]] void Fail(const std::string& text);
    Area FindArea(const std::vector<uint8_t>& head, const std::string& name, long long fileSize);
    std::vector<uint8_t> ReadArea(const Area& area);
    // Names, units and conversions of the channels; returns their common rate.
    double DescribeElectrodes(const std::vector<uint8_t>& order, const std::vector<uint8_t>& labcod, int rateMin);
    void DescribeLayout(long long slices);

    int m_headerType = 0;
    int m_bytes = 2;
    long long m_dataStart = 0;
    std::vector<double> m_gains, m_shifts;
    Area m_notes, m_triggers;
    std::string m_startTime;
};
