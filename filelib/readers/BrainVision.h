// BrainVision: the BrainVision Core Data Format (header .vhdr or the older .ahdr, markers
// .vmrk, binary data). Version 1.0 and 2.0 headers, UTF-8 or Latin-1 ("Codepage="), INT_16,
// UINT_16, INT_32 and IEEE_FLOAT_32 samples, little- or big-endian, multiplexed or vectorized.
//
// Values are count x resolution in the channel's unit, converted to volts when the unit is a
// voltage (nV, µV, uV, mV, V; no unit means µV) and the unit then reads "V"; other units
// (µS, C, ...) are kept as stated and the channel is not typed EEG.
// DataFile and MarkerFile are looked up beside the header only: an absolute path or one with a
// ".." component is refused. Markers become events named "Type/Description" (or "Type" when
// the description is empty), at position - 1 (positions count from 1), end = begin + size,
// code = the trailing number of the description (S253 -> 253), kind 3 for responses and 2
// otherwise; "New Segment" markers become segment boundaries. A marker-based segmented export
// reads as run type 2 with SegmentDataPoints slices per epoch.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class BrainVision : public ecFilebase {
public:
    explicit BrainVision(const char* headerFile);

    ecFilebase* GetpNewFilebase(const char* name) override { return new BrainVision(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    std::string GetDataFileName() const { return m_dataFile; }
    std::string GetMarkerFileName() const { return m_markerFile; }

private:
    using Sections = std::map<std::string, std::map<std::string, std::string>>;
    [[noreturn]] void Fail(const std::string& text);
    std::string Beside(const std::string& name, const char* what);
    void ReadChannels(const std::map<std::string, std::string>& channels);
    void SetTimeBase(const Sections& ini, long long dataBytes);

    std::string m_dataFile;
    std::string m_markerFile;
    bool m_vectorized = false;
    bool m_bigEndian = false;
    int m_format = 0;  // BinaryFormat, see BrainVision.cpp
    int m_bytes = 2;
    long long m_points = 0;
    std::vector<float> m_factors;  // volts (or the stated unit) per stored count
    std::vector<uint8_t> m_raw;
};
