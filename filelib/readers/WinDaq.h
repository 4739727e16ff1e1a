// ecDataq: DATAQ WinDaq files, normal (.wdq) and HiRes (.wdh), little-endian, as DATAQ's
// "WinDaq file format" document lays them out. Never probed (the files carry no signature):
// a caller reaches it by choosing the file source.
//
// Layout: a header of 35 elements (channel count in element 1, the slice interval as a double
// at byte 28, the time acquisition opened the file in element 13 (seconds since 1970, UTC: the
// recording's start), flags in element 27: bit 1 HiRes, bit 14 packed), one 36-byte info entry per
// channel (calibration slope and intercept as doubles, a 4-character unit tag), interleaved
// int16 samples, then a trailer of event markers and the user annotations (channel names,
// then event-marker comments, NUL-separated).
//
// Values: slope x reading + intercept in the channel's unit. In normal files the reading is
// the sample's upper 14 bits (its low 2 bits are flags, dropped); HiRes files have 16 data
// bits and the reading is sample / 4. Units "VOLT"/"Volt" and other voltage units are delivered
// in volts; any other unit tag (%, rpm, ...) is kept with the values in it. Channel names come
// from the annotations ("CH<n>" when a channel has none).
// Events: every marker of the trailer at its slice, named by its comment ("Marker" without
// one), code = the marker's number from 1. Packed files whose channels run at different rates
// are refused.
#pragma once

#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class ecDataq : public ecFilebase {
public:
    explicit ecDataq(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new ecDataq(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

protected:
    const uint8_t* DecodeSegment(long long segment) override;

private:
    struct Marker {
        long long slice;
        std::string comment;
    };
    [[noreturn]] void Fail(const std::string& text);
    void ReadChannels(const std::vector<uint8_t>& head, int infoAt, int infoBytes, bool packed,
                      const std::vector<std::string>& names, ecDataLayout& layout);
    void ReadTrailer(long long at, long long trailerBytes, long long annotationBytes, std::vector<std::string>& names);

    int m_channels = 0;
    long long m_dataStart = 0;
    long long m_slices = 0;
    std::vector<Marker> m_markers;
    std::vector<uint8_t> m_segment;  // one decoded segment of a normal file
};
