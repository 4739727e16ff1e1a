// ecNeuromag_FIFF: Neuromag / Elekta / MEGIN FIFF recordings, raw and averaged.
//
// The tag layer walks the whole tag chain once into a directory (one FIFF_TagRec per tag) and
// answers every question by searching it by kind name and reading tag data on demand.
// The reader around it:
//  - claims a file whose first tag is FILE_ID (code 20);
//  - takes NCHAN, SFREQ and the CH_INFO records from the measurement-info block (the top level
//    of a file without blocks), whether or not a MEAS_DATE precedes them: converted and
//    anonymised files carry none;
//  - channels from those CH_INFO records (after the one-step "x" renaming of duplicate names):
//    MEG 0x200, EEG/EOG/ECG/EMG 0x400, stimulus 0x8000, others 0; units "T", "T/m", "V" (or
//    empty) in SI, the unit multiplier kept as a display hint (use-SI-prefix flag);
//  - raw files: slices from the DATA_BUFFER tags (16/32-bit integers, float, double) in file
//    order, DATA_SKIP / DATA_SKIP_SAMP gaps read as zeros, values raw x range x cal (a negative
//    calibration is applied as stored); slice 0 is the first stored sample, whose acquisition
//    sample number (the FIRST_SAMPLE of the block holding the buffers) is GetFirstSampleNumber();
//  - averaged files: every EVOKED block is one epoch (run type 1 for one set, 2 for several)
//    read from its first ASPECT block's EPOCH data (one matrix or one vector per channel),
//    values raw x cal as averages are stored; all sets share one sample window, whose first
//    sample gives the pre-stimulus time (first / rate, negative before the stimulus) and
//    GetFirstSampleNumber();
//  - a file with neither raw buffers nor averaged sets, or without samples, is refused;
//  - events: in raw files every rise of a stimulus channel's integer value (rounded) to a
//    larger non-zero value, named by the new value (slice 0 never fires); in averaged files a
//    segment boundary at the start of each set, named by the set's comment.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

struct FIFF_TagRec {
    uint32_t kind = 0;
    uint32_t type = 0;
    uint32_t size = 0;
    uint32_t next = 0;
    std::string name;
    long long dataPos = 0;  // absolute position of the first data byte
};

// A tag with its data, for callers that want a whole tag at once.
struct FIFF_Tag {
    uint32_t kind = 0;
    uint32_t type = 0;
    uint32_t size = 0;
    uint32_t next = 0;
    std::vector<uint8_t> data;
};

// A 4-byte value with its bytes; reverse() turns a big-endian value into little-endian order.
union FIFF_4Byte {
    uint32_t u;
    float f;
    uint8_t b[4];
    void reverse();
};

union FIFF_2Byte {
    uint16_t u;
    uint8_t b[2];
    void swap();
};

struct FIFF_ChPos {
    uint32_t coilType = 0;
    float r0[3] = {0, 0, 0};
    float ex[3] = {0, 0, 0};
    float ey[3] = {0, 0, 0};
    float ez[3] = {0, 0, 0};
    std::string CoilType() const;
};

struct FIFF_ChInfo {
    uint32_t scanNo = 0;
    uint32_t logNo = 0;
    uint32_t kind = 0;
    float range = 0;
    float cal = 0;
    FIFF_ChPos chpos;
    uint32_t unit = 0;
    uint32_t unitMul = 0;
    char name[16] = {};
    std::string Kind() const;
    std::string Name() const;  // the name field as a C string (at most 16 characters)
};

struct FIFF_CoordTrans {
    uint32_t from = 0;
    uint32_t to = 0;
    float rot[3][3] = {};
    float move[3] = {0, 0, 0};
    float invrot[3][3] = {};
    float invmove[3] = {0, 0, 0};
    std::string Coord(bool fromFrame) const;
};

struct FIFF_DigPoint {
    uint32_t kind = 0;
    uint32_t ident = 0;
    float r[3] = {0, 0, 0};
    std::string Kind() const;
};

class ecNeuromag_FIFF : public ecFilebase {
public:
    explicit ecNeuromag_FIFF(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new ecNeuromag_FIFF(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    // Tag layer.
    unsigned long ReadUnsignedLong();
    unsigned long ReadUnsignedLong(const FIFF_TagRec& rec);
    float ReadFloat();
    float ReadFloat(const FIFF_TagRec& rec);
    bool ReadTagRecord(FIFF_TagRec& rec);
    std::string IdentifyKind(unsigned long kind) const;
    void ReadAllTagRecords();
    void WriteTagRecords(const std::string& path) const;
    unsigned long Get(const std::string& name);
    unsigned long CountAfter(const std::string& name, const std::string& after) const;
    unsigned long SizeAfter(const std::string& name, const std::string& after, long n) const;
    bool NextAfter(const std::string& name, const std::string& after);
    void ReadChPos(FIFF_ChPos& pos);
    void ReadChInfo(const FIFF_TagRec& rec, FIFF_ChInfo& info);
    void ReadCoordTrans(const FIFF_TagRec& rec, FIFF_CoordTrans& trans);
    void ReadDigPoint(const FIFF_TagRec& rec, FIFF_DigPoint& point);
    unsigned long GetNumChans_FIFF();
    unsigned long GetNumEventChans_FIFF() const;
    float GetSampleRate_FIFF();
    long GetFirstSample_FIFF(long n);
    long GetLastSample_FIFF(long n);
    unsigned long SetChannelInformationVector();
    unsigned long SetCoordinateTransformationVector();
    unsigned long SetDigitizationPointVector();

    const std::vector<FIFF_TagRec>& GetDirectory() const { return m_directory; }
    const std::vector<FIFF_ChInfo>& GetChannelInformation() const { return m_chInfo; }
    const std::vector<FIFF_CoordTrans>& GetCoordinateTransformations() const { return m_coordTrans; }
    const std::vector<FIFF_DigPoint>& GetDigitizationPoints() const { return m_digPoints; }
    // Fiducials by ident (1 left preauricular, 2 nasion, 3 right preauricular); false when absent.
    bool GetFiducial(int ident, float out[3]) const;
    size_t GetCursor() const { return m_cursor; }
    void ResetCursor() { m_cursor = 0; }
    long GetFirstSampleNumber() const { return m_firstSampleNumber; }

private:
    struct Buffer {
        long long firstSlice;
        long long slices;
        long long dataPos;  // -1: a skip, read as zeros
        int bytes;          // per value
        uint32_t type;      // the stored values' type (without the matrix flag)
        // Averaged sets keep each channel's samples together: where each channel's first value
        // lies. Empty for raw buffers, whose slices interleave the channels.
        std::vector<long long> channelPos;
    };
    // Where a directory entry sits in the block structure.
    struct Node {
        long parent;         // index of the BLOCK_START of its innermost block; kTopLevel outside any
        uint32_t blockKind;  // for a BLOCK_START: the kind of block it opens
    };
    static constexpr long kTopLevel = -1;

    const FIFF_TagRec* FindAfter(const std::string& name, const std::string& after, long n) const;
    std::vector<uint8_t> ReadBytes(long long pos, size_t bytes);
    unsigned long BuildChannelList(const std::vector<size_t>& chInfoEntries);
    void MapBlocks();
    void GroupByBlock();
    std::vector<size_t> Children(long block, const std::string& name) const;
    const FIFF_TagRec* FirstChild(long block, const std::string& name) const;
    std::vector<long> BlocksOfKind(uint32_t kind) const;
    float ReadMeasurementInfo();
    void ReadRecordingInfo();
    void ReadSubjectAndBads();
    void MarkBad(const std::string& names);
    void RequireInFile(const FIFF_TagRec& r) const;
    std::string TagText(const FIFF_TagRec& r);
    void InitializeRaw();
    void InitializeAveraged(const std::vector<long>& sets);
    Buffer AveragedSet(long set, long long firstSlice, long long slices);
    void AddMatrixRows(const FIFF_TagRec& epoch, Buffer& set);
    void AddVectorRows(const std::vector<size_t>& epochs, Buffer& set);
    void BuildBuffers();
    void SetChannels(bool applyRange);
    void DescribeLayout();
    const uint8_t* DecodeSegment(long long segment) override;
    int AppendSetBoundaries(ecEventList* events) const;
    int AppendTriggerRises(ecEventList* events);

    std::vector<std::pair<std::string, unsigned long>> m_kindNames;
    std::vector<FIFF_TagRec> m_directory;
    size_t m_cursor = 0;
    std::vector<FIFF_ChInfo> m_chInfo;
    std::vector<FIFF_CoordTrans> m_coordTrans;
    std::vector<FIFF_DigPoint> m_digPoints;
    float m_lpa[3] = {0, 0, 0};
    float m_rpa[3] = {0, 0, 0};
    float m_nasion[3] = {0, 0, 0};
    bool m_lpaFound = false;
    bool m_rpaFound = false;
    bool m_nasionFound = false;
    long long m_fileSize = 0;
    long m_firstSampleNumber = 0;
    std::vector<Node> m_nodes;  // one per directory entry, filled by Initialize
    std::vector<size_t> m_grouped;     // directory indices, grouped by block (see GroupByBlock)
    std::vector<size_t> m_groupStart;  // where each group starts in m_grouped; one more at the end
    std::vector<Buffer> m_buffers;
    std::vector<std::string> m_setComments;  // averaged files: one per set
    std::vector<float> m_scales;  // cal x range per channel
    std::vector<uint8_t> m_raw;
    std::vector<size_t> m_dataBuffers;  // the engine's segments: the buffers that hold data
    std::vector<float> m_decoded;       // one gathered buffer, slice-major
    long long m_decodedBuffer = -1;
};
