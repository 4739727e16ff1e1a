#include "filelib/readers/CTF.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"

namespace {

constexpr long long kMagicBytes = 8;
constexpr size_t kRunDescription = 1844;  // where the run description starts in the .res4
constexpr size_t kChannelRecord = 1328;   // sensor type, gains and 2 x 8 coil records
constexpr size_t kNameBytes = 32;
constexpr size_t kRunTitle = 1392;  // 256 bytes, after the 32-byte run name
constexpr size_t kSubjectId = 1712;
constexpr long long kMaxRes4Bytes = 1LL << 28;
constexpr long long kMaxSideFileBytes = 1LL << 24;
constexpr int kSystemClock = 17;

bool EndsWith(const std::string& s, const std::string& tail)
{
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

bool IsDataFileExtension(const std::string& ext)
{
    const size_t digits = ext.find_first_not_of("0123456789");
    return ext == "meg4" || ext == "res4" || (digits > 0 && digits != std::string::npos && ext.substr(digits) == "_meg4");
}

// "<folder>/<name>" of the dataset a caller's name points at; "" when it points at none.
std::string DatasetStem(std::string name)
{
    namespace fs = std::filesystem;
    while (name.size() > 1 && name.back() == '/')
        name.pop_back();
    std::error_code ec;
    if (fs::is_directory(name, ec))
        return EndsWith(name, ".ds") ? name + "/" + fs::path(name).stem().string() : "";
    if (IsDataFileExtension(GetFileNameExtension(name)))
        return GetFileNameNoExtension(name);
    const std::string folder = fs::path(name).parent_path().string();
    return EndsWith(folder, ".ds") ? folder + "/" + fs::path(folder).stem().string() : "";
}

bool HasMagic(FILE* fp)
{
    char magic[kMagicBytes];
    return ReadAt(fp, 0, magic, sizeof magic) == sizeof magic &&
           (std::memcmp(magic, "MEG41CP", 7) == 0 || std::memcmp(magic, "MEG42CP", 7) == 0);
}

// The run's title, or its free-text description when it has no title.
std::string RunDescription(const ByteCursor& h, int descriptionBytes)
{
    const std::string title = TrimBlanks(h.str(kRunTitle, 256));
    if (!title.empty() || descriptionBytes <= 0)
        return title;
    return TrimBlanks(h.str(kRunDescription, static_cast<size_t>(descriptionBytes)));
}

// The filter records that follow the run description (frequency, class, type, parameters), as one
// text for every channel: the acquisition filters apply to the whole run. Types 1, 2 and 3 are
// low-pass, high-pass and notch; other kinds have no single cut-off to show.
std::string ReadFilters(ByteCursor& h)
{
    double cutOff[4] = {};
    for (int filters = h.next_i16be(); filters > 0; --filters) {
        const double hertz = h.next_f64be();
        h.skip(4);  // class
        const int type = h.next_i32be();
        if (type >= 1 && type <= 3)
            cutOff[type] = hertz;
        h.skip(8 * static_cast<size_t>(std::max<int16_t>(0, h.next_i16be())));
    }
    return FilterText(cutOff[2], cutOff[1], cutOff[3]);
}

struct ChannelKind {
    int type;
    const char* unit;
};

// Sensor types of the .res4: 0-3 reference sensors, 4-7 MEG sensors, 8 EEG reference, 9 EEG,
// 10 and 18 ADC inputs, 11 stimulus (trigger) channels.
ChannelKind KindOf(int sensorType)
{
    if (sensorType >= 0 && sensorType <= 3)
        return {kChanMEG | kChanReference, "T"};
    if (sensorType >= 4 && sensorType <= 7)
        return {kChanMEG, "T"};
    if (sensorType == 8 || sensorType == 9)
        return {kChanEEG | (sensorType == 8 ? kChanReference : 0), "V"};
    if (sensorType == 11)
        return {kChanTrigger, ""};
    return {0, sensorType == 10 || sensorType == 18 ? "V" : ""};
}

}  // namespace

CTF::CTF(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void CTF::Fail(const std::string& text) { FailClosing("CTF::Initialize", text); }

void CTF::Initialize(int)
{
    m_stem = DatasetStem(GetInputFileName());
    FILE* fp = m_stem.empty() ? nullptr : OpenInputFile(m_stem + ".meg4");
    if (!fp || !HasMagic(fp))
        Fail("Not a CTF dataset: " + GetInputFileName());
    SetFileMFR(kMfrCTF);
    m_files.clear();
    m_continues.clear();
    m_fileEvents.Clear();

    const Res4 res4 = ReadRes4();
    m_trialSamples = res4.trialSamples;
    m_preTrigger = res4.preTrigger;
    m_rate = res4.rate;
    DescribeChannels(res4);
    MarkBadChannels();
    const auto clock = std::find(res4.sensorTypes.begin(), res4.sensorTypes.end(), kSystemClock);
    FindDataFiles(clock == res4.sensorTypes.end() ? -1 : static_cast<int>(clock - res4.sensorTypes.begin()));
    ChooseTimeBase(res4);
    ReadBadSegments();
    ReadMarkers();
}

CTF::Res4 CTF::ReadRes4()
{
    const std::string path = m_stem + ".res4";
    FILE* fp = std::fopen(path.c_str(), "rb");
    if (!fp)
        Fail("Cannot open " + path);
    std::vector<uint8_t> bytes(static_cast<size_t>(std::clamp<long long>(FileLength(fp), 0, kMaxRes4Bytes)));
    const bool read = ReadAt(fp, 0, bytes.data(), bytes.size()) == bytes.size();
    std::fclose(fp);
    if (!read)
        Fail("Cannot read " + path);
    Res4 r;
    m_recordingInfo = {};
    ByteCursor h(bytes.data(), bytes.size());
    int descriptionBytes = 0;
    size_t records = 0;
    std::string filter;
    try {
        r.trialSamples = h.i32be(1288);
        r.channels = h.i16be(1292);
        r.rate = h.f64be(1296);
        r.preTrigger = h.i32be(1316);
        SetRunDate(h.str(778, 255), h.str(1033, 255));
        m_recordingInfo.subjectId = TrimBlanks(h.str(kSubjectId, kNameBytes));
        descriptionBytes = h.i32be(1836);
        m_recordingInfo.description = RunDescription(h, descriptionBytes);
        h.seek(kRunDescription + static_cast<size_t>(std::max(0, descriptionBytes)));
        filter = ReadFilters(h);
        for (int c = 0; c < r.channels; ++c)
            r.names.push_back(TrimBlanks(h.next_str(kNameBytes)));
        records = h.tell();
        if (r.channels > 0)
            h.u8(records + static_cast<size_t>(r.channels) * kChannelRecord - 1);
    } catch (const ecError&) {
        Fail("The header " + path + " is cut short.");
    }
    if (r.trialSamples <= 0 || r.channels <= 0 || !(r.rate > 0 && r.rate < 1e9) || descriptionBytes < 0)
        Fail("The header " + path + " declares " + std::to_string(r.trialSamples) + " samples per trial, " +
             std::to_string(r.channels) + " channels, a rate of " + std::to_string(r.rate) +
             " Hz and a run description of " + std::to_string(descriptionBytes) + " bytes.");
    if (!filter.empty())
        m_recordingInfo.channelFilters.assign(r.names.size(), filter);
    for (size_t c = 0; c < r.names.size(); ++c) {
        const size_t at = records + c * kChannelRecord;
        r.sensorTypes.push_back(h.i16be(at));
        r.gains.push_back(1.0 / (h.f64be(at + 8) * h.f64be(at + 16)));
        if (!std::isfinite(r.gains.back()) || r.gains.back() == 0)
            Fail("Channel " + r.names[c] + " has no usable gain in " + path + ".");
    }
    return r;
}

void CTF::DescribeChannels(const Res4& r)
{
    SetNumChans(r.channels);
    for (int c = 0; c < r.channels; ++c) {
        const size_t k = static_cast<size_t>(c);
        const ChannelKind kind = KindOf(r.sensorTypes[k]);
        DescribeChannel(c, r.names[k], kind.type, kind.unit, static_cast<float>(r.gains[k]));
    }
}

bool CTF::SideLines(const std::string& file, std::vector<std::string>& lines)
{
    const std::string path = GetFileNameDirectory(m_stem) + file;
    FILE* fp = std::fopen(path.c_str(), "rb");
    if (!fp)
        return false;
    const long long size = FileLength(fp);
    std::string text(static_cast<size_t>(std::clamp<long long>(size, 0, kMaxSideFileBytes)), '\0');
    const bool read = size <= kMaxSideFileBytes && ReadAt(fp, 0, text.data(), text.size()) == text.size();
    std::fclose(fp);
    if (!read)
        Fail("Cannot read " + path);
    lines.clear();
    for (size_t from = 0; from < text.size();) {
        const size_t end = std::min(text.find('\n', from), text.size());
        lines.push_back(TrimBlanks(text.substr(from, end - from)));
        from = end + 1;
    }
    return true;
}

// The run's date ("29-Apr-2013" or "29/04/2013") and time ("09:36" or "09:36:12"); some
// acquisitions write the two fields the other way round.
void CTF::SetRunDate(std::string time, std::string date)
{
    if (date.find(':') != std::string::npos && time.find(':') == std::string::npos)
        std::swap(date, time);
    int day = 0, year = 0, hour = 0, minute = 0, second = 0;
    char month[16] = "";
    if (std::sscanf(date.c_str(), "%d%*[-/]%15[^-/]%*[-/]%d", &day, month, &year) == 3)
        m_recordingInfo.date = IsoDate(year, month, day);
    if (std::sscanf(time.c_str(), "%d:%d:%d", &hour, &minute, &second) >= 2)
        m_recordingInfo.time = ClockTime(hour, minute, second);
}

void CTF::MarkBadChannels()
{
    std::vector<std::string> lines;
    if (!SideLines("BadChannels", lines))
        return;
    for (const std::string& bad : lines) {
        if (bad.empty())
            continue;
        int c = 0;
        for (std::string name; c < GetNumChans(); ++c) {
            GetChanName(c, name);
            if (name == bad || name.substr(0, name.find('-')) == bad)
                break;
        }
        if (c == GetNumChans())
            Fail("BadChannels names " + bad + ", which is not a channel of the dataset.");
        SetChanType(c, GetChanType(c) | kChanOff);
        m_recordingInfo.badChannels.push_back(c);
    }
}

void CTF::FindDataFiles(int clockChannel)
{
    m_trialBytes = static_cast<long long>(GetNumChans()) * m_trialSamples * 4;
    ClockState clock;
    long long trials = 0;
    for (int k = 0;; ++k) {
        const std::string path = m_stem + (k == 0 ? ".meg4" : "." + std::to_string(k) + "_meg4");
        FILE* fp = std::fopen(path.c_str(), "rb");
        if (!fp)
            break;
        const long long size = FileLength(fp);
        const bool whole = HasMagic(fp) && size >= kMagicBytes && (size - kMagicBytes) % m_trialBytes == 0;
        const long long inFile = whole ? (size - kMagicBytes) / m_trialBytes : 0;
        const bool clockRead = whole && ReadClock(fp, inFile, clockChannel, clock);
        std::fclose(fp);
        if (!whole)
            Fail(path + " is not a CTF data file of whole trials of " + std::to_string(m_trialBytes) + " bytes.");
        if (!clockRead)
            Fail("Cannot read the system clock in " + path);
        m_files.push_back({path, trials, inFile});
        trials += inFile;
    }
    if (trials == 0)
        Fail("The dataset " + m_stem + " holds no trial.");
    if (trials > INT_MAX / m_trialSamples)
        Fail("The dataset holds more than 2147483647 samples per channel.");
}

bool CTF::ReadClock(FILE* fp, long long trials, int clockChannel, ClockState& clock)
{
    for (long long t = 0; t < trials; ++t) {
        if (clockChannel < 0 || m_trialSamples < 2) {
            m_continues.push_back(false);
            continue;
        }
        const long long at = kMagicBytes + t * m_trialBytes + clockChannel * m_trialSamples * 4;
        uint8_t first[4], tail[8];
        if (ReadAt(fp, at, first, 4) != 4 || ReadAt(fp, at + (m_trialSamples - 2) * 4, tail, 8) != 8)
            return false;
        const long long start = static_cast<int32_t>(LoadU32BE(first));
        m_continues.push_back(clock.known && clock.step != 0 && start == clock.last + clock.step);
        const long long before = static_cast<int32_t>(LoadU32BE(tail));
        clock = {true, static_cast<int32_t>(LoadU32BE(tail + 4)), 0};
        clock.step = clock.last - before;
    }
    return true;
}

void CTF::ChooseTimeBase(const Res4& r)
{
    const long long trials = static_cast<long long>(m_continues.size());
    if (std::all_of(m_continues.begin() + 1, m_continues.end(), [](bool c) { return c; })) {
        SetContinuousTimeBase(m_rate, trials * m_trialSamples);
    } else {
        SetEpochTimeBase(m_rate, m_trialSamples, trials, static_cast<double>(m_preTrigger) / m_rate, false);
        for (long long t = 1; t < trials; ++t)
            if (!m_continues[static_cast<size_t>(t)])
                m_fileEvents.AppendOneEvent(SegmentBoundaryEvent(static_cast<long>(t * m_trialSamples)));
    }
    ecDataLayout layout = ecDataLayout::Vectorized(ecSampleType::Int32, true, r.channels, kMagicBytes, m_trialSamples);
    layout.slices = trials * m_trialSamples;
    layout.segmentSlices = m_trialSamples;
    layout.segmentStride = m_trialBytes;
    for (int c = 0; c < r.channels; ++c)
        layout.SetConversion(c, r.gains[static_cast<size_t>(c)], 0);
    Engine().SetLayout(std::move(layout));
    m_openFile = 0;
}

// A time in seconds from trial `trial`'s trigger as a slice; false when it lies outside the data
// (an end may lie just past the last slice).
bool CTF::TrialTime(long long trial, double seconds, long& slice, bool end)
{
    if (trial < 0 || trial >= static_cast<long long>(m_continues.size()))
        return false;
    const double at = static_cast<double>(trial * m_trialSamples + m_preTrigger) + std::round(seconds * m_rate);
    if (!(at >= 0 && at < GetNumSlices() + (end ? 1 : 0)))
        return false;
    slice = static_cast<long>(at);
    return true;
}

void CTF::ReadBadSegments()
{
    std::vector<std::string> lines;
    if (!SideLines("bad.segments", lines))
        return;
    for (std::string line : lines) {
        std::vector<std::string> f;
        if (SplitFields(line, f, " \t\r") == 0)
            continue;
        long long trial = 0;
        double start = 0, end = 0;
        long from = 0, to = 0;
        if (f.size() != 3 || !ParseInteger(f[0], trial) || !ParseReal(f[1], start) || !ParseReal(f[2], end) ||
            trial < 1 || !TrialTime(trial - 1, start, from) ||
            !TrialTime(trial - 1, end, to, true) || to < from)
            Fail("bad.segments holds \"" + line + "\", which is no stretch of the recording.");
        m_fileEvents.AppendOneEvent(MarkerEvent(from, "bad", 0, to - from, 1));
    }
}

void CTF::ReadMarkers()
{
    std::vector<std::string> lines;
    if (!SideLines("MarkerFile.mrk", lines))
        return;
    std::string name;
    int classes = 0;
    long long count = -1;
    auto next = [&](size_t& i) -> const std::string& {
        if (++i >= lines.size())
            Fail("MarkerFile.mrk is cut short.");
        return lines[i];
    };
    for (size_t i = 0; i < lines.size(); ++i) {
        if (lines[i] == "NAME:") {
            name = next(i);
            ++classes;
        } else if (lines[i] == "NUMBER OF SAMPLES:") {
            if (!ParseInteger(next(i), count) || count < 0 || classes == 0)
                Fail("MarkerFile.mrk gives the marker count \"" + lines[i] + "\" outside a class.");
        } else if (lines[i] == "LIST OF SAMPLES:") {
            next(i);  // the column titles
            for (; count > 0; --count) {
                std::string line = next(i);
                std::vector<std::string> f;
                long long trial = 0;
                double seconds = 0;
                long slice = 0;
                if (SplitFields(line, f, " \t\r") != 2 || !ParseInteger(f[0], trial) || !ParseReal(f[1], seconds) ||
                    !TrialTime(trial, seconds, slice))
                    Fail("MarkerFile.mrk holds the marker \"" + line + "\" of " + name + ", outside the recording.");
                m_fileEvents.AppendOneEvent(MarkerEvent(slice, name, classes));
            }
        }
    }
}

void CTF::UseFile(size_t file)
{
    if (file == m_openFile)
        return;
    if (!OpenInputFile(m_files[file].path))
        throw ecError("[CTF::ReadData] Cannot open " + m_files[file].path, 1, 0, -1, -1);
    ecDataLayout layout = Engine().Layout();
    layout.firstSegment = kMagicBytes - m_files[file].firstTrial * m_trialBytes;
    Engine().SetLayout(std::move(layout));
    m_openFile = file;
}

int CTF::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "CTF");
    for (long long done = 0; done < n;) {
        const long long slice = first + done, trial = slice / m_trialSamples;
        size_t file = 0;
        while (trial >= m_files[file].firstTrial + m_files[file].trials)
            ++file;
        UseFile(file);
        const long long end = std::min(first + n, (m_files[file].firstTrial + m_files[file].trials) * m_trialSamples);
        if (ReadRows(data, slice, end - slice, static_cast<long>(done)) != end - slice)
            throw ecError("[CTF::ReadData] Error in reading " + m_files[file].path, 1, 0, -1, -1);
        done = end - first;
    }
    return static_cast<int>(n);
}

int CTF::InitialEventList(ecEventList* events, ecProgressDlg* progress)
{
    if (!events)
        return 0;
    ecEventList all = m_fileEvents;
    FindAllTriggersDig(&all, 2, 1.0f, 0, false, -1, progress);
    all.SortEventListInTimelyOrder("");
    for (int i = 0; i < all.GetEventCnt(true); ++i)
        events->AppendOneEvent(all.GetEvent(i));
    return all.GetEventCnt(true);
}
