#include "filelib/Calibration.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <new>

#include "companion/Xml.h"
#include "filelib/ecFilebase.h"

bool ecCalibration::WriteXml(std::ostream& out) const
{
    out << "<ORVA_Calibration>";
    out << "<bSkipCalib>" << (m_bSkipCalib ? 1 : 0) << "</bSkipCalib>"
        << "<bDerived>" << (m_bDerived ? 1 : 0) << "</bDerived>"
        << "<fCalAmp>" << m_fCalAmp << "</fCalAmp>"
        << "<iCalMode>" << m_iCalMode << "</iCalMode>"
        << "<sCalFile>" << m_sCalFile << "</sCalFile>"
        << "<fBaseStart>" << m_fBaseStart << "</fBaseStart>"
        << "<fBaseStop>" << m_fBaseStop << "</fBaseStop>"
        << "<fSigStart>" << m_fSigStart << "</fSigStart>"
        << "<fSigStop>" << m_fSigStop << "</fSigStop>";
    out << "<iNumEvt>" << m_vsCalEvtCodes.size() << "</iNumEvt><CalEvtCodes>";
    for (const std::string& code : m_vsCalEvtCodes)
        out << "<evt>" << code << "</evt>";
    out << "</CalEvtCodes>";
    if (m_bDerived) {
        if (m_vsLabels.size() != m_vfFactors.size() || m_vsLabels.size() != m_vfOffsets.size())
            throw ecError("[ecCalibration::WriteXml] Size inconsistency", 1, 0, -1, -1);
        out << "<iNumChans>" << m_vsLabels.size() << "</iNumChans><CalFactorList>";
        for (size_t i = 0; i < m_vsLabels.size(); ++i)
            out << "<chan><label>" << m_vsLabels[i] << "</label><factor>" << m_vfFactors[i] << "</factor><offset>"
                << m_vfOffsets[i] << "</offset></chan>";
        out << "</CalFactorList>";
    }
    out << "</ORVA_Calibration>";
    return true;
}

bool ecCalibration::ReadXml(ecXml& xml)
{
    ecXml cal = xml.GetName() == "ORVA_Calibration" ? xml : xml.Sub("ORVA_Calibration");
    if (!cal.IsValid())
        return false;
    auto readBool = [&](const char* tag, bool& v) { if (cal.TagExists(tag)) v = cal.GetBool(tag); };
    auto readFloat = [&](const char* tag, float& v) { if (cal.TagExists(tag)) v = cal.GetFloat(tag); };
    readBool("bSkipCalib", m_bSkipCalib);
    readBool("bDerived", m_bDerived);
    readFloat("fCalAmp", m_fCalAmp);
    if (cal.TagExists("iCalMode"))
        m_iCalMode = cal.GetInt("iCalMode");
    if (cal.TagExists("sCalFile"))
        m_sCalFile = cal.GetString("sCalFile");
    readFloat("fBaseStart", m_fBaseStart);
    readFloat("fBaseStop", m_fBaseStop);
    readFloat("fSigStart", m_fSigStart);
    readFloat("fSigStop", m_fSigStop);
    if (cal.TagExists("CalEvtCodes")) {
        m_vsCalEvtCodes.clear();
        for (const ecXml& evt : cal.Sub("CalEvtCodes").Children("evt"))
            m_vsCalEvtCodes.push_back(evt.CharacterData());
    }
    if (cal.TagExists("CalFactorList")) {
        m_vsLabels.clear();
        m_vfFactors.clear();
        m_vfOffsets.clear();
        for (const ecXml& chan : cal.Sub("CalFactorList").Children("chan")) {
            m_vsLabels.push_back(chan.GetString("label"));
            m_vfFactors.push_back(chan.GetFloat("factor"));
            m_vfOffsets.push_back(chan.GetFloat("offset"));
        }
    }
    return true;
}

int ecCalibration::Transfer(const std::vector<std::string>& labels, std::vector<float>& factors,
                            std::vector<float>& offsets) const
{
    factors.assign(labels.size(), 1.0f);
    offsets.assign(labels.size(), 0.0f);
    if (!m_bDerived)
        return 0;
    const size_t known = std::min({m_vsLabels.size(), m_vfFactors.size(), m_vfOffsets.size()});
    int matched = 0;
    for (size_t i = 0; i < labels.size(); ++i) {
        for (size_t k = 0; k < known; ++k) {
            if (m_vsLabels[k] == labels[i]) {
                factors[i] = m_vfFactors[k];
                offsets[i] = m_vfOffsets[k];
                ++matched;
                break;
            }
        }
    }
    return matched;
}

namespace {
bool ParseCalLine(const std::string& line, std::string& label, float& factor, float& offset)
{
    size_t t1 = line.find('\t');
    size_t t2 = t1 == std::string::npos ? t1 : line.find('\t', t1 + 1);
    if (t2 == std::string::npos || t1 == 0)
        return false;
    label = line.substr(0, t1);
    std::string f = line.substr(t1 + 1, t2 - t1 - 1);
    std::string o = line.substr(t2 + 1);
    char* stop = nullptr;
    factor = std::strtof(f.c_str(), &stop);
    if (f.empty() || *stop != '\0')
        return false;
    offset = std::strtof(o.c_str(), &stop);
    return !o.empty() && (*stop == '\0' || *stop == '\r') && std::isfinite(factor) && std::isfinite(offset);
}
}  // namespace

bool ecCalibration::LoadCalFile(const std::string& path)
{
    std::ifstream in(path);
    if (!in)
        return false;
    std::vector<std::string> labels;
    std::vector<float> factors, offsets;
    std::string line;
    while (std::getline(in, line)) {
        if (line.find_first_not_of(" \t\r") == std::string::npos || line[0] == '#')
            continue;
        std::string label;
        float factor = 0, offset = 0;
        if (!ParseCalLine(line, label, factor, offset))
            return false;
        labels.push_back(label);
        factors.push_back(factor);
        offsets.push_back(offset);
    }
    if (labels.empty())
        return false;
    m_vsLabels = labels;
    m_vfFactors = factors;
    m_vfOffsets = offsets;
    m_bDerived = true;
    return true;
}

bool ecCalibration::SaveCalFile(const std::string& path) const
{
    std::ofstream out(path);
    if (!out)
        return false;
    out << "# label\tfactor\toffset\n";
    out.precision(9);
    for (size_t i = 0; i < m_vsLabels.size() && i < m_vfFactors.size() && i < m_vfOffsets.size(); ++i)
        out << m_vsLabels[i] << '\t' << m_vfFactors[i] << '\t' << m_vfOffsets[i] << '\n';
    return static_cast<bool>(out);
}

namespace {

[[noreturn]] void CalibrationError(const char* text)
{
    throw ecError((std::string("[ecFilebase::Calibrate] ") + text).c_str(), 1, 0, -1, -1);
}

// A calibration reads at most this many samples at once (all channels of one interval span).
constexpr long kMaxCalibrationSamples = 64L << 20;

struct Interval {
    long first;
    long stop;  // exclusive
};

Interval ToSlices(long anchor, float start, float stop, double rate)
{
    return {anchor + std::lround(start * rate), anchor + std::lround(stop * rate)};
}

bool EventMatches(const ecEvent& e, const std::vector<std::string>& codes)
{
    const std::string code = std::to_string(e.GetEventCode());
    return std::any_of(codes.begin(), codes.end(),
                       [&](const std::string& c) { return c == e.GetEventName() || c == code; });
}

}  // namespace

void ecFilebase::Calibrate()
{
    ecCalibration& cal = m_calibration;
    if (cal.GetSkipCalib())
        return;
    const int mode = cal.GetCalMode();
    if (mode == kCalFromFile) {
        std::ifstream probe(cal.GetCalFile());
        if (cal.GetCalFile().empty() || !probe)
            CalibrationError("Failed to open calibration file");
        if (!cal.LoadCalFile(cal.GetCalFile()))
            CalibrationError("Error reading calibration file");
        return;
    }
    if (mode != kCalPeak && mode != kCalMean)
        CalibrationError("Unrecognized calibration mode");
    if (!(cal.GetBaseStart() < cal.GetBaseStop()) || !(cal.GetSigStart() < cal.GetSigStop()))
        CalibrationError("Invalid calibration start/stop times");

    std::vector<long> anchors;
    if (cal.GetCalEvtCodes().empty()) {
        anchors.push_back(0);
    } else {
        ecEventList events;
        InitialEventList(&events, nullptr);
        for (int i = 0; i < events.GetEventCnt(true); ++i)
            if (EventMatches(events.GetEvent(i), cal.GetCalEvtCodes()))
                anchors.push_back(events.GetEvent(i).GetBegin());
        if (anchors.empty())
            CalibrationError("Invalid calibration start/stop times");
    }

    const double rate = GetSampleRate();
    const long numChans = GetNumChans();
    const long numSlices = GetNumSlices();
    std::vector<double> baseSum(static_cast<size_t>(numChans), 0.0), sigSum(baseSum);
    ecLabeledMatrix<float> block;
    for (long anchor : anchors) {
        Interval base = ToSlices(anchor, cal.GetBaseStart(), cal.GetBaseStop(), rate);
        Interval sig = ToSlices(anchor, cal.GetSigStart(), cal.GetSigStop(), rate);
        if (base.first < 0 || sig.first < 0 || base.stop > numSlices || sig.stop > numSlices ||
            base.stop <= base.first || sig.stop <= sig.first)
            CalibrationError("Invalid calibration start/stop times");
        const long first = std::min(base.first, sig.first);
        const long count = std::max(base.stop, sig.stop) - first;
        if (numChans <= 0 || count > kMaxCalibrationSamples / numChans)
            CalibrationError("Failed to create calibration data pointer");
        try {
            block.resize(numChans, count, 0, 0);
        } catch (const std::bad_alloc&) {
            CalibrationError("Failed to create calibration data pointer");
        }
        if (ReadData(block, static_cast<int>(first), static_cast<int>(count)) < count)
            CalibrationError("Invalid calibration start/stop times");
        for (long c = 0; c < numChans; ++c) {
            const float* row = block[c];
            double b = 0;
            for (long s = base.first; s < base.stop; ++s)
                b += row[s - first];
            b /= static_cast<double>(base.stop - base.first);
            double v = mode == kCalPeak ? row[sig.first - first] : 0.0;
            for (long s = sig.first; s < sig.stop; ++s)
                v = mode == kCalPeak ? std::max(v, static_cast<double>(row[s - first])) : v + row[s - first];
            if (mode == kCalMean)
                v /= static_cast<double>(sig.stop - sig.first);
            baseSum[static_cast<size_t>(c)] += b;
            sigSum[static_cast<size_t>(c)] += v;
        }
    }

    std::vector<std::string> labels(static_cast<size_t>(numChans));
    std::vector<float> factors(labels.size()), offsets(labels.size());
    for (size_t c = 0; c < labels.size(); ++c) {
        const double baseline = baseSum[c] / static_cast<double>(anchors.size());
        const double pulse = sigSum[c] / static_cast<double>(anchors.size()) - baseline;
        if (!(pulse > 0))
            CalibrationError("Peak calibration signal does not exceed baseline");
        GetChanName(static_cast<int>(c), labels[c]);
        factors[c] = static_cast<float>(cal.GetCalAmp() / pulse);
        offsets[c] = static_cast<float>(-baseline * cal.GetCalAmp() / pulse);
    }
    cal.SetLabels(labels);
    cal.SetFactors(factors);
    cal.SetOffsets(offsets);
    cal.SetDerived(true);
    if (!cal.GetCalFile().empty() && !cal.SaveCalFile(cal.GetCalFile()))
        CalibrationError("Failed to open calibration file");
}
