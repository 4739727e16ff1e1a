// CTF: CTF (VSM MedTech / MISL) MEG datasets. A dataset is a folder "<name>.ds"; the caller
// may name the folder, its "<name>.meg4" or "<name>.res4", or any other file inside it. A file
// named "<stem>.res4", "<stem>.meg4" or "<stem>.<n>_meg4" outside a ".ds" folder is taken with
// the dataset files beside it of the same stem.
//
// - Claimed at the 8-byte magic of the ".meg4" ("MEG41CP" / "MEG42CP"), before anything else
//   is read.
// - ".res4" (big-endian): samples per trial, channel count, rate, pre-trigger samples, the
//   channel names and per channel its sensor type and gains. Values are stored / (proper gain x
//   q gain), in tesla for MEG and in volts for EEG and ADC channels (the I/O gain is not applied,
//   as both peers read the data).
// - Recording information from the ".res4": the run's date and time, the subject id, the run
//   title (else the run description) as description, and the run's low-pass / high-pass / notch
//   filter records as every channel's filter text.
// - Channel types: MEG sensors 0x200 ("T"), MEG reference sensors 0x200 | 0x1000 ("T"), EEG
//   0x400 ("V"; the EEG reference 0x400 | 0x1000), stimulus channels (UPPT*, UDIO*, STIM) 0x8000
//   with their integer codes, ADC channels 0 in "V", all others 0 without a unit (head
//   localisation, system clock, ...). Channels listed in "BadChannels" (full name, or the name
//   without its "-nnnn" system suffix) carry the switched-off flag 0x800.
// - Data: ".meg4" then ".1_meg4", ".2_meg4", ... each an 8-byte magic followed by whole trials of
//   big-endian int32 samples, channel by channel inside a trial.
// - Time base: one trial, or trials that follow each other without a gap on the system clock
//   channel (sensor type 17, "SCLK01-177"), make one continuous epoch (run type 4); otherwise
//   every trial is an epoch (run type 2) with the pre-trigger time as pre-stimulus time.
// - Events: a segment boundary at the start of every epoch that does not continue the one
//   before on the system clock (every epoch after the first when there is no clock); a kind-1
//   event per line of "bad.segments" ("<trial from 1> <start s> <end s>", times from the trial's
//   trigger), named "bad", lasting the bad stretch; one event per marker of "MarkerFile.mrk",
//   named by its class and coded by the class's number in the file (from 1), placed at
//   trial x samples per trial + pre-trigger samples + time x rate; and every change of a
//   stimulus channel to a non-zero code, named and coded by the code. Events come sorted in time.
#pragma once

#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class CTF : public ecFilebase {
public:
    explicit CTF(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new CTF(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    // "<folder>/<name>" of the dataset's files ("" before Initialize).
    const std::string& GetDatasetStem() const { return m_stem; }
    int GetDataFileCount() const { return static_cast<int>(m_files.size()); }

private:
    struct DataFile {
        std::string path;
        long long firstTrial;
        long long trials;
    };
    struct Res4 {
        long long trialSamples = 0;
        int channels = 0;
        double rate = 0;
        long long preTrigger = 0;
        std::vector<std::string> names;
        std::vector<int> sensorTypes;
        std::vector<double> gains;
    };
    [[noreturn]] void Fail(const std::string& text);
    Res4 ReadRes4();
    void DescribeChannels(const Res4& res4);
    void MarkBadChannels();
    void SetRunDate(std::string time, std::string date);
    // The clock of the trials read so far: a trial continues the one before when its first
    // clock value is one clock step after that trial's last.
    struct ClockState {
        bool known = false;
        long long last = 0;
        long long step = 0;
    };
    bool SideLines(const std::string& file, std::vector<std::string>& lines);
    void FindDataFiles(int clockChannel);
    bool ReadClock(FILE* fp, long long trials, int clockChannel, ClockState& clock);
    void ChooseTimeBase(const Res4& res4);
    bool TrialTime(long long trial, double seconds, long& slice, bool end = false);
    void ReadBadSegments();
    void ReadMarkers();
    void UseFile(size_t file);

    std::string m_stem;
    long long m_trialSamples = 0;
    long long m_trialBytes = 0;
    long long m_preTrigger = 0;
    double m_rate = 0;
    std::vector<DataFile> m_files;
    size_t m_openFile = 0;
    std::vector<bool> m_continues;    // per trial: follows the trial before without a gap
    ecEventList m_fileEvents;         // boundaries, bad segments and markers
};
