// ecFilebase: the abstract reader. Holds what every format shares (file names and handles,
// identifiers, manufacturer code, run type, time base, reference, domain, calibration record)
// and the per-channel tables, with validated access.
#pragma once

#include "companion/Export.h"

#include <cstdio>
#include <string>
#include <vector>

#include "companion/Events.h"
#include "companion/Matrix.h"
#include "companion/ProgressDlg.h"
#include "filelib/Calibration.h"
#include "filelib/Manufacturers.h"
#include "filelib/SampleEngine.h"
#include "filelib/ecBase.h"

// A stdio handle shared by an object and its copies. Copies of a reader share their source's
// open handles; the handle is closed once, when the last object holding it lets go. This keeps
// the legacy FILE* accessors working while no copy can close a handle its source still uses.
class FILELIB_API ecSharedFile {
public:
    ecSharedFile() = default;
    ecSharedFile(const ecSharedFile& other);
    ecSharedFile& operator=(const ecSharedFile& other);
    ~ecSharedFile() { Release(true); }

    FILE* get() const { return m_block ? m_block->fp : nullptr; }
    // Takes ownership of fp. The previously held handle is let go without being closed (the
    // legacy SetInputFilePointer contract: whoever swaps handles keeps the old one).
    void Adopt(FILE* fp);
    // Lets go of the handle, closing it when no other object holds it.
    void Close() { Release(true); }

private:
    struct Block {
        FILE* fp;
        long refs;
    };
    void Release(bool closeIfLast);
    Block* m_block = nullptr;
};

// What a recording states about itself beside its channels and samples, where its format stores
// it. Empty texts and tables mean "not stored": nothing here is guessed. Readers fill it while
// they read their headers; the program shows it and the writers carry it into their outputs.
struct ecRecordingInfo {
    std::string date;              // start date, "YYYY-MM-DD"
    std::string time;              // start time of day, "hh:mm:ss", fractions ("hh:mm:ss.ffffff") where stored
    std::string subjectId;         // patient or subject code
    std::string subjectName;
    std::string subjectSex;        // "M" or "F"
    std::string subjectBirthDate;  // "YYYY-MM-DD"
    std::string description;       // free text about the recording (EDF+ recording field, FIFF description ...)
    // Per channel, indexed like the channel tables; empty when the format stores none.
    std::vector<std::string> channelFilters;      // as stored, e.g. "HP:0.1Hz LP:70Hz N:50Hz"
    std::vector<std::string> channelTransducers;  // sensor or electrode type text
    std::vector<double> channelRates;             // stored rate of each channel, when not all equal the recording's
    std::vector<int> badChannels;                 // channel indices the file marks bad
};

class FILELIB_API ecFilebase : public ecBase {
public:
    ecFilebase() = default;
    ecFilebase(const ecFilebase& other);
    ecFilebase& operator=(const ecFilebase& other);
    ~ecFilebase() override;

    virtual ecFilebase* GetpNewFilebase(const char* name);
    virtual void SetInputFileName(std::string name) { m_sInputFileName = std::move(name); }
    virtual std::string GetInputFileName() { return m_sInputFileName; }
    virtual void SetOutputFileName(std::string name) { m_sOutputFileName = std::move(name); }
    virtual std::string GetOutputFileName() { return m_sOutputFileName; }
    virtual FILE* GetInputFilePointer() { return m_inputFile.get(); }
    virtual void SetInputFilePointer(FILE* fp) { m_inputFile.Adopt(fp); }
    virtual std::string GetSID() { return m_sSID; }
    virtual std::string GetCID() { return m_sCID; }
    virtual void SetSID(std::string sid) { m_sSID = std::move(sid); }
    virtual void SetCID(std::string cid) { m_sCID = std::move(cid); }
    virtual int GetFileMFR() { return static_cast<int>(m_uiFileMFR); }
    virtual void SetFileMFR(unsigned int code) { m_uiFileMFR = code; }
    virtual int GetFileMFR0() { return m_iFileMFR0; }
    virtual void SetRunType(unsigned int runType) { m_uiRunType = runType; }
    virtual unsigned int GetRunType() { return m_uiRunType; }
    virtual void GetChanName(int chan, std::string& out);
    virtual void SetChanName(int chan, std::string& name);
    virtual int GetChanType(int chan);
    virtual void SetChanType(int chan, int type);
    virtual float GetChanScale(int chan);
    virtual void SetChanScale(int chan, float scale);
    virtual float GetChanOffset(int chan);
    virtual void SetChanOffset(int chan, float offset);
    virtual void GetChanUnit(int chan, std::string& out);
    virtual void SetChanUnit(int chan, std::string& unit);
    virtual bool UseChanUnit(int chan);
    virtual void SetUseChanUnit(int chan, bool use);
    virtual bool UseChanUnitPrefix(int chan);
    virtual void SetUseChanUnitPrefix(int chan, bool use);
    virtual float GetSampleRate();
    virtual void SetSampleRate(float value, unsigned int isPeriod);
    virtual int GetNumChans() { return m_iNumChans; }
    virtual void SetNumChans(int n);
    virtual void SetPreStim(float preStim) { m_fPreStim = preStim; }
    virtual float GetPreStim() { return m_fPreStim; }
    virtual void SetNumSlices(int n) { m_iNumSlices = n > 0 ? n : 0; }
    virtual int GetNumSlices() { return m_iNumSlices; }
    virtual void SetEpochSlices(int n) { m_iEpochSlices = n > 0 ? n : 0; }
    virtual int GetEpochSlices() { return m_iEpochSlices; }
    // A file has at least one epoch, so non-positive counts give 1.
    virtual void SetNumEpochs(int n) { m_iNumEpochs = n > 0 ? n : 1; }
    virtual int GetNumEpochs() { return m_iNumEpochs; }
    virtual int GetValidEpochCnt() { return m_iValidEpochCnt; }
    virtual void SetValidEpochCnt(int n) { m_iValidEpochCnt = n > 0 ? n : 0; }
    virtual void SetReferenceType(unsigned int type) { m_uiReferenceType = type; }
    virtual unsigned int GetReferenceType() { return m_uiReferenceType; }
    virtual void SetReferenceChannel(int chan) { m_iReferenceChannel = chan; }
    virtual int GetReferenceChannel() { return m_iReferenceChannel; }
    virtual void SetDomain(int domain) { m_iDomain = domain; }
    virtual int GetDomain() { return m_iDomain; }
    virtual void SetOffsetToData(unsigned int offset) { m_uiOffsetToData = offset; }
    virtual unsigned int GetOffsetToData() { return m_uiOffsetToData; }
    virtual void SetEpochReviewMode(bool on) { m_bEpochReviewMode = on; }
    virtual bool IsEpochReviewMode() { return m_bEpochReviewMode; }
    virtual void Initialize(int arg) = 0;
    // Fills data (rows = channels, columns = slices) and returns the number of slices read;
    // below 1 when nothing could be read.
    virtual int ReadData(ecLabeledMatrix<float>& data, int first, int count) = 0;
    // Appends the recording's events; returns the number appended.
    virtual int InitialEventList(ecEventList* events, ecProgressDlg* progress) = 0;

    // Trigger search over the reader's own data, read through ReadData in blocks of 5000 slices
    // of all channels (memory for one block only, whatever the recording's length).
    //
    // The first slice at or after `start` where channel `chan` crosses `threshold`, or -1.
    // fromZero false (analogue): the channel must first be seen below the threshold, then the
    // first slice at or above it fires. fromZero true (digital): a slice at or above the
    // threshold fires when the slice before it was exactly 0 (so slice 0 never fires).
    int FindNextTrigger(int chan, int start, float threshold, bool fromZero);
    // Every crossing on every trigger channel (type bit 0x8000), by the rules above applied to
    // each channel independently, from slice 0. Each crossing appends one event named by the
    // trigger channel's number among the trigger channels ("1" for the first, in channel
    // order), with code `eventCode`, kind 2 and begin = end = the crossing slice. After a
    // crossing the channel's next examined slice is crossing + deadTime + 1. With a progress
    // object: range 0 .. slices / 5000 + 1, step 1, one StepIt per block, then a cancel stops
    // the search. Returns the number of events appended.
    int FindAllTriggers(ecEventList* events, int eventCode, float threshold, int deadTime, bool fromZero,
                        ecProgressDlg* progress);
    // Digital trigger words: every trigger channel carries an integer word (values are rounded).
    // The word that counts is (word & mask; -1 keeps every bit); words below minWord count as 0. An event is
    // appended at every slice where the counted word changes to a non-zero value (onsetsOnly
    // true: only where it rises from 0), named by the word in decimal, with code = the word,
    // code mask = mask and kind `eventKind`. Slice 0 never fires. Dead time, progress and the
    // return value as for FindAllTriggers.
    int FindAllTriggersDig(ecEventList* events, int eventKind, float minWord, int deadTime, bool onsetsOnly,
                           int mask, ecProgressDlg* progress);

    // Capabilities the facade asks about. The trailing channels the facade does not count (an
    // EDF+ annotation signal, listed last by its reader), and whether the file stores variances.
    virtual int GetFacadeHiddenChannels() const { return 0; }
    virtual bool DoesVarianceExist() const { return false; }
    const ecRecordingInfo& GetRecordingInfo() const { return m_recordingInfo; }
    // A channel's stored grid in double precision, for readers that read integer samples through
    // the sample engine in exact arithmetic: before calibration every delivered value is
    // n x gain + offset for a whole n. False for other readers, float samples, single-precision
    // arithmetic and averaged values (the writers then fall back on the float scale and offset).
    bool GetChanGrid(int chan, double& gain, double& offset) const;

    // Derives the calibration factors (see Calibration.h).
    void Calibrate();
    ecCalibration& GetCalibration() { return m_calibration; }
    // Matches the derived calibration to the channels by name, once; ReadCalibrated then applies it.
    void ResolveCalibration();
    // ReadData with the resolved calibration applied (value x factor + offset per channel). Readers
    // on the sample engine apply it while converting; for the others it is one pass over the rows.
    // ReadData itself, the trigger search and Calibrate always see uncalibrated values.
    int ReadCalibrated(ecLabeledMatrix<float>& data, int first, int count);

protected:
    ecRecordingInfo m_recordingInfo;
    // Lets go of the input handle (closing it unless a copy still holds it).
    void CloseInputFile() { m_inputFile.Close(); }
    // Opens `path` for binary reading as the input handle in place of the current one;
    // null (current handle kept) when it cannot be opened.
    FILE* OpenInputFile(const std::string& path);
    // The stored sample period (0 when not set).
    float GetSamplePeriod() const { return m_fSamplePeriod; }
    // Row labels of a delivered block: channel name and unit of every channel.
    void LabelRows(ecLabeledMatrix<float>& data);
    // Sizes and labels `data` for the part of [first, first + count) the recording holds and
    // returns its length; negative arguments raise "[<reader>::ReadData] Slices out of range.".
    long long PrepareBlock(ecLabeledMatrix<float>& data, int first, int count, const char* reader);
    // Reader kit. Closes the input file and raises "[<reader>::<method>] <text>" (kind 1): the
    // one way a reader gives up, so no failure leaves a handle open.
    [[noreturn]] void FailClosing(const std::string& where, const std::string& text);
    // The input file (GetInputFileName()) opened, with its length; failing under `where` when it
    // cannot be opened, or, given a `signature`, when it does not begin with those bytes
    // ("Not a <format> file").
    FILE* OpenForReading(const std::string& where, long long& length, const std::string& signature = {},
                         const std::string& format = {});
    // The time base of a continuous recording (run type 4, one epoch of every slice).
    void SetContinuousTimeBase(double rate, long long slices);
    // The time base of `epochs` epochs of `epochSlices` slices each (run type 1 for one averaged
    // epoch, else 2), with the time before each epoch's stimulus in seconds.
    void SetEpochTimeBase(double rate, long long epochSlices, long long epochs, double preStim, bool averaged);
    // A channel's name, type, unit, scale and offset at once.
    void DescribeChannel(int chan, const std::string& name, int type, const std::string& unit, float scale = 1,
                         float offset = 0);
    // The data path of readers that describe their layout to the engine.
    ecSampleEngine& Engine() { return m_engine; }
    // Converts slices [first, first + n) into columns [column, column + n) of every row of
    // `data`; returns the slices converted (fewer when the file ends before them).
    long long ReadRows(ecLabeledMatrix<float>& data, long long first, long long n, long column = 0);
    // The same for a reader that keeps one engine per channel (its own layout each): channel
    // `chan`'s slices [first, first + n) into `row`.
    long long ReadChannelRow(ecSampleEngine& engine, int chan, float* row, long long first, long long n);
    // The decoded bytes of one segment, for layouts whose segments the reader decodes; null when
    // the segment cannot be decoded.
    virtual const uint8_t* DecodeSegment(long long) { return nullptr; }

    int m_iFileMFR0 = 0;
    // Channel tables, one entry per channel after SetNumChans. A reader that fills them itself
    // may leave them shorter than the channel count; the getters report that case.
    std::vector<std::string> m_vsChanNames;
    std::vector<int> m_viChanTypes;
    std::vector<float> m_vfChanScales;
    std::vector<float> m_vfChanOffsets;
    std::vector<std::string> m_vsChanUnits;
    std::vector<unsigned char> m_vbUseChanUnit;
    std::vector<unsigned char> m_vbUseChanUnitPrefix;

private:
    // Reads blocks of 5000 slices from `start` until the data end, onBlock returns false or the
    // progress object cancels. onBlock(block, firstSlice, slices).
    template <typename OnBlock>
    void ScanBlocks(int start, ecProgressDlg* progress, OnBlock onBlock);
    template <typename Fires>
    int ScanTriggerChannels(ecEventList* events, int deadTime, ecProgressDlg* progress, Fires fires);
    std::vector<int> TriggerChannels();
    void CopyFields(const ecFilebase& other);
    bool ChannelIndexValid(int chan, size_t tableSize) const;
    template <typename T>
    const T& CheckedEntry(const std::vector<T>& table, int chan, const char* prefix, const char* missingTail) const;

    ecSharedFile m_inputFile;
    ecSharedFile m_outputFile;
    std::string m_sInputFileName;
    std::string m_sOutputFileName;
    std::string m_sSID;
    std::string m_sCID;
    int m_iNumChans = 0;
    int m_iNumSlices = 0;
    float m_fSamplePeriod = 0;
    float m_fPreStim = 0;
    int m_iEpochSlices = 0;
    int m_iNumEpochs = 0;
    int m_iValidEpochCnt = 0;
    unsigned int m_uiRunType = 0;
    unsigned int m_uiFileMFR = 0;
    unsigned int m_uiReferenceType = 0;
    int m_iReferenceChannel = -1;
    int m_iDomain = 1;
    unsigned int m_uiOffsetToData = 0;
    bool m_bEpochReviewMode = false;
    ecCalibration m_calibration;
    // The calibration of channels [firstChannel, firstChannel + channels) for the engine while a
    // calibrated read is under way (and a note that it was applied); none otherwise.
    ecReadOptions CalibrationOptions(size_t firstChannel, size_t channels);
    ecSampleEngine m_engine;
    std::vector<float> m_calFactors;  // resolved per channel; empty: no calibration
    std::vector<float> m_calOffsets;
    bool m_calibrating = false;       // inside ReadCalibrated
    bool m_calibrated = false;        // the engine applied the calibration to the block
};

// Channel type bits.
enum : int {
    kChanMEG = 0x200,
    kChanEEG = 0x400,
    kChanOff = 0x800,
    kChanReference = 0x1000,
    kChanTrigger = 0x8000,
};

// Run types.
enum : unsigned int { kRunSingleEpoch = 1, kRunMultiEpoch = 2, kRunContinuous = 4 };
