// CEGI: EGI / Magstim MFF recordings. An MFF is a folder; the caller names the folder or any .xml
// or .bin file in it. The folder is claimed when its info.xml has the fileInfo root.
//
// Signals: the infoN.xml that says EEG names signalN.bin, the one that says PNSData the
// physiological stream. Each signal file is a run of blocks, each with its own header (or the
// previous block's, when its version word is 0): data bytes, channel count, per-channel offsets,
// depth (32-bit floats only) and rate. All blocks of a stream must agree on channels and rate,
// and the PNS stream must have the EEG's blocks; its last block may be one sample short (the
// amplifier stops the streams apart): the recording then ends with the PNS, one slice early.
//
// Channels: the EEG channels named from sensorLayout.xml (type 0 and 1 sensors; unnamed ones
// "E<number>"), the type-1 sensor being the reference (type bit kChanReference, and the reference
// channel), then the PNS channels named from pnsSet.xml. Samples are microvolts, delivered in
// volts; EEG channels are multiplied by their GCAL gain from the EEG's infoN.xml when it has one.
// A PNS sensor whose unit is not "uV" is delivered as stored, in its own unit.
//
// Recording information: the start date and time of info.xml, and from subject.xml the fields
// "Patient ID", "First (Given) Name" and "Last (Family) Name", "Gender" (Male / Female) and
// "Date of Birth" (its leading YYYY-MM-DD).
//
// Time: epochs.xml lists the stored epochs (begin/end in microseconds after the start, first and
// last block). Without categories.xml the recording is continuous: the stored samples of every
// epoch follow each other (the pauses between epochs are removed, not padded), and when there is
// more than one epoch a segment boundary marks the first slice of each. With categories.xml every
// epoch is one segment of a category: run type 2 (an averaged file of one epoch: run type 1), the
// pre-stimulus time from the first segment's evtBegin, and a boundary named by the category at the
// start of each epoch; the epochs must be equally long.
//
// Events: every event of every Events_*.xml track (tracks in name order), named by its code, or
// "code:label" when it has a label; the event code is the code's rank among the codes in order
// of first appearance (1 for the first). Begin and duration (nanoseconds) become slices of the
// stored timeline; an event in a pause is placed on the first slice after it, one after the last
// stored sample is left out.
#pragma once

#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class CEGI : public ecFilebase {
public:
    explicit CEGI(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new CEGI(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    // The recording's start as info.xml gives it (ISO 8601 with its time zone), and the MFF version.
    const std::string& GetRecordTime() const { return m_recordTime; }
    int GetMffVersion() const { return m_mffVersion; }

protected:
    const uint8_t* DecodeSegment(long long segment) override;

private:
    struct Header {
        long long samples = 0;           // per channel
        std::vector<long long> offsets;  // of each channel's samples in the block's data
    };
    struct Block {
        long long dataStart = 0;
        size_t header = 0;  // index into Stream::headers
    };
    struct Stream {
        std::vector<Header> headers;
        std::vector<Block> blocks;
        int channels = 0;
        long long rate = 0;
        long long Samples(size_t block) const { return headers[blocks[block].header].samples; }
    };
    struct Epoch {
        long long beginUs = 0, firstSlice = 0, slices = 0;
        std::string category;
    };
    struct Chunk {  // a piece of one block, the engine's segment
        size_t block;
        long long first, count;
    };

    [[noreturn]] void Fail(const std::string& text);
    bool FindFolder();
    std::string Path(const std::string& leaf) const { return m_folder + "/" + leaf; }
    void ReadInfo();
    void ReadSubject();
    void FindSignals(std::string& eegInfo, int& eegFile, int& pnsFile);
    Stream ReadBlocks(FILE* fp, const std::string& file);
    void MatchPnsBlocks();
    void ReadEpochs();
    void ReadCategories();
    void DescribeEeg(const std::string& infoFile);
    void DescribePns();
    void DescribeLayout();
    void ReadEvents();
    long long SliceAt(long long us) const;
    long long BlockSamples(size_t block) const;

    std::string m_folder;
    std::string m_recordTime;
    long long m_startUs = 0;
    int m_mffVersion = 0;
    ecSharedFile m_pnsFile;
    Stream m_eeg, m_pns;
    std::vector<long long> m_blockFirstSlice;
    std::vector<Epoch> m_epochs;
    bool m_segmented = false, m_averaged = false;
    double m_preStim = 0;  // seconds
    std::vector<double> m_gains;  // per channel: stored value to delivered unit
    std::vector<Chunk> m_chunks;
    long long m_chunkStride = 0;  // slices per channel in a decoded chunk
    std::vector<uint8_t> m_decoded;
    long long m_decodedChunk = -1;
    std::vector<ecEvent> m_events;
};
