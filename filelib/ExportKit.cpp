#include "filelib/ExportKit.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

namespace exportkit {

void Fail(const char* writer, const std::string& what) { throw ecError("[" + std::string(writer) + "] " + what); }

StagedFiles::StagedFiles(const char* writer, const std::vector<std::string>& targets)
    : m_writer(writer), m_targets(targets)
{
    for (const std::string& target : m_targets)
        m_temps.push_back(Claim(target));
}

StagedFiles::~StagedFiles()
{
    for (const std::string& temp : m_temps)
        if (!temp.empty())
            std::remove(temp.c_str());
}

bool StagedFiles::WriteBinary(size_t i, const std::function<bool(FILE*)>& fill)
{
    std::unique_ptr<FILE, int (*)(FILE*)> out(std::fopen(m_temps[i].c_str(), "wb"), &std::fclose);
    if (!out)
        Fail(m_writer, "Cannot create " + m_temps[i]);
    if (!fill(out.get()))
        return false;
    if (std::fflush(out.get()) != 0 || std::ferror(out.get()))
        Fail(m_writer, "Cannot write " + m_targets[i]);
    return true;
}

void StagedFiles::WriteText(size_t i, const std::string& text)
{
    // A short write sets the stream's error flag, which WriteBinary checks.
    WriteBinary(i, [&](FILE* out) {
        std::fwrite(text.data(), 1, text.size(), out);
        return true;
    });
}

void StagedFiles::Commit()
{
    for (size_t i = 0; i < m_targets.size(); ++i) {
        if (std::rename(m_temps[i].c_str(), m_targets[i].c_str()) != 0)
            Fail(m_writer, "Cannot replace " + m_targets[i]);
        m_temps[i].clear();
    }
}

std::string StagedFiles::Claim(const std::string& target) const
{
    for (int i = 0; i < 100; ++i) {
        const std::string name = target + ".part" + (i ? std::to_string(i) : "");
        if (FILE* fp = std::fopen(name.c_str(), "wbx")) {
            std::fclose(fp);
            return name;
        }
        if (errno != EEXIST)
            break;
    }
    Fail(m_writer, "Cannot create a temporary file beside " + target);
}

Window Resolve(CFilelib& source, const ecSelection& selection, const char* writer)
{
    Window w;
    const long slices = source.GetNumSlices();
    if (selection.first < 0 || selection.first > slices)
        Fail(writer, "The first slice " + std::to_string(selection.first) + " lies outside the recording's " +
                         std::to_string(slices) + " slices.");
    w.first = selection.first;
    w.count = selection.count < 0 ? slices - w.first : std::min(selection.count, slices - w.first);
    w.channels = selection.channels;
    if (w.channels.empty())
        for (int c = 0; c < source.GetNumChans(); ++c)
            w.channels.push_back(c);
    for (int c : w.channels)
        if (c < 0 || c >= source.GetNumChans())
            Fail(writer, "No channel " + std::to_string(c) + " in a recording of " +
                             std::to_string(source.GetNumChans()) + " channels.");
    return w;
}

WindowReader::WindowReader(CFilelib& source, const Window& window, const char* writer, ecProgressDlg* progress,
                           int passes)
    : m_source(source), m_window(window), m_writer(writer), m_progress(progress)
{
    if (m_progress) {
        m_progress->SetRange(0, passes * (static_cast<int>(window.count / kBlockSlices) + 1));
        m_progress->SetStep(1);
    }
}

bool WindowReader::Next()
{
    if (m_cancelled || m_done >= m_window.count)
        return false;
    const int want = static_cast<int>(std::min<long>(kBlockSlices, m_window.count - m_done));
    const int n = m_source.ReadData(m_block, static_cast<int>(m_window.first + m_done), want);
    if (n != want || m_block.nrow() < m_source.GetNumChans())
        Fail(m_writer, "Cannot read slices " + std::to_string(m_window.first + m_done) + " to " +
                           std::to_string(m_window.first + m_done + want - 1) + " of the source.");
    m_offset = m_done;
    m_slices = n;
    m_done += n;
    if (m_progress) {
        m_progress->StepIt();
        m_cancelled = m_progress->CheckCancelButton();
    }
    return !m_cancelled;
}

GridSurvey::GridSurvey(CFilelib& source, int chan)
{
    ecFilebase* reader = source.GetActiveFile();
    exactGrid = reader->GetChanGrid(chan, scale, offset);
    if (!exactGrid) {
        scale = reader->GetChanScale(chan);
        offset = reader->GetChanOffset(chan);
    }
}

double GridSurvey::Step(double toUnit) const
{
    return (exactGrid ? scale : ShortestDecimal(static_cast<float>(scale))) * toUnit;
}

double GridSurvey::Base(double toUnit) const
{
    return (exactGrid ? offset : ShortestDecimal(static_cast<float>(offset))) * toUnit;
}

void GridSurvey::Add(const float* row, int slices)
{
    for (int t = 0; t < slices; ++t) {
        const double v = row[t];
        if (!std::isfinite(v)) {
            onGrid = false;
            continue;
        }
        lo = std::min(lo, v);
        hi = std::max(hi, v);
        // A float holds the value to 2^-24 of itself (and a float scale its step as well): the
        // grid value of a sample is whole to that precision, measured from zero, not from the
        // offset; where that exceeds a quarter step the nearest whole number still is the one.
        const double q = (v - offset) / scale, n = std::round(q);
        const double tolerance = std::min(0.25, 4e-7 * (std::fabs(q) + std::fabs(offset / scale)) + 1e-9);
        onGrid = onGrid && std::isfinite(q) && std::fabs(q - n) <= tolerance;
        nlo = std::min(nlo, n);
        nhi = std::max(nhi, n);
    }
}

std::vector<ecEvent> WindowEvents(CFilelib& source, const Window& window)
{
    ecEventList list;
    source.InitialEventList(&list, nullptr);
    std::vector<ecEvent> events;
    for (int i = 0; i < list.GetEventCnt(true); ++i) {
        ecEvent e = list.GetEvent(i);
        if (e.GetBegin() < window.first || e.GetBegin() >= window.first + window.count)
            continue;
        e.SetBegin(e.GetBegin() - window.first);
        e.SetEnd(std::max(e.GetBegin(), e.GetEnd() - window.first));
        events.push_back(e);
    }
    std::stable_sort(events.begin(), events.end(),
                     [](const ecEvent& a, const ecEvent& b) { return a.GetBegin() < b.GetBegin(); });
    return events;
}

std::vector<long> EpochStarts(CFilelib& source, const Window& window)
{
    std::vector<long> starts;
    const long length = source.GetEpochSlices();
    if (source.GetNumEpochs() < 2 || length < 1)
        return starts;
    for (long s = (window.first + length - 1) / length * length; s < window.first + window.count; s += length)
        starts.push_back(s - window.first);
    return starts;
}

bool WindowStart(CFilelib& source, const Window& window, std::string& date, std::string& time)
{
    const ecRecordingInfo& info = source.GetRecordingInfo();
    date.clear();
    time.clear();
    std::tm start = {};
    if (std::sscanf((info.date + " " + info.time).c_str(), "%4d-%2d-%2d %2d:%2d:%2d", &start.tm_year, &start.tm_mon,
                    &start.tm_mday, &start.tm_hour, &start.tm_min, &start.tm_sec) != 6)
        return false;
    start.tm_year -= 1900;
    start.tm_mon -= 1;
    const std::time_t seconds = timegm(&start) + static_cast<std::time_t>(window.first / RecordingRate(source));
    std::tm shifted = {};
    char text[64];
    if (!gmtime_r(&seconds, &shifted) || !std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &shifted))
        return false;
    date.assign(text, 10);
    time.assign(text + 11);
    return true;
}

double FloatDigits(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.7g", value);
    return std::strtod(text, nullptr);
}

double ShortestDecimal(float value)
{
    char text[32];
    for (int precision = 1; precision < 9; ++precision) {
        std::snprintf(text, sizeof text, "%.*g", precision, static_cast<double>(value));
        if (static_cast<float>(std::strtod(text, nullptr)) == value)
            return std::strtod(text, nullptr);
    }
    return value;
}

namespace {

int SignificantDigits(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.7e", value);
    std::string mantissa(text, std::strchr(text, 'e'));
    return static_cast<int>(mantissa.find_last_not_of("0.") + 1) - (mantissa[0] == '-');
}

}  // namespace

double RecordingRate(CFilelib& source)
{
    const std::vector<double>& rates = source.GetRecordingInfo().channelRates;
    if (!rates.empty())
        return *std::max_element(rates.begin(), rates.end());
    // The rate is the inverse of a float period: the rate or the period is the short number.
    const double rate = FloatDigits(source.GetSampleRate()), fromPeriod = FloatDigits(1 / FloatDigits(1 / rate));
    return SignificantDigits(fromPeriod) < SignificantDigits(rate) ? fromPeriod : rate;
}

}  // namespace exportkit
