// ecERPSS: ERPSS raw recordings (UCSD Event-Related Potential Software System). A 512-byte raw
// header, then records of a 512-byte record header and 16-bit samples, stored plainly
// (sample-major) or compressed with a nibble-oriented delta code.
//
// Samples are delivered as stored, in A/D units (unit empty, scale 1): the format carries no
// physical scale, so a calibration from the recording's own pulses turns them into microvolts.
// The rate is 1,000,000 / the sample period in microseconds of the first record header.
// Events: one per used event slot of every record, at record start + the slot's sample offset,
// named "<condition>-<event code>"; event code 65535 marks a recording pause ("PAUSE") and
// 65534 a deleted span ("DELETE").
// Files whose magic word reads 0xAA55 were written with the other byte order: their headers
// are read, but their samples are refused.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class ecERPSS : public ecFilebase {
public:
    explicit ecERPSS(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override;
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    int GetRecordCount() const { return static_cast<int>(m_records.size()); }
    // How many times a record's bytes were read from the file (the current-record cache).
    int GetRecordReads() const { return m_recordReads; }

protected:
    bool IsValidRawHdr() const;
    bool IsValidRecHdr(const std::vector<uint8_t>& recordHeader) const;
    void SetRecordParams();
    void SetRecordOffsets();
    void ReadRecord(int n);
    short GetNextNibble();
    void Uncompress(int compressedWords);

    std::vector<int16_t> m_psBuff;       // one decoded record, sample-major
    std::vector<uint16_t> m_psBuffComp;  // the compressed words of one record
    int m_iNibbleWord = 0;               // nibble cursor: word index ...
    int16_t m_sNibblePos = 0;            // ... and nibble 0..3 within it, most significant first

private:
    struct Record {
        long long offset;       // of the record header
        unsigned compressedBytes;
        int samples;
        long long firstSlice;
    };
    uint16_t Word(const std::vector<uint8_t>& bytes, size_t at) const;
    void DescribeLayout();
    const uint8_t* DecodeSegment(long long segment) override;
    [[noreturn]] void Fail(const char* method, const std::string& text);

    std::vector<uint8_t> m_rawHeader;
    bool m_bCompressed = false;
    bool m_bSwabbed = false;
    int m_iChannels = 0;
    int m_iPoints = 0;
    long long m_fileSize = 0;
    std::vector<Record> m_records;
    int m_iCurrentRecord = -1;
    int m_recordReads = 0;
};
