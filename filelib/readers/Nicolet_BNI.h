// ecNicolet_BNI: Nicolet text-header recordings of 16-bit samples, in two forms.
//  - BNI-1: a ".bni" header ("FileFormat = BNI-1..." then "key = value" lines: Rate "256 Hz",
//    NchanFile, UvPerBit (one value, or one per channel), MontageRaw (the channel names, comma
//    separated), DataOffset, Filename (the data file, looked up beside the header by its name
//    only; the header's stem + ".eeg" when absent)) and an [Events] part of tab-separated lines
//    "seconds<TAB>code<TAB>channel<TAB>text".
//  - The NicVue export (TUH corpus): a ".head" file of "key=value" lines (sample_freq,
//    num_channels, num_samples, conversion_factor, elec_names=[A,B,...], sample_bytes) beside
//    a ".data" file.
// Either the header or the data file may be named (.eeg pairs with .bni, .data with .head, in
// the letter case of the named extension). A file is claimed when its header carries the
// form's signature: the FileFormat line, or the four keys of the export.
//
// Samples: little-endian int16, multiplexed, from DataOffset. Values are count x microvolts
// per bit, delivered in volts. Channels named EOG*, EMG*, ECG*, EKG* or PHO* (photic) are not
// typed EEG. Length: the data file's whole slices; an export's num_samples may ask for fewer,
// never for more. Events (BNI only): markers at the nearest slice, named by the text, code =
// the code field, kind 2; display-montage lines ("Montage: ...") and lines that cannot be
// read are not events.
#pragma once

#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class ecIniText;

class ecNicolet_BNI : public ecFilebase {
public:
    explicit ecNicolet_BNI(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new ecNicolet_BNI(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    std::string GetHeaderFileName() const { return m_headerFile; }
    std::string GetDataFileName() const { return m_dataFile; }

private:
    [[noreturn]] void Fail(const std::string& text);
    double Number(const ecIniText& ini, const char* key, double low, double high);
    void ReadBni(const ecIniText& ini);
    void ReadExport(const ecIniText& ini);
    void Describe(long long slices, double rate);
    void ReadEvents(const std::string& text, double rate);

    bool m_bni = false;
    std::string m_headerFile;
    std::string m_dataFile;
    std::vector<std::string> m_names;
    std::vector<double> m_microvolts;  // per bit, per channel
    long long m_dataStart = 0;
    long long m_declared = -1;         // the export's num_samples
    std::vector<ecEvent> m_events;
};
