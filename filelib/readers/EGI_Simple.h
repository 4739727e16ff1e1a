// EGI_Simple: EGI's simple binary (.raw), big-endian. Versions 2, 4 and 6 are continuous
// recordings of 16-bit integers, 32-bit floats and 64-bit doubles; 3, 5 and 7 are segmented
// (run type 2: each segment is an epoch, preceded in the file by its category and time stamp).
//
// Channels: the EEG channels "E1".."En", then one trigger channel (type 0x8000) per event code,
// named by its four characters. Values are microvolts in the file, delivered in volts;
// 16-bit data are scaled by range / 2^bits when the header gives both, else read as microvolts.
// Events: one per slice where an event channel is non-zero, named by the code, with code = the
// event channel's number (1 for the first code); segmented files add a boundary per segment
// named by its category.
#pragma once

#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class EGI_Simple : public ecFilebase {
public:
    explicit EGI_Simple(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new EGI_Simple(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    int GetVersion() const { return m_version; }

private:
    [[noreturn]] void Fail(const std::string& text);
    long long SliceOffset(long long slice) const;
    void DescribeLayout(long long slices);

    int m_version = 0;
    int m_bytes = 0;
    int m_eegChannels = 0;
    int m_eventChannels = 0;
    long long m_dataStart = 0;
    long long m_segmentSamples = 0;  // per segment (the whole recording when continuous)
    long long m_segments = 1;
    double m_microvoltsPerUnit = 1;
    std::vector<std::string> m_categories;
};
