// FourD: 4D Neuroimaging / BTi MEG recordings (Magnes systems), big-endian throughout.
//
// Files. A recording is a processed-data file ("pdf": c,rfDC, e,rfhp1.0Hz, ...) and the
// system configuration it was acquired with. The caller names the pdf; the configuration is
// looked for in the pdf's folder, first under the pdf's own name with its last "pdf" turned
// into "config" (exported sets such as test_pdf_linux / test_config_linux), then under the
// standard name `config`. The head-shape file (hs_file) holds digitised head points only: no
// channel, sample or event depends on it, so it is not opened.
//
// The pdf holds the samples from byte 0 (slice by slice, every channel of the pdf in each
// slice; 16- or 32-bit integers, 32- or 64-bit floats as the header's data format says), then
// the header, whose position the last 8 bytes give. The file is claimed when that position
// leads to a header with a known data format, at least one epoch and one channel, a positive
// sample period, and a first epoch whose samples fit before the header.
//
// Channels: those of the pdf, named, typed and scaled by the configuration's record of the
// same channel number: MEG sensors (type 0x200) and reference sensors (0x1000; magnetometers
// and gradiometers, both stored in tesla) in tesla, EEG (0x400) in volts, the trigger and
// response channels (0x8000) as their stored integer words, every other kind (external,
// utility, derived, shorted: type 0) in the configuration's unit. Values: integer formats
// raw x scale x units-per-bit / gain, float formats raw x scale x gain (scale from the pdf,
// gain and units per bit from the configuration). The MEG sensors named A<n> come first in
// the order of n (the order the other readers of the format present), then every other
// channel in storage order.
//
// Time: the rate is 1 / the stored sample period, not rounded (1017.2499... Hz stays so). One
// epoch, or epochs of different lengths, read as one continuous run (run type 4; a boundary
// event marks the start of each epoch after the first); several epochs of one length are
// epochs (run type 2, no pre-stimulus time: the pdf does not store one per epoch).
// Recording information: the date and time the pdf's first processing entry (its creation) is
// stamped with, in UTC, and the cut-offs of its hardware-filter steps (high pass, low pass, notch,
// band pass) as every channel's filter text. The pdf and configuration hold no subject fields.
// Events: every change of a trigger channel's word to another non-zero word (slice 0 never
// fires), named and coded by the word.
#pragma once

#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class ByteCursor;

class FourD : public ecFilebase {
public:
    explicit FourD(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new FourD(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    const std::string& GetConfigFileName() const { return m_configName; }

private:
    struct PdfChannel {
        std::string label;
        int number;   // the configuration's channel number
        int column;   // position within a stored slice
        double scale;
    };
    struct ConfigChannel {
        std::string name;
        int number;
        int type;  // 1 MEG, 2 EEG, 3 reference, 4 external, 5 trigger, 6 utility, 7 derived, 8 shorted
        double gain;
        double unitsPerBit;
        std::string unit;
    };

    [[noreturn]] void Fail(const std::string& text);
    void Require(size_t have, long long end, const std::string& file);
    long long Claim(FILE* fp, long long fileSize);
    void ReadPdfHeader(FILE* fp, long long header, long long fileSize);
    void ReadProcesses(const ByteCursor& h, long long at, long long processes);
    std::string FindConfig();
    std::vector<ConfigChannel> ReadConfig();
    void DescribeChannels(const std::vector<ConfigChannel>& config);

    int m_format = 0;  // 1 short, 2 long, 3 float, 4 double
    long long m_totalSlices = 0;
    std::vector<long long> m_epochLengths;
    std::vector<PdfChannel> m_channels;
    std::string m_configName;
};
