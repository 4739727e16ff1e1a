// PerSyst: Persyst recordings, a layout file (.lay, Windows INI text) and the data file it names
// (.dat). Never probed: the caller sets the file source (the filelib program does so for .lay
// files that detection does not recognise).
//
// [FileInfo] gives the data file (File=, looked up beside the .lay by its name only; the .lay's
// stem + ".dat" when absent), FileType (only Interleaved: slice after slice), SamplingRate,
// HeaderLength (bytes before the samples), Calibration (microvolts per count), WaveformCount
// (channels) and DataType (0: 16-bit, 7: 32-bit little-endian integers). The data file's
// length decides the number of slices; a torn last slice is not read.
//
// Channels are named by [ChannelMap] ("label=column", columns counting from 1; every column
// must be named once). INI keys do not keep their case, so names are upper-cased, and the
// reference suffix "-REF" is dropped (Fp1-Ref -> FP1). Every channel is EEG in volts
// (count x Calibration x 1e-6): the layout carries no channel types.
//
// Events: every [Comments] line "onset s,duration s,state,type,text" (the text may itself hold
// commas) becomes a marker named by the text at the nearest slice, its duration rounded to
// slices, code = the type number, kind 2. Lines that cannot be read are skipped.
#pragma once

#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class ecIniText;

class PerSyst : public ecFilebase {
public:
    explicit PerSyst(const char* layoutFile = "");

    ecFilebase* GetpNewFilebase(const char* name) override { return new PerSyst(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    std::string GetDataFileName() const { return m_dataFile; }

private:
    [[noreturn]] void Fail(const std::string& text);
    double Number(const ecIniText& ini, const char* key, double low, double high, bool whole = false);
    void ReadPatient(const ecIniText& ini);
    void ReadChannelMap(const ecIniText& ini, int channels);
    void ReadComments(const std::string& text, double rate);

    std::string m_dataFile;
    std::vector<ecEvent> m_comments;
};
