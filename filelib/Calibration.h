// The amplitude-calibration record every reader carries, serialised as <ORVA_Calibration>.
//
// How ecFilebase::Calibrate() derives the per-channel factors:
//  - Nothing happens while SkipCalib is true (the default).
//  - CalMode 0 (kCalFromFile): the factors are read from the ".cal" file named by CalFile.
//  - CalMode 1 (kCalPeak) and 2 (kCalMean): the reader's own samples are measured through its
//    ReadData. The baseline is the mean over [BaseStart, BaseStop) and the signal the maximum
//    (peak mode) or the mean (mean mode) over [SigStart, SigStop), both in seconds. When
//    CalEvtCodes is not empty the intervals are relative to every event of the reader's event
//    list whose name or code equals one of the codes, and the measures are averaged over those
//    events; otherwise they are relative to the start of the recording.
//    factor = CalAmp / (signal - baseline), offset = -baseline * factor, so that the baseline
//    becomes 0 and the pulse CalAmp. Every channel must show the pulse. When CalFile is named,
//    the derived factors are also written to it.
//  - Derived factors are applied by the facade to the rows it delivers: value * factor + offset
//    for the row whose label matches.
//
// ".cal" files are text, one channel per line: label TAB factor TAB offset; lines starting with
// '#' and blank lines are ignored.
#pragma once

#include "companion/Export.h"

#include <ostream>
#include <string>
#include <vector>

class ecXml;

enum ecCalMode { kCalFromFile = 0, kCalPeak = 1, kCalMean = 2 };

class FILELIB_API ecCalibration {
public:
    ecCalibration() = default;

    bool WriteXml(std::ostream& out) const;
    // Accepts the <ORVA_Calibration> element itself or an element that contains it; missing
    // tags keep their current values. False when there is no such element.
    bool ReadXml(ecXml& xml);
    // For each label asked for, the factor and offset of the matching channel (1 and 0 when the
    // record is not derived or has no such label). Returns the number of labels matched.
    int Transfer(const std::vector<std::string>& labels, std::vector<float>& factors,
                 std::vector<float>& offsets) const;

    // Reads and writes the ".cal" text layout; false when the file cannot be opened (read: also
    // when a line is malformed or there is no entry).
    bool LoadCalFile(const std::string& path);
    bool SaveCalFile(const std::string& path) const;

    const std::vector<std::string>& GetLabels() const { return m_vsLabels; }
    void SetLabels(const std::vector<std::string>& v) { m_vsLabels = v; }
    const std::vector<float>& GetFactors() const { return m_vfFactors; }
    void SetFactors(const std::vector<float>& v) { m_vfFactors = v; }
    const std::vector<float>& GetOffsets() const { return m_vfOffsets; }
    void SetOffsets(const std::vector<float>& v) { m_vfOffsets = v; }
    bool GetSkipCalib() const { return m_bSkipCalib; }
    void SetSkipCalib(bool v) { m_bSkipCalib = v; }
    bool GetDerived() const { return m_bDerived; }
    void SetDerived(bool v) { m_bDerived = v; }
    float GetBaseStart() const { return m_fBaseStart; }
    void SetBaseStart(float v) { m_fBaseStart = v; }
    float GetBaseStop() const { return m_fBaseStop; }
    void SetBaseStop(float v) { m_fBaseStop = v; }
    std::string GetCalFile() const { return m_sCalFile; }
    void SetCalFile(const std::string& v) { m_sCalFile = v; }
    float GetSigStart() const { return m_fSigStart; }
    void SetSigStart(float v) { m_fSigStart = v; }
    float GetSigStop() const { return m_fSigStop; }
    void SetSigStop(float v) { m_fSigStop = v; }
    int GetCalMode() const { return m_iCalMode; }
    void SetCalMode(int v) { m_iCalMode = v; }
    float GetCalAmp() const { return m_fCalAmp; }
    void SetCalAmp(float v) { m_fCalAmp = v; }
    const std::vector<std::string>& GetCalEvtCodes() const { return m_vsCalEvtCodes; }
    void SetCalEvtCodes(const std::vector<std::string>& v) { m_vsCalEvtCodes = v; }

private:
    std::vector<std::string> m_vsLabels;
    std::vector<float> m_vfFactors;
    std::vector<float> m_vfOffsets;
    bool m_bSkipCalib = true;
    bool m_bDerived = false;
    float m_fBaseStart = 0;
    float m_fBaseStop = 0;
    std::string m_sCalFile;  // empty: no calibration file
    float m_fSigStart = 0;
    float m_fSigStop = 0;
    int m_iCalMode = 0;
    float m_fCalAmp = 0;
    std::vector<std::string> m_vsCalEvtCodes;
};
