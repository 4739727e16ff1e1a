// CNeuroscan: Neuroscan continuous (.cnt), epoched (.eeg) and averaged (other extensions)
// files. A continuous file does not say whether its samples are 16- or 32-bit; the reader
// decides from the file's geometry, a side file <data>.aux, the header's sample count, the
// event table and, last, the roughness of the signal, and records its decision in the side
// file so that a user can correct it.
//
// ReadData sizes the block to the request (channels x count). Continuous files: slices past the
// recording's end or missing from a truncated file are 0, and the result counts the slices
// actually read. Epoched files: every epoch the range touches must exist ("Epoch number is out
// of range." otherwise). Averages: the range must lie within the points ("[CNeuroscan::ReadAVGData]:
// Slices out of range error." otherwise).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class ByteCursor;

class CNeuroscan : public ecFilebase {
public:
    explicit CNeuroscan(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new CNeuroscan(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    // The whole average and its variance records (scaled as the averages are).
    void ReadAVGData(ecLabeledMatrix<float>& average, ecLabeledMatrix<float>& variance);
    bool DoesVarianceExist() const override { return m_bVariance; }
    // Bytes per stored integer sample of a continuous or epoched file: 2 or 4 (0 before Initialize).
    int GetSampleWidth() const { return m_nBytes; }

private:
    struct Electrode {
        uint16_t n = 0;
        int16_t baseline = 0;
        float sensitivity = 0;
        float calibration = 0;
    };

    void CheckHeader(std::vector<uint8_t>& setup);
    void ReadRecordingInfo(const ByteCursor& h);
    void ReadElectrodes();
    void Set_nBytes_MultiEpoch();
    void Set_nBytes_Continuous();
    bool ReadAuxiliaryInformation();
    void WriteAuxiliaryInformation();
    int RoughnessChoice(int provisional, int s16, int s32);
    double Roughness(int slices, int width);
    int ReadCNTData(ecLabeledMatrix<float>& data, int first, int count);
    int ReadCNTData2(ecLabeledMatrix<float>& data, int first, int count);
    // Checks the range and sizes data to channels x count; returns how many of the slices lie
    // inside the recording.
    int SizeBlock(ecLabeledMatrix<float>& data, int first, int count, const std::string& who);
    // ReadMultiplexed and ReadBlocked fill the first `count` columns from the file and zero the rest.
    int ReadMultiplexed(ecLabeledMatrix<float>& data, int first, int count, int width, const char* who);
    void DescribeContinuous(int width);
    long long HeldSlices(int width) const;
    void DescribeEpochs();
    void CheckEpoch(int epoch);
    int ReadBlocked(ecLabeledMatrix<float>& data, int first, int count);
    int ReadEpochRange(ecLabeledMatrix<float>& data, int first, int count);
    void ReadEEGData(ecLabeledMatrix<float>& data, int epoch);
    int ReadAVGData(ecLabeledMatrix<float>& data, int first, int count);
    void ReadAvgRecords(ecLabeledMatrix<float>& data, long long firstRecord, int first, int count, const char* failure);
    void ReadEventTable();
    int SliceOfEvent(const uint8_t* record) const;
    void SetContinuousFactors();
    [[noreturn]] void HeaderError(const std::string& text);

    std::vector<uint8_t> m_header;        // setup block and electrode blocks
    int16_t m_iHeaderSize = 0;            // 900 + 75 x channels, in 16-bit arithmetic
    std::vector<uint8_t> m_eventTable;    // records in their 19-byte form
    int m_iEventCount = 0;
    bool m_bEventTableLoaded = false;
    int16_t m_nBytes = 0;
    uint8_t m_eventTableType = 0;
    long long m_fileSize = 0;
    // Setup-block fields the data paths need.
    int m_iChannels = 0;
    int m_iPoints = 0;
    int m_iSweeps = 0;
    int m_iContinuousType = 0;
    long long m_eventTablePos = 0;
    int m_iChannelOffset = 0;
    double m_dScale = 0;
    bool m_bVariance = false;
    std::vector<Electrode> m_electrodes;
    std::vector<float> m_factors;    // continuous data: volts per count
    std::vector<float> m_baselines;  // continuous data: baseline x 1e-6
};
