// BrainVision: the BrainVision Core Data Format (header .vhdr, or .ahdr from the V-Amp
// amplifier software; markers .vmrk; binary data). Version 1.0 and 2.0 headers, UTF-8 or
// Latin-1, with or without a byte-order mark, section names and keys in any letter case;
// INT_16, UINT_16, INT_32 and IEEE_FLOAT_32 samples, little- or big-endian, multiplexed or
// vectorized.
//
// Units: values are count x resolution in the channel's unit. A voltage unit (nV, µV, uV, mV,
// V; no unit means µV) is converted to volts, the unit then reads "V" and the channel is typed
// EEG. Any other unit (µS, C, ARU, ...) is kept as the header states it, the value stays in
// that unit (count x resolution, no conversion) and the channel is not typed EEG.
//
// Length: the data file's length decides. A header whose DataPoints promises more slices than
// the data file holds reads the whole slices that are there; a smaller DataPoints is honoured.
// V-Amp .ahdr data store one value per slice more than the header lists channels (a trailing
// channel the header does not describe): when the data file's length fits that layout (or
// DataPoints says so) the extra value is skipped, so the listed channels and slices come out
// right.
//
// DataFile and MarkerFile are looked up beside the header only: an absolute path or one with a
// ".." component is refused. Markers become events named "Type/Description" (or "Type" when
// the description is empty), at position - 1 (positions count from 1; a position 0, as some
// exporters write for impedance and segment markers, is slice 0), end = begin + size,
// code = the trailing number of the description (S253 -> 253), kind 3 for responses and 2
// otherwise; "New Segment" markers become segment boundaries. A marker line that cannot be
// read is skipped, the others are kept. A marker-based segmented export reads as run type 2
// with SegmentDataPoints slices per epoch. The recording's date and time are those of the first
// "New Segment" marker that states them; the channels' filters those of the comment's channel
// table (low cut-off time constant, high cut-off, notch), where it has one.
#pragma once

#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class ecIniText;

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
    [[noreturn]] void Fail(const std::string& text);
    std::string Beside(const std::string& name, const char* what);
    void ReadLayout(const ecIniText& ini);
    void ReadChannels(const ecIniText& ini);
    void SetTimeBase(const ecIniText& ini, long long dataBytes);
    void CountSlices(const ecIniText& ini, long long dataBytes);
    void DescribeLayout();
    void ReadStartDate();

    std::string m_dataFile;
    std::string m_markerFile;
    bool m_vectorized = false;
    bool m_bigEndian = false;
    int m_format = 0;  // BinaryFormat, see BrainVision.cpp
    int m_bytes = 2;
    int m_stored = 0;  // values per slice in the data file: the channels, or one more (.ahdr)
    long long m_points = 0;
    std::vector<float> m_factors;  // volts (or the stated unit) per stored count
};
