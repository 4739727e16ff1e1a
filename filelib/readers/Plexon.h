// ecPlexon: Plexon .plx files, versions 100 to 107 (little-endian, "PLEX" magic), as Plexon's
// public SDK headers lay them out.
//
// Layout: a 7504-byte file header (version, timestamp frequency, the counts of DSP, event and
// slow channels, the gain fields, per-channel counts), one 1020-byte header per DSP (spike)
// channel, one 296-byte header per event channel and per slow channel, then data blocks to the
// end of the file: a 16-byte block header (type 1 spike, 4 event, 5 continuous; a 40-bit
// timestamp in ticks of the file's timestamp frequency; channel; unit; waveform count and
// words per waveform) followed by that many int16 words. Every header has the same size in
// every version; fields a version does not have are zero.
//
// Channels: the slow (continuous A/D) channels that hold data, at their own rate. The library
// has one rate per recording, so when slow channels run at different rates only those at the
// rate of the first one with data are delivered. A file without continuous data (spikes or
// events only) opens with zero channels. Each continuous block starts at the slice its
// timestamp gives (ticks x rate / timestamp frequency, rounded); a stretch no block covers
// reads as zeros. Every channel has its own block table, so channels whose blocks lie at
// different times are each read through their own engine layout.
//
// Values: the raw A/D counts. The headers' gain (per count, in millivolts by the vendor's
// convention) is given as the channel's scale and not applied: the files found converted by
// other programs store other units under the same fields, so the library does not claim volts
// (unit left empty, channel type 0). The gain per version:
//   100-101: 5000 / (2048 x Gain x 1000)
//   102:     5000 / (2048 x Gain x PreampGain)
//   103-107: SlowMaxMagnitudeMV / (2^(BitsPerSlowSample - 1) x Gain x PreampGain)
// (12-bit converters with a 5000 mV range before version 103, the header's own range after).
//
// Events, in the slices of the continuous rate (ticks when there is no continuous channel):
//   spikes: one per spike block, named "<DSP channel name> unit <n>" (unit 0 = unsorted),
//           code = the DSP channel number;
//   event channels: named by their header ("Strobed", "Start", "Stop", keyboard "KBD1", ...;
//           "Event <n>" for a channel without one), code = the strobed word for the strobed
//           channel (257), else the channel number.
// All events have kind 2 and no duration.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class ecPlexon : public ecFilebase {
public:
    explicit ecPlexon(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new ecPlexon(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

private:
    struct Slow {
        std::string name;
        int rate = 0;
        double gain = 0;
        std::vector<long long> offsets, ticks, lengths;  // its continuous blocks
    };
    struct Stamp {
        long long tick;
        int type, channel, unit;
    };
    [[noreturn]] void Fail(const std::string& text);
    long long ReadChannelHeaders(FILE* fp, int dsp, int events, int slow, long long fileSize, const uint8_t* fileHeader);
    void ScanBlocks(FILE* fp, long long from, long long fileSize);
    void BuildChannels();
    long long SliceOf(long long tick) const;

    int m_version = 0;
    long long m_tickRate = 0;
    double m_rate = 0;
    std::map<int, std::string> m_dspNames, m_eventNames;
    std::map<int, Slow> m_slow;  // by channel number
    std::vector<Stamp> m_stamps;
    std::vector<ecSampleEngine> m_engines;  // one per delivered channel
};
