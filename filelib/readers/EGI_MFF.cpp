#include "filelib/readers/EGI_MFF.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"
#include "companion/Xml.h"

namespace {

constexpr long long kChunkSlices = 4096;  // slices of one decoded piece of a block
constexpr int kMaxChannels = 1 << 16;
constexpr int kMaxSignalFiles = 16;

bool IsDirectory(const std::string& path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool LoadXml(ecXml& xml, const std::string& path) { return !IsDirectory(path) && xml.Read(path); }

bool Integer(const ecXml& node, const std::string& tag, long long& out)
{
    return node.TagExists(tag) && ParseInteger(node.GetString(tag), out);
}

// Days from 1970-01-01 to a date of the proleptic Gregorian calendar.
long long DaysFromCivil(long long y, long long m, long long d)
{
    y -= m <= 2;
    const long long era = (y >= 0 ? y : y - 399) / 400;
    const long long yoe = y - era * 400;
    const long long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    return era * 146097 + yoe * 365 + yoe / 4 - yoe / 100 + doy - 719468;
}

// "YYYY-MM-DDThh:mm:ss[.fraction](Z|+hh:mm|-hh:mm)" as microseconds since 1970 UTC (fractions
// beyond microseconds are cut).
bool ParseTime(const std::string& text, long long& us)
{
    const std::string t = TrimBlanks(text);
    int y, mo, d, h, mi, s, used = 0;
    if (std::sscanf(t.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &y, &mo, &d, &h, &mi, &s, &used) != 6 || used != 19 ||
        mo < 1 || mo > 12 || d < 1 || d > 31 || h > 23 || mi > 59 || s > 60 || h < 0 || mi < 0 || s < 0)
        return false;
    size_t at = 19;
    long long fraction = 0;
    if (at < t.size() && t[at] == '.') {
        int digits = 0;
        while (++at < t.size() && std::isdigit(static_cast<unsigned char>(t[at])))
            if (++digits <= 6)
                fraction = fraction * 10 + (t[at] - '0');
        if (digits == 0)
            return false;
        for (; digits < 6; ++digits)
            fraction *= 10;
    }
    long long zone = 0;
    const std::string rest = t.substr(at);
    if (rest.size() == 6 && (rest[0] == '+' || rest[0] == '-') && rest[3] == ':' &&
        std::all_of(rest.begin() + 1, rest.end(), [](char c) { return c == ':' || std::isdigit(static_cast<unsigned char>(c)); }))
        zone = (rest[0] == '-' ? -1 : 1) * (std::stoll(rest.substr(1, 2)) * 60 + std::stoll(rest.substr(4, 2)));
    else if (rest != "Z" && !rest.empty())
        return false;
    const long long seconds = ((DaysFromCivil(y, mo, d) * 24 + h) * 60 + mi) * 60 + s - zone * 60;
    us = seconds * 1000000 + fraction;
    return true;
}

}  // namespace

CEGI::CEGI(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void CEGI::Fail(const std::string& text) { FailClosing("CEGI::Initialize", text); }

// The folder is named directly, or through one of its .xml / .bin files.
bool CEGI::FindFolder()
{
    std::string name = GetInputFileName();
    while (name.size() > 1 && name.back() == '/')
        name.pop_back();
    if (IsDirectory(name)) {
        m_folder = name;
    } else {
        std::string ext = GetFileNameExtension(name);
        ToUpper(ext);
        if (ext != "XML" && ext != "BIN")
            return false;
        m_folder = GetFileNameDirectory(name);
        if (m_folder.empty())
            m_folder = ".";
        else if (m_folder.size() > 1)
            m_folder.pop_back();
    }
    ecXml info;
    return LoadXml(info, Path("info.xml")) && info.GetName() == "fileInfo";
}

void CEGI::Initialize(int)
{
    if (!FindFolder())
        Fail("Not an MFF folder: " + GetInputFileName());
    SetFileMFR(kMfrEGI);

    ReadInfo();
    ReadSubject();
    std::string eegInfo;
    int eegFile = 0, pnsFile = 0;
    FindSignals(eegInfo, eegFile, pnsFile);
    const std::string eegName = "signal" + std::to_string(eegFile) + ".bin";
    FILE* fp = OpenInputFile(Path(eegName));
    if (!fp)
        Fail("Cannot open the EEG signal file " + Path(eegName) + ".");
    m_eeg = ReadBlocks(fp, eegName);
    m_pns = Stream();
    if (pnsFile) {
        const std::string pnsName = "signal" + std::to_string(pnsFile) + ".bin";
        FILE* pns = std::fopen(Path(pnsName).c_str(), "rb");
        if (!pns)
            Fail("Cannot open the PNS signal file " + Path(pnsName) + ".");
        m_pnsFile.Close();
        m_pnsFile.Adopt(pns);
        m_pns = ReadBlocks(pns, pnsName);
        MatchPnsBlocks();
    }
    m_blockFirstSlice.assign(1, 0);
    for (size_t b = 0; b < m_eeg.blocks.size(); ++b)
        m_blockFirstSlice.push_back(m_blockFirstSlice.back() + BlockSamples(b));
    if (m_blockFirstSlice.back() > INT_MAX)
        Fail("The recording holds more than 2147483647 slices.");

    ReadEpochs();
    ReadCategories();
    SetNumChans(m_eeg.channels + m_pns.channels);
    DescribeEeg(eegInfo);
    DescribePns();
    const double rate = static_cast<double>(m_eeg.rate);
    if (m_segmented)
        SetEpochTimeBase(rate, m_epochs.front().slices, static_cast<long long>(m_epochs.size()), m_preStim, m_averaged);
    else
        SetContinuousTimeBase(rate, m_blockFirstSlice.back());
    DescribeLayout();
    ReadEvents();
}

void CEGI::ReadInfo()
{
    ecXml info;
    LoadXml(info, Path("info.xml"));
    m_recordingInfo = {};
    m_recordTime = TrimBlanks(info.GetString("recordTime"));
    if (!ParseTime(m_recordTime, m_startUs))
        Fail("info.xml gives no readable recordTime (\"" + m_recordTime + "\").");
    // The local date and time of day as written; the zone after them is left out.
    m_recordingInfo.date = m_recordTime.substr(0, 10);
    m_recordingInfo.time = m_recordTime.substr(11, m_recordTime.find_first_of("Z+-", 19) - 11);
    long long version = 0;
    m_mffVersion = Integer(info, "mffVersion", version) && version >= 0 && version < 1000 ? static_cast<int>(version) : 0;
}

// subject.xml is a list of named fields the acquisition's subject form defines; the ones that
// say who the subject is are taken by the names the form gives them.
void CEGI::ReadSubject()
{
    ecXml subject;
    if (!LoadXml(subject, Path("subject.xml")))
        return;
    ecRecordingInfo& r = m_recordingInfo;
    std::string given, family;
    for (const ecXml& field : subject.Sub("fields").Children("field")) {
        const std::string name = TrimBlanks(field.GetString("name")), data = TrimBlanks(field.GetString("data"));
        int year = 0, month = 0, day = 0;
        if (name == "Patient ID")
            r.subjectId = data;
        else if (name == "First (Given) Name")
            given = data;
        else if (name == "Last (Family) Name")
            family = data;
        else if (name == "Gender")
            r.subjectSex = data == "Male" ? "M" : data == "Female" ? "F" : "";
        else if (name == "Date of Birth" && std::sscanf(data.c_str(), "%4d-%2d-%2d", &year, &month, &day) == 3)
            r.subjectBirthDate = IsoDate(year, std::to_string(month), day);
    }
    r.subjectName = given + (given.empty() || family.empty() ? "" : " ") + family;
}

// signalN.bin goes with infoN.xml, which says whether it holds EEG or PNS data.
void CEGI::FindSignals(std::string& eegInfo, int& eegFile, int& pnsFile)
{
    for (int n = 1; n <= kMaxSignalFiles; ++n) {
        ecXml info;
        const std::string name = "info" + std::to_string(n) + ".xml";
        if (!LoadXml(info, Path(name)))
            continue;
        if (!eegFile && info.TagExists("EEG")) {
            eegFile = n;
            eegInfo = name;
        } else if (!pnsFile && info.TagExists("PNSData")) {
            pnsFile = n;
        }
    }
    if (!eegFile)
        Fail("No infoN.xml of " + m_folder + " describes an EEG signal file.");
}

CEGI::Stream CEGI::ReadBlocks(FILE* fp, const std::string& file)
{
    Stream s;
    const long long size = FileLength(fp);
    long long pos = 0, dataBytes = 0;
    const std::string where = file + ", block at byte ";
    while (pos < size) {
        uint8_t word[16];
        if (ReadAt(fp, pos, word, 4) != 4)
            Fail(where + std::to_string(pos) + ": cut short.");
        const int32_t version = ByteCursor(word, 4).i32le(0);
        Block block;
        if (version == 1) {
            if (ReadAt(fp, pos, word, 16) != 16)
                Fail(where + std::to_string(pos) + ": the header is cut short.");
            const ByteCursor h(word, 16);
            const long long headerBytes = h.i32le(4), channels = h.i32le(12);
            dataBytes = h.i32le(8);
            if (channels < 1 || channels > kMaxChannels || headerBytes < 20 + 8 * channels || headerBytes > size - pos)
                Fail(where + std::to_string(pos) + ": a header of " + std::to_string(headerBytes) + " bytes for " +
                     std::to_string(channels) + " channels.");
            if (dataBytes <= 0 || dataBytes % (4 * channels) != 0)
                Fail(where + std::to_string(pos) + ": " + std::to_string(dataBytes) + " data bytes are no whole number of samples of " +
                     std::to_string(channels) + " channels.");
            std::vector<uint8_t> table(static_cast<size_t>(8 * channels));
            if (ReadAt(fp, pos + 16, table.data(), table.size()) != table.size())
                Fail(where + std::to_string(pos) + ": the header is cut short.");
            const ByteCursor t(table.data(), table.size());
            Header header;
            header.samples = dataBytes / (4 * channels);
            for (long long c = 0; c < channels; ++c) {
                const uint32_t depthRate = t.u32le(static_cast<size_t>(4 * (channels + c)));
                const long long offset = t.i32le(static_cast<size_t>(4 * c)), rate = depthRate >> 8;
                if ((depthRate & 0xFF) != 32)
                    Fail(where + std::to_string(pos) + ": samples of " + std::to_string(depthRate & 0xFF) + " bits (only 32-bit floats are known).");
                if (offset < 0 || offset > dataBytes - 4 * header.samples)
                    Fail(where + std::to_string(pos) + ": channel " + std::to_string(c + 1) + " lies outside the block.");
                if (rate <= 0 || (s.rate && rate != s.rate) || (s.channels && channels != s.channels))
                    Fail(where + std::to_string(pos) + ": its channels or rates disagree with the blocks before it.");
                s.rate = rate;
                header.offsets.push_back(offset);
            }
            s.channels = static_cast<int>(channels);
            s.headers.push_back(std::move(header));
            block.dataStart = pos + headerBytes;
        } else if (version == 0 && !s.headers.empty()) {
            block.dataStart = pos + 4;
        } else {
            Fail(where + std::to_string(pos) + ": version " + std::to_string(version) +
                 (version == 0 ? " repeats a header no block gave before." : " is unknown."));
        }
        block.header = s.headers.size() - 1;
        if (dataBytes > size - block.dataStart)
            Fail(where + std::to_string(pos) + ": its data end beyond the file.");
        s.blocks.push_back(block);
        pos = block.dataStart + dataBytes;
    }
    if (s.blocks.empty())
        Fail(file + " holds no data blocks.");
    return s;
}

// The PNS stream is cut into the EEG's blocks; only its last one may be a sample short.
void CEGI::MatchPnsBlocks()
{
    const size_t blocks = m_eeg.blocks.size();
    bool same = m_pns.blocks.size() == blocks && m_pns.rate == m_eeg.rate;
    for (size_t b = 0; same && b < blocks; ++b) {
        const long long short_ = m_eeg.Samples(b) - m_pns.Samples(b);
        same = short_ == 0 || (b + 1 == blocks && short_ == 1);
    }
    if (!same)
        Fail("The PNS signal's blocks or rate disagree with the EEG's.");
}

long long CEGI::BlockSamples(size_t block) const
{
    const long long eeg = m_eeg.Samples(block);
    return m_pns.channels ? std::min(eeg, m_pns.Samples(block)) : eeg;
}

// Each epoch holds whole blocks, the epochs in order and together all blocks. Without
// epochs.xml the blocks are one epoch from the start.
void CEGI::ReadEpochs()
{
    m_epochs.clear();
    ecXml xml;
    const long long blocks = static_cast<long long>(m_eeg.blocks.size());
    if (!LoadXml(xml, Path("epochs.xml"))) {
        m_epochs.push_back({0, 0, m_blockFirstSlice.back(), ""});
        return;
    }
    long long next = 1;
    for (const ecXml& e : xml.Children("epoch")) {
        long long begin = 0, firstBlock = 0, lastBlock = 0;
        if (!Integer(e, "beginTime", begin) || !Integer(e, "firstBlock", firstBlock) || !Integer(e, "lastBlock", lastBlock) ||
            firstBlock != next || lastBlock < firstBlock || lastBlock > blocks || begin < 0 ||
            (!m_epochs.empty() && begin < m_epochs.back().beginUs))
            Fail("epochs.xml: epoch " + std::to_string(m_epochs.size() + 1) + " does not follow block " +
                 std::to_string(next - 1) + " (blocks 1.." + std::to_string(blocks) + ").");
        const long long first = m_blockFirstSlice[static_cast<size_t>(firstBlock - 1)];
        m_epochs.push_back({begin, first, m_blockFirstSlice[static_cast<size_t>(lastBlock)] - first, ""});
        next = lastBlock + 1;
    }
    if (next != blocks + 1)
        Fail("epochs.xml covers " + std::to_string(next - 1) + " of the " + std::to_string(blocks) + " blocks.");
}

// Segmented and averaged files: each epoch is a segment of a category, found by its begin time.
void CEGI::ReadCategories()
{
    ecXml xml, history;
    m_segmented = LoadXml(xml, Path("categories.xml"));
    m_averaged = false;
    m_preStim = 0;
    if (!m_segmented)
        return;
    if (LoadXml(history, Path("history.xml")))
        for (const ecXml& entry : history.Children("entry"))
            m_averaged = m_averaged || TrimBlanks(entry.GetString("method")) == "Averaging";
    std::map<long long, std::pair<std::string, long long>> segments;  // begin: category, stimulus
    for (const ecXml& cat : xml.Children("cat"))
        for (const ecXml& seg : cat.Sub("segments").Children("seg")) {
            long long begin = 0, stimulus = 0;
            if (!Integer(seg, "beginTime", begin) || !Integer(seg, "evtBegin", stimulus))
                Fail("categories.xml: a segment of " + cat.GetString("name") + " has no beginTime or evtBegin.");
            segments[begin] = {TrimBlanks(cat.GetString("name")), stimulus};
        }
    for (size_t e = 0; e < m_epochs.size(); ++e) {
        const auto found = segments.find(m_epochs[e].beginUs);
        if (found == segments.end())
            Fail("Epoch " + std::to_string(e + 1) + " is no segment of categories.xml.");
        if (m_epochs[e].slices != m_epochs.front().slices)
            Fail("The segments differ in length (" + std::to_string(m_epochs.front().slices) + " and " +
                 std::to_string(m_epochs[e].slices) + " slices).");
        m_epochs[e].category = found->second.first;
        if (e == 0)
            m_preStim = static_cast<double>(found->second.second - m_epochs[e].beginUs) / 1e6;
    }
}

void CEGI::DescribeEeg(const std::string& infoFile)
{
    const size_t channels = static_cast<size_t>(m_eeg.channels);
    m_gains.assign(channels, 1e-6);
    ecXml info;
    LoadXml(info, Path(infoFile));
    for (const ecXml& cal : info.Sub("calibrations").Children("calibration")) {
        if (TrimBlanks(cal.GetString("type")) != "GCAL")
            continue;
        for (const ecXml& ch : cal.Sub("channels").Children("ch")) {
            long long n = 0;
            double gain = 0;
            if (!ParseInteger(ch.Attribute("n"), n) || n < 1 || n > m_eeg.channels || !ParseReal(ch.CharacterData(), gain) ||
                !std::isfinite(gain) || gain <= 0)
                Fail(infoFile + ": a GCAL gain for channel \"" + ch.Attribute("n") + "\" of " + std::to_string(channels) + ".");
            m_gains[static_cast<size_t>(n - 1)] = 1e-6 * gain;
        }
    }
    std::vector<std::string> names;
    int reference = -1;
    ecXml layout;
    if (LoadXml(layout, Path("sensorLayout.xml"))) {
        for (const ecXml& sensor : layout.Sub("sensors").Children("sensor")) {
            const std::string type = TrimBlanks(sensor.GetString("type"));
            if (type != "0" && type != "1")
                continue;
            if (type == "1")
                reference = static_cast<int>(names.size());
            const std::string name = TrimBlanks(sensor.GetString("name"));
            names.push_back(name.empty() ? "E" + TrimBlanks(sensor.GetString("number")) : name);
        }
        if (names.size() != channels)
            Fail("sensorLayout.xml lists " + std::to_string(names.size()) + " EEG sensors; the EEG signal holds " +
                 std::to_string(channels) + " channels.");
    }
    for (size_t c = 0; c < channels; ++c) {
        const int chan = static_cast<int>(c);
        DescribeChannel(chan, names.empty() ? "E" + std::to_string(c + 1) : names[c],
                        chan == reference ? kChanEEG | kChanReference : kChanEEG, "V",
                        static_cast<float>(m_gains[c]));
    }
    SetReferenceChannel(reference);
}

void CEGI::DescribePns()
{
    if (!m_pns.channels)
        return;
    ecXml set;
    std::vector<ecXml> sensors;
    if (LoadXml(set, Path("pnsSet.xml")))
        sensors = set.Sub("sensors").Children("sensor");
    if (sensors.size() != static_cast<size_t>(m_pns.channels))
        Fail("pnsSet.xml names " + std::to_string(sensors.size()) + " sensors; the PNS signal holds " +
             std::to_string(m_pns.channels) + " channels.");
    for (int c = 0; c < m_pns.channels; ++c) {
        const ecXml& sensor = sensors[static_cast<size_t>(c)];
        const std::string unit = TrimBlanks(sensor.GetString("unit"));
        const bool microvolts = unit == "uV";
        m_gains.push_back(microvolts ? 1e-6 : 1.0);
        DescribeChannel(m_eeg.channels + c, TrimBlanks(sensor.GetString("name")), 0, microvolts ? "V" : unit,
                        static_cast<float>(m_gains.back()));
    }
}

// The engine's segments are pieces of at most kChunkSlices of a block, which DecodeSegment
// gathers from both signal files into channel-major runs of m_chunkStride floats.
void CEGI::DescribeLayout()
{
    m_chunks.clear();
    m_chunkStride = 1;
    ecDataLayout layout =
        ecDataLayout::Vectorized(ecSampleType::Float32, false, GetNumChans(), 0, m_blockFirstSlice.back());
    for (size_t b = 0; b < m_eeg.blocks.size(); ++b)
        for (long long first = 0; first < BlockSamples(b); first += kChunkSlices) {
            const long long count = std::min(kChunkSlices, BlockSamples(b) - first);
            m_chunks.push_back({b, first, count});
            m_chunkStride = std::max(m_chunkStride, count);
            layout.segmentTable.push_back(static_cast<long long>(m_chunks.size() - 1));
            layout.segmentFirstSlices.push_back(m_blockFirstSlice[b] + first);
            layout.segmentLengths.push_back(count);
        }
    layout.decodedSegments = true;
    for (int c = 0; c < GetNumChans(); ++c) {
        layout.channels[static_cast<size_t>(c)].offset = 4 * c * m_chunkStride;
        layout.channels[static_cast<size_t>(c)].stride = 4;
        layout.SetConversion(c, m_gains[static_cast<size_t>(c)], 0);
    }
    Engine().SetLayout(std::move(layout));
    m_decodedChunk = -1;
}

const uint8_t* CEGI::DecodeSegment(long long segment)
{
    if (segment == m_decodedChunk)
        return m_decoded.data();
    const Chunk& chunk = m_chunks[static_cast<size_t>(segment)];
    m_decoded.resize(static_cast<size_t>(4 * m_chunkStride * GetNumChans()));
    uint8_t* out = m_decoded.data();
    for (const Stream* s : {&m_eeg, &m_pns}) {
        FILE* fp = s == &m_eeg ? GetInputFilePointer() : m_pnsFile.get();
        if (!s->channels)
            continue;
        const Block& block = s->blocks[chunk.block];
        for (long long offset : s->headers[block.header].offsets) {
            const size_t bytes = static_cast<size_t>(4 * chunk.count);
            if (ReadAt(fp, block.dataStart + offset + 4 * chunk.first, out, bytes) != bytes)
                return nullptr;
            out += 4 * m_chunkStride;
        }
    }
    m_decodedChunk = segment;
    return m_decoded.data();
}

// The slice of the stored timeline at `us` after the start: the first slice after a pause for a
// time in it, -1 after the last stored sample.
long long CEGI::SliceAt(long long us) const
{
    for (const Epoch& e : m_epochs) {
        if (us < e.beginUs)
            return e.firstSlice;
        const long double into = static_cast<long double>(us - e.beginUs) * m_eeg.rate / 1e6L;
        if (into < e.slices)
            return e.firstSlice + static_cast<long long>(into);
    }
    return -1;
}

void CEGI::ReadEvents()
{
    m_events.clear();
    if (m_epochs.size() > 1 || m_segmented)
        for (const Epoch& e : m_epochs)
            m_events.push_back(SegmentBoundaryEvent(static_cast<long>(e.firstSlice), e.category));
    std::vector<std::string> tracks, codes;
    if (DIR* d = opendir(m_folder.c_str())) {
        while (dirent* entry = readdir(d)) {
            const std::string name = entry->d_name;
            if (name.rfind("Events_", 0) == 0 && name.size() > 11 && name.compare(name.size() - 4, 4, ".xml") == 0)
                tracks.push_back(name);
        }
        closedir(d);
    }
    std::sort(tracks.begin(), tracks.end());
    for (const std::string& track : tracks) {
        ecXml xml;
        if (!LoadXml(xml, Path(track)))
            Fail(track + " is no readable XML.");
        for (const ecXml& event : xml.Children("event")) {
            long long at = 0, duration = 0;
            if (!ParseTime(event.GetString("beginTime"), at) ||
                (event.TagExists("duration") && (!Integer(event, "duration", duration) || duration < 0)))
                Fail(track + ": an event with beginTime \"" + TrimBlanks(event.GetString("beginTime")) + "\" and duration \"" +
                     TrimBlanks(event.GetString("duration")) + "\".");
            const long long slice = SliceAt(at - m_startUs);
            if (slice < 0)
                continue;
            const std::string code = TrimBlanks(event.GetString("code")), label = TrimBlanks(event.GetString("label"));
            const size_t rank = std::find(codes.begin(), codes.end(), code) - codes.begin();
            if (rank == codes.size())
                codes.push_back(code);
            const long double slices = static_cast<long double>(duration) * m_eeg.rate / 1e9L;
            const long long last = m_blockFirstSlice.back() - 1;
            m_events.push_back(MarkerEvent(static_cast<long>(slice), label.empty() ? code : code + ":" + label,
                                           static_cast<int>(rank + 1),
                                           static_cast<long>(std::min<long double>(slices, last - slice))));
        }
    }
}

int CEGI::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "CEGI");
    if (ReadRows(data, first, n) != n)
        throw ecError("[CEGI::ReadData] Error in reading the signal files.", 1, 0, -1, -1);
    return static_cast<int>(n);
}

int CEGI::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    for (const ecEvent& e : m_events)
        events->AppendOneEvent(e);
    return static_cast<int>(m_events.size());
}
