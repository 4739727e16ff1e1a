// CEDF_BDF: EDF and EDF+ (16-bit, code 21) and BioSemi BDF/BDF+ (24-bit, code 22).
//
// Time base: the recording's rate is that of its fastest data signal (samples per record /
// record duration). A slower signal is delivered at that rate by holding each stored sample:
// slice p of a record shows the signal's sample floor(p x its samples / fastest samples).
// A file without data signals (annotations only) gets a 1000 Hz time base, so that its
// annotations land on whole milliseconds.
//
// Channels: the data signals in file order. An EDF lists its first annotation signal ("EDF
// Annotations") as the last channel, whatever its position in the file (switched off, delivered
// as zeros; the facade hides it); a BDF does not list its annotation signal. Further annotation
// signals are read for events only. Only complete records are data: a file cut short delivers
// the records it holds in full.
//
// Values: (digital - dmin) x (pmax - pmin) / (dmax - dmin) + pmin in double, converted to volts
// when the physical dimension is a voltage (nV, uV, µV, mV, V; the unit then reads "V"), to tesla
// when it is a magnetic field (fT, pT, nT, uT, mT, T; the unit reads "T"), else in the stated
// unit, rounded once to float. Trigger channels (type 0x8000: labels containing TRIG
// or STATUS or starting with STI, or a transducer type naming trigger, stim or status, in any
// letter case) deliver codes without a unit: a BDF Status its stored word's low 16 bits (the
// BioSemi trigger lines), any other its physical value in its own unit.
//
// Recording info: EDF+ patient ("code sex birthdate name") and recording ("Startdate
// dd-MMM-yyyy admin technician equipment description...") subfields, X meaning unknown; a plain
// EDF's patient field is its subject code and its recording field the description. The date
// comes from the EDF+ Startdate (four-digit year), else the startdate field (85-99: 19xx).
// Per channel: transducer and prefiltering texts, and every channel's rate when they differ.
//
// Events: EDF+/BDF+ annotations at round(onset x rate) with their text (UTF-8 as stored) as name,
// code = the text's rank of first appearance (1, 2, ...), end - begin = round(duration x rate).
// Onsets count from the first record, which may start after the header's start time (the onset
// of record 0's time-keeping annotation). Discontinuous files (EDF+D/BDF+D) place every record
// at its own onset time; the slices of a gap read as 0 and the record after a gap starts with a
// segment-boundary event. Every trigger channel gives one event per change of its code to a
// non-zero value (slice 0 never fires), exactly as FindAllTriggersDig finds them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class CEDF_BDF : public ecFilebase {
public:
    explicit CEDF_BDF(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new CEDF_BDF(name); }
    // bytesPerSample: 2 (EDF), 3 (BDF), or 0 to let the header decide.
    void Initialize(int bytesPerSample) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    // Channel index of the listed annotation signal (always the last channel), or -1.
    int GetAnnotationSignal() const { return m_annotationChannel; }
    // EDF+ lists its annotation signal as the last channel, which the facade does not count.
    int GetFacadeHiddenChannels() const override { return m_annotationChannel != -1 ? 1 : 0; }
    int GetBytesPerSample() const { return m_bytes; }
    bool IsDiscontinuous() const { return m_discontinuous; }

private:
    struct Signal {
        std::string label;
        std::string unit;
        std::string transducer;
        std::string prefilter;
        double gain = 1;   // delivered value = (digital + shift) x gain
        double shift = 0;
        long samples = 0;  // per record
        long long byteOffset = 0;  // within a record
        bool annotation = false;
        bool trigger = false;
        bool triggerWord = false;  // BioSemi Status: the low 16 bits of the stored value
    };

    void ParseFixedHeader(const std::vector<uint8_t>& fixed, long long& headerBytes, long long& records,
                          double& duration, long& signals);
    void ParseSignals(const std::vector<uint8_t>& header, long signals);
    void SetScaling(Signal& s, double pmin, double pmax, long long dmin, long long dmax) const;
    void SetChannels();
    void DescribeRecording(const std::vector<uint8_t>& fixed);
    void DescribeLayout(long long slices);
    void ListChannels();
    void PlaceRecords();
    std::vector<uint8_t> SignalBytes(long long record, const Signal& s);
    double TimekeepingOnset(long long record);
    void AnnotationEvents(ecEventList& events, int& appended);
    long SliceOf(double seconds) const;
    [[noreturn]] void Fail(const std::string& text);

    int m_bytes = 0;
    std::vector<Signal> m_signals;    // in file order
    std::vector<int> m_channelSignal;  // listed channel -> signal index
    int m_annotationChannel = -1;
    int m_timekeeping = -1;     // signal index of the first annotation signal
    double m_startOffset = 0;   // seconds from the header's start time to the first record
    long long m_headerBytes = 0;
    long long m_recordBytes = 0;
    long long m_records = 0;
    long m_fastest = 0;  // samples per record of the fastest data signal
    double m_duration = 0;
    double m_rate = 0;
    bool m_discontinuous = false;
    std::vector<long long> m_recordStart;  // discontinuous files: first slice of every record
    long long m_fileSize = 0;
};
