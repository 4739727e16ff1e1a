// ANT: ANT Neuro eego / asalab continuous recordings (.cnt), a RIFF tree of form type "CNT ",
// either with 32-bit chunk sizes ("RIFF") or 64-bit ones ("RF64"; also "RIFF" + 64-bit size +
// "CNTX"). Both widths read identically.
//
// Chunks: "eeph" (text header: rate, samples, channels with label, calibration, scale, unit and
// "REF:" reference), LIST "raw3" holding "chan" (the order the channels are compressed in),
// "data" (the compressed samples) and "ep  " (samples per block, then each block's offset in
// "data", 32- or 64-bit as the chunk sizes), "evt " (trigger table: sample + 8-character code)
// and "info" (start date as an OLE day number plus seconds).
//
// Samples: every block holds every channel's run of samples, each stored plainly or as first
// differences, second differences or differences to the previous channel's differences, in
// 16- or 32-bit variants with a residual width and a wider exception width. A block is one
// engine segment; a read decodes only the blocks it touches (the last one is kept). Values are
// stored number x calibration x scale, delivered in volts for voltage units (type EEG), in the
// header's unit otherwise.
//
// Events: a boundary "Start <UTC date and time>" at slice 0 when "info" holds the start; the
// triggers of "evt " (named by their code, code = its number when it is one); and the markers
// of the binary event file beside the recording (<stem>.evt: dcEventMarker_c, dcEpochEvent_c,
// dcArtefactEvent_c records), placed at (time stamp - start) x rate, named by their
// description (else their name), with their duration. The event file is used only when "info"
// gives the start its time stamps count from.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class ANT : public ecFilebase {
public:
    explicit ANT(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new ANT(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

private:
    struct Chunk {
        std::string id;
        long long start = -1;  // of the data, -1 when absent
        long long size = 0;
    };
    [[noreturn]] void Fail(const std::string& method, const std::string& text);
    void ReadChunks(FILE* fp, long long fileSize);
    std::vector<Chunk> ListChunks(FILE* fp, long long from, long long end, long long fileSize);
    std::string ChunkBytes(const Chunk& c);
    void ParseHeader(const std::string& text);
    void ReadChannelOrder();
    void ReadBlockTable();
    void ReadStart();
    void DescribeLayout();
    const uint8_t* DecodeSegment(long long segment) override;
    void AppendTriggers(std::vector<ecEvent>& out);
    void AppendEventFile(std::vector<ecEvent>& out);

    int m_width = 4;  // bytes of a chunk size and of an epoch table entry
    Chunk m_eeph, m_chan, m_data, m_ep, m_evt, m_info;
    double m_rate = 0;
    long long m_samples = 0;
    std::vector<double> m_gains;
    std::vector<int> m_order;               // stored channel k is channel m_order[k]
    long long m_blockSlices = 0;
    std::vector<long long> m_blocks;        // file offsets of the blocks used, and the data end
    bool m_hasStart = false;
    double m_startDay = 0, m_startSeconds = 0;
    std::vector<int32_t> m_decoded;         // one block, channel by channel, m_blockSlices apart
    std::vector<uint8_t> m_packed;
    long long m_current = -1;
};
