// CGeneric: the product's own generic format, a raw data file with an XML header beside it
// (<data file>.orva_hdr). Read and written.
//
// Data layout: the samples start OffsetToData bytes into the data file and are stored epoch
// after epoch (one epoch for continuous and single-epoch runs). Inside an epoch, "Slice_Mode"
// stores slice after slice (all channels of slice 0, then of slice 1, ...), "Trace_Mode" channel
// after channel (all slices of channel 0, then of channel 1, ...). Integer and float words are
// little-endian; the Swab_ formats are the same words byte-reversed (big-endian). "Byte" is an
// unsigned 8-bit sample. "ASCII" files hold whitespace-separated numbers in the same order (one
// slice per line in Slice_Mode). A delivered value is the stored number x channel Scale x
// fOutputScale (a missing or non-positive fOutputScale counts as 1).
//
// Events: segment boundaries at every epoch start of a multi-epoch run, plus the events of the
// side file <data file>.evt when present (ecEventList::ReadEventFile layout).
//
// A header may also carry an <ORVA_Calibration> element; it becomes the reader's calibration
// record (the facade then calibrates on Initialize unless it says to skip).
//
// Constructing with the header's name (x.orva_hdr) reads the data file x.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

enum ecGenericDataFormat {
    kFmtASCII = 0,
    kFmtByte = 1,
    kFmtShort = 2,
    kFmtLong = 3,
    kFmtFloat = 4,
    kFmtDouble = 5,
    kFmtComplex = 6,
    kFmtSwabShort = 7,
    kFmtSwabLong = 8,
    kFmtSwabFloat = 9,
    kFmtSwabDouble = 10,
};

class CGeneric : public ecFilebase {
public:
    explicit CGeneric(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new CGeneric(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    // Reads <input>.orva_hdr into the reader's metadata; false when it is missing, malformed,
    // not an ORVA_Header, or declares sizes that cannot be right.
    bool ReadHeader();
    // Writes <input>.orva_hdr for the current metadata; false when the input name is empty or
    // the file cannot be written.
    bool WriteHeader();
    // The header text WriteHeader writes. withEpochs adds <NumEpochs> and <EpochSlices> before
    // the closing tag (read back by ReadHeader), so that exported multi-epoch runs keep them.
    void WriteHeaderText(std::ostream& out, bool withEpochs);

    // Data paths: one epoch (sized channels x slices per epoch), a slice range across epochs,
    // and one slice into a vector already sized to the channel count.
    void ReadEEGData(ecLabeledMatrix<float>& data, int epoch);
    int ReadCNTData(ecLabeledMatrix<float>& data, int first, int count);
    void ReadOneSlice(ecVector<float>& values, int slice);

    std::string GetHeaderFileName() const { return m_sInputDataFile + ".orva_hdr"; }
    void SetDataFormat(int format) { m_iDataFormat = format; }
    int GetDataFormat() const { return m_iDataFormat; }
    void SetDataMatrixOrientation(bool sliceMode) { m_bMatrixOrientation = sliceMode; }
    bool GetDataMatrixOrientation() const { return m_bMatrixOrientation; }
    void SetDataType(int type) { m_iDataType = type; }
    int GetDataType() const { return m_iDataType; }
    void SetProbabilityType(int type) { m_iProbabilityType = type; }
    int GetProbabilityType() const { return m_iProbabilityType; }
    void SetLatencyFormat(int format) { m_iLatencyFormat = format; }
    int GetLatencyFormat() const { return m_iLatencyFormat; }
    void SetCntFileName(const std::string& name) { m_sCntFileName = name; }
    std::string GetCntFileName() const { return m_sCntFileName; }
    void SetVarianceFileName(const std::string& name) { m_sVarianceFileName = name; }
    std::string GetVarianceFileName() const { return m_sVarianceFileName; }
    void SetOutputScale(float scale) { m_fOutputScale = scale; }
    float GetOutputScale() const { return m_fOutputScale; }

    // Bytes per stored sample of a data format: 0 for ASCII and for codes without a width.
    static int BytesPerSample(int format);

private:
    int SlicesPerEpoch();
    void OpenDataFile();
    void LoadAsciiValues(FILE* fp);
    void CheckDataSize(int64_t fileBytes);
    // Delivers slices [t0, t0 + n) of one epoch into columns [col, col + n) of data; epochRead
    // selects the ReadEEGData error texts instead of the ReadCNTData ones.
    void ReadAsciiSpan(ecLabeledMatrix<float>& data, long col, long epoch, long t0, long n, const char* failure);
    void DescribeLayout();
    void ReadSpan(ecLabeledMatrix<float>& data, long long first, long long n, bool epochRead);
    std::vector<float> ChannelFactors();

    std::string m_sInputDataFile;
    bool m_bHeaderRead = false;
    int m_iDataFormat = kFmtFloat;
    bool m_bMatrixOrientation = true;
    int m_iDataType = 0;
    int m_iProbabilityType = 0;
    int m_iLatencyFormat = 0;
    std::string m_sCntFileName;
    std::string m_sVarianceFileName;
    float m_fOutputScale = 1.0f;
    std::vector<float> m_asciiValues;  // an ASCII data file, parsed once
};
