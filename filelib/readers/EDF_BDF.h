// CEDF_BDF: EDF and EDF+ (16-bit, code 21) and BioSemi BDF/BDF+ (24-bit, code 22).
//
// Time base: the recording's rate is that of its fastest data signal (samples per record /
// record duration). A slower signal is delivered at that rate by holding each stored sample:
// slice p of a record shows the signal's sample floor(p x its samples / fastest samples).
// A file without data signals (annotations only) gets a 1000 Hz time base, so that its
// annotations land on whole milliseconds.
//
// Channels: the data signals in file order, then the first annotation signal ("EDF
// Annotations" / "BDF Annotations") as the last channel, whatever its position in the file
// (switched off, delivered as zeros); further annotation signals are read for events only.
// Values are in physical units, converted to volts when the physical dimension is a voltage
// (nV, uV, µV, mV, V; the unit then reads "V"), else in the stated unit. "Status" and
// trigger-like signals (labels Status, Trigger, STI..., or containing TRIG) carry type 0x8000.
//
// Events: EDF+/BDF+ annotations at round(onset x rate) with their text (UTF-8 as stored) as name,
// code = the text's rank of first appearance (1, 2, ...), end - begin = round(duration x rate).
// Discontinuous files (EDF+D/BDF+D) place every record at its own onset time; the slices of a
// gap read as 0 and the record after a gap starts with a segment-boundary event. A BDF Status
// signal gives one event per change of its low 16 bits to a non-zero value (slice 0 never fires).
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
    int GetBytesPerSample() const { return m_bytes; }
    bool IsDiscontinuous() const { return m_discontinuous; }

private:
    struct Signal {
        std::string label;
        std::string unit;
        double gain = 1;    // physical per digital, in delivered units
        double offset = 0;  // delivered value = digital x gain + offset
        float gainF = 1;    // the same in single precision, for the data path
        float offsetF = 0;
        long samples = 0;   // per record
        long long byteOffset = 0;  // within a record
        bool annotation = false;
    };

    void ParseFixedHeader(const std::vector<uint8_t>& fixed, long long& headerBytes, long long& records,
                          double& duration, long& signals);
    void ParseSignals(const std::vector<uint8_t>& header, long signals);
    void SetChannels();
    void PlaceRecords();
    std::vector<uint8_t> SignalBytes(long long record, const Signal& s);
    void AnnotationEvents(ecEventList& events, int& appended);
    void StatusEvents(ecEventList& events, int& appended);
    void DecodeRun(const uint8_t* samples, long i0, long i1, float gain, float offset, float* out) const;
    long SliceOf(double seconds) const;
    long long RecordAt(long long slice) const;
    long long RecordStart(long long record) const;
    [[noreturn]] void Fail(const std::string& text);

    int m_bytes = 0;
    std::vector<Signal> m_signals;    // in file order
    std::vector<int> m_channelSignal;  // listed channel -> signal index
    int m_annotationChannel = -1;
    long long m_headerBytes = 0;
    long long m_recordBytes = 0;
    long long m_records = 0;
    long m_fastest = 0;  // samples per record of the fastest data signal
    double m_duration = 0;
    double m_rate = 0;
    bool m_discontinuous = false;
    std::vector<long long> m_recordStart;  // discontinuous files: first slice of every record
    long long m_fileSize = 0;
    std::vector<uint8_t> m_raw;
    std::vector<float> m_samples;
};
