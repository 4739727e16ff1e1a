#include "filelib/readers/ANT.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "companion/ByteCursor.h"
#include "companion/Units.h"
#include "companion/Utility.h"

namespace {

constexpr long long kMaxEventFileBytes = 64LL << 20;
// A compressed sample takes at least one bit: a block decodes to at most 32 times its bytes.
constexpr long long kDecodedPerFileByte = 32;

// Reads bits most significant first from a channel's compressed run, never past its end.
class BitReader {
public:
    BitReader(const uint8_t* p, size_t size, long long bit) : m_p(p), m_size(size), m_pos(bit) {}
    // `bits` (1..32) as an unsigned number; false when the run ends before them.
    bool Take(int bits, uint32_t& out)
    {
        if (m_pos + bits > static_cast<long long>(m_size) * 8)
            return false;
        const size_t byte = static_cast<size_t>(m_pos >> 3);
        uint64_t w = 0;
        if (byte + 8 <= m_size) {
            w = LoadU64BE(m_p + byte);
        } else {
            for (size_t i = 0; i < 8; ++i)
                w = (w << 8) | (byte + i < m_size ? m_p[byte + i] : 0u);
        }
        out = static_cast<uint32_t>((w << (m_pos & 7)) >> (64 - bits));
        m_pos += bits;
        return true;
    }
    bool TakeSigned(int bits, int32_t& out)
    {
        uint32_t u = 0;
        if (!Take(bits, u))
            return false;
        out = bits == 32 ? static_cast<int32_t>(u) : static_cast<int32_t>(u << (32 - bits)) >> (32 - bits);
        return true;
    }
    size_t BytesUsed() const { return static_cast<size_t>((m_pos + 7) >> 3); }

private:
    const uint8_t* m_p;
    size_t m_size;
    long long m_pos;
};

int32_t Add(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b)); }
int32_t Sub(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b)); }

// One channel's run of n samples at `in` into out; `previous` is the channel decoded before it
// (zeros for the first). Returns the bytes the run took, 0 when it is malformed.
size_t DecodeChannel(const uint8_t* in, size_t size, long long n, const int32_t* previous, int32_t* out,
                     std::string& why)
{
    if (size < 1) {
        why = "a channel's run is missing";
        return 0;
    }
    const int method = in[0] >> 4;
    const bool wide = (method & 8) != 0;
    BitReader bits(in, size, 8);
    if ((method & 7) == 0) {  // plain 16- or 32-bit numbers
        for (long long s = 0; s < n; ++s)
            if (!bits.TakeSigned(wide ? 32 : 16, out[s])) {
                why = "a channel's run ends early";
                return 0;
            }
        return bits.BytesUsed();
    }
    if ((method & 7) > 3) {
        why = "unknown compression method " + std::to_string(method);
        return 0;
    }
    uint32_t width = 0, exceptionWidth = 0;
    int32_t first = 0;
    BitReader head(in, size, 4);
    if (!head.Take(wide ? 6 : 4, width) || !head.Take(wide ? 6 : 4, exceptionWidth) ||
        !head.TakeSigned(wide ? 32 : 16, first)) {
        why = "a channel's run ends early";
        return 0;
    }
    if (!wide) {  // 16 is stored as 0
        width = width ? width : 16;
        exceptionWidth = exceptionWidth ? exceptionWidth : 16;
    }
    const bool exceptions = width != exceptionWidth;
    if (width < 1 || width > 32 || (exceptions && (exceptionWidth < 1 || exceptionWidth > 32))) {
        why = "bit width " + std::to_string(width) + "/" + std::to_string(exceptionWidth) + " beyond 1..32";
        return 0;
    }
    const int32_t marker = static_cast<int32_t>(0u - (1u << (width - 1)));
    BitReader body(in, size, wide ? 48 : 28);
    out[0] = first;
    for (long long s = 1; s < n; ++s) {
        int32_t r = 0;
        if (!body.TakeSigned(static_cast<int>(width), r) ||
            (exceptions && r == marker && !body.TakeSigned(static_cast<int>(exceptionWidth), r))) {
            why = "a channel's run ends early";
            return 0;
        }
        switch (method & 7) {
        case 1: out[s] = Add(out[s - 1], r); break;
        case 2: out[s] = s == 1 ? Add(out[0], r) : Add(Sub(Add(out[s - 1], out[s - 1]), out[s - 2]), r); break;
        default: out[s] = Add(Add(out[s - 1], Sub(previous[s], previous[s - 1])), r); break;
        }
    }
    return std::max<size_t>(body.BytesUsed(), wide ? 6 : 4);
}

std::string Trimmed(const std::string& s) { return TrimBlanks(s); }

// Whitespace-separated words of a line.
std::vector<std::string> Words(const std::string& line)
{
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string w; in >> w;)
        out.push_back(w);
    return out;
}

// "YYYY-MM-DD hh:mm:ss.mmm" (UTC) of an OLE day number (days since 1899-12-30) plus seconds.
std::string DateText(double day, double seconds)
{
    const double total = std::floor(day) * 86400.0 + std::round((day - std::floor(day)) * 86400.0) + seconds;
    long long ms = std::llround(total * 1000.0);
    long long days = ms / 86400000 - 25569 + 719468;  // 1970-01-01, then days since 0000-03-01
    ms %= 86400000;
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const long long doe = days - era * 146097;
    const long long yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const long long doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const long long mp = (5 * doy + 2) / 153;
    const long long d = doy - (153 * mp + 2) / 5 + 1, m = mp < 10 ? mp + 3 : mp - 9;
    const long long y = yoe + era * 400 + (m <= 2);
    char text[64];
    std::snprintf(text, sizeof text, "%04lld-%02lld-%02lld %02lld:%02lld:%02lld.%03lld", y, m, d, ms / 3600000,
                  ms / 60000 % 60, ms / 1000 % 60, ms % 1000);
    return text;
}

// The binary event file: a serialised library of event objects.
class EventFileCursor {
public:
    explicit EventFileCursor(const std::vector<uint8_t>& bytes) : m_c(bytes.data(), bytes.size()) {}
    ByteCursor& c() { return m_c; }
    std::string Text()
    {
        uint64_t n = m_c.next_u8();
        if (n == 0xFF) {
            n = m_c.next_u16le();
            if (n == 0xFFFF) {
                n = m_c.next_u32le();
                if (n == 0xFFFFFFFFu)
                    n = static_cast<uint64_t>(m_c.next_u32le()) | static_cast<uint64_t>(m_c.next_u32le()) << 32;
            }
        }
        if (n > m_c.remaining())
            throw ecError("text longer than the file", 1, 0, -1, -1);
        return m_c.next_str(static_cast<size_t>(n));
    }
    std::string ClassName()
    {
        const int32_t tag = m_c.next_i32le();
        if (tag == 0)
            return "";
        if (tag != -1)
            throw ecError("class reference " + std::to_string(tag) + " is not supported", 1, 0, -1, -1);
        return Text();
    }
    // A variant's scalar part; returns its type.
    uint16_t Scalar()
    {
        const uint16_t type = m_c.next_u16le();
        const int base = type & 0xFFF;
        if ((type & 0x6000) != 0)
            return type;
        static const int widths[] = {0, 0, 2, 4, 4, 8};
        if (base <= 5)
            m_c.skip(static_cast<size_t>(widths[base]));
        else if (base == 8)
            Skip(2 * static_cast<uint64_t>(m_c.next_u32le()));
        else
            throw ecError("variant type " + std::to_string(type) + " is not supported", 1, 0, -1, -1);
        return type;
    }
    void Variant()
    {
        if ((Scalar() & 0x6000) == 0)
            return;
        const uint16_t element = Scalar() & 0xFFF;
        static const int widths[] = {0, 0, 2, 4, 4, 8};
        if (element < 2 || element > 5)
            throw ecError("array of variant type " + std::to_string(element) + " is not supported", 1, 0, -1, -1);
        Skip(static_cast<uint64_t>(m_c.next_u32le()) * static_cast<uint64_t>(widths[element]));
    }
    void Skip(uint64_t n)
    {
        if (n > m_c.remaining())
            throw ecError("field longer than the file", 1, 0, -1, -1);
        m_c.skip(static_cast<size_t>(n));
    }

private:
    ByteCursor m_c;
};

struct FileEvent {
    std::string name, description;
    double duration = 0, day = 0, seconds = 0;
};

// One event object of class `cls` in a file of format `version`.
FileEvent ReadFileEvent(EventFileCursor& in, const std::string& cls, int32_t version)
{
    ByteCursor& c = in.c();
    FileEvent e;
    c.skip(4 + 16);  // visible id, GUID
    in.ClassName();
    e.name = in.Text();
    if (version >= 78)
        in.Text();  // user-visible name
    c.skip(4 + 4 + 1);  // type, state, original
    e.duration = c.f64le(c.tell());
    c.skip(16);  // duration, duration offset
    e.day = c.f64le(c.tell());
    e.seconds = c.f64le(c.tell() + 8);
    c.skip(16);
    if (version >= 11 && version < 19)
        throw ecError("event file version " + std::to_string(version) + " is not supported", 1, 0, -1, -1);
    if (version >= 19) {
        const int32_t descriptors = c.next_i32le();
        for (int32_t k = 0; k < descriptors; ++k) {
            in.Text();
            in.Variant();
            in.Text();
        }
    }
    if (cls == "class dcEpochEvent_c") {
        if (version < 33)
            c.skip(4);
    } else if (cls == "class dcEventMarker_c") {
        in.Text();  // active and reference channel
        in.Text();
        e.description = in.Text();
        if (version >= 35)
            c.skip(version >= 103 ? 5 : 2);  // show amplitude, show duration
    } else if (cls == "class dcArtefactEvent_c") {
        in.Text();
        in.Text();
        if (version >= 174)
            e.description = in.Text();
    } else {
        throw ecError("event class '" + cls + "' is not supported", 1, 0, -1, -1);
    }
    return e;
}

int CodeOf(const std::string& text)
{
    long long code = 0;
    return ParseInteger(text, code) && code >= INT_MIN && code <= INT_MAX ? static_cast<int>(code) : 0;
}

}  // namespace

ANT::ANT(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void ANT::Fail(const std::string& method, const std::string& text) { FailClosing("ANT::" + method, text); }

void ANT::Initialize(int)
{
    const std::string name = GetInputFileName();
    FILE* fp = OpenInputFile(name);
    if (!fp)
        Fail("Initialize", "Cannot open file: " + name);
    const long long fileSize = FileLength(fp);
    uint8_t head[16] = {};
    const size_t got = ReadAt(fp, 0, head, sizeof head);
    const bool riff = got >= 12 && std::memcmp(head, "RIFF", 4) == 0 && std::memcmp(head + 8, "CNT ", 4) == 0;
    const bool rf64 = got >= 16 && ((std::memcmp(head, "RF64", 4) == 0 && std::memcmp(head + 12, "CNT ", 4) == 0) ||
                                    (std::memcmp(head, "RIFF", 4) == 0 && std::memcmp(head + 12, "CNTX", 4) == 0));
    if (!riff && !rf64)
        Fail("Initialize", "Not an ANT RIFF/RF64 CNT file: " + name);
    SetFileMFR(kMfrANT);
    m_width = riff ? 4 : 8;
    ReadChunks(fp, fileSize);
    ParseHeader(ChunkBytes(m_eeph));
    ReadChannelOrder();
    ReadBlockTable();
    ReadStart();
    const long long blockBytes = std::min(m_blockSlices, std::max(1LL, m_samples)) * GetNumChans() * 4;
    CheckHeaderSize(blockBytes, fileSize, kDecodedPerFileByte, "[ANT::Initialize]");
    SetContinuousTimeBase(m_rate, m_samples);
    DescribeLayout();
    m_current = -1;
}

std::vector<ANT::Chunk> ANT::ListChunks(FILE* fp, long long from, long long end, long long fileSize)
{
    std::vector<Chunk> out;
    const long long header = 4 + m_width;
    if (end > fileSize)
        end = fileSize;  // a container size beyond the file: its chunks are checked one by one
    for (long long at = from; at + header <= end;) {
        uint8_t h[12] = {};
        if (ReadAt(fp, at, h, static_cast<size_t>(header)) != static_cast<size_t>(header))
            Fail("Initialize", "Cannot read the chunk header at " + std::to_string(at) + ".");
        const ByteCursor c(h, sizeof h);
        const uint64_t size = m_width == 4 ? c.u32le(4) : c.u64le(4);
        if (size > static_cast<uint64_t>(fileSize - at - header))
            Fail("Initialize", "Chunk '" + c.str(0, 4) + "' at " + std::to_string(at) + " runs past the end of the file.");
        Chunk chunk{std::string(reinterpret_cast<const char*>(h), 4), at + header, static_cast<long long>(size)};
        out.push_back(chunk);
        at = chunk.start + chunk.size + (chunk.size & 1);
    }
    return out;
}

void ANT::ReadChunks(FILE* fp, long long fileSize)
{
    const long long top = 4 + m_width + 4;
    for (const Chunk& c : ListChunks(fp, top, fileSize, fileSize)) {
        if (c.id == "eeph")
            m_eeph = c;
        else if (c.id == "evt ")
            m_evt = c;
        else if (c.id == "info")
            m_info = c;
        uint8_t type[4] = {};
        if (c.id != "LIST" || c.size < 4 || ReadAt(fp, c.start, type, 4) != 4 || std::memcmp(type, "raw3", 4) != 0)
            continue;
        for (const Chunk& s : ListChunks(fp, c.start + 4, c.start + c.size, fileSize)) {
            if (s.id == "chan")
                m_chan = s;
            else if (s.id == "data")
                m_data = s;
            else if (s.id == "ep  ")
                m_ep = s;
        }
    }
    for (const Chunk* c : {&m_eeph, &m_chan, &m_data, &m_ep})
        if (c->start < 0)
            Fail("Initialize", std::string("The file has no '") + (c == &m_eeph ? "eeph" : c == &m_chan ? "chan" : c == &m_data ? "data" : "ep") +
                                   "' chunk.");
}

std::string ANT::ChunkBytes(const Chunk& c)
{
    std::string bytes(static_cast<size_t>(c.size), '\0');
    if (ReadAt(GetInputFilePointer(), c.start, bytes.data(), bytes.size()) != bytes.size())
        throw ecError("[ANT::ChunkBytes] Cannot read chunk '" + c.id + "'.");
    return bytes;
}

void ANT::ParseHeader(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!Trimmed(line).empty() && Trimmed(line)[0] != ';')
            lines.push_back(Trimmed(line));
    long long channels = -1;
    bool haveRate = false, haveSamples = false;
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        if (lines[i] == "[Sampling Rate]")
            haveRate = ParseReal(lines[i + 1], m_rate);
        else if (lines[i] == "[Samples]")
            haveSamples = ParseInteger(lines[i + 1], m_samples);
        else if (lines[i] == "[Channels]" && !ParseInteger(lines[i + 1], channels))
            channels = -1;
        if (lines[i] != "[Basic Channel Data]")
            continue;
        if (channels < 1 || channels > static_cast<long long>(lines.size() - i - 1))
            Fail("Initialize", "The header lists fewer channels than [Channels] declares.");
        SetNumChans(static_cast<int>(channels));
        m_gains.assign(static_cast<size_t>(channels), 0);
        for (int c = 0; c < channels; ++c) {
            const std::vector<std::string> w = Words(lines[i + 1 + static_cast<size_t>(c)]);
            double calibration = 0, scale = 0;
            if (w.size() < 4 || !ParseReal(w[1], calibration) || !ParseReal(w[2], scale))
                Fail("Initialize", "Invalid channel line '" + lines[i + 1 + static_cast<size_t>(c)] + "'.");
            const double volts = VoltsPerUnit(w[3]);
            m_gains[static_cast<size_t>(c)] = calibration * scale * (volts > 0 ? volts : 1.0);
            DescribeChannel(c, w[0], volts > 0 ? kChanEEG : 0, volts > 0 ? "V" : w[3],
                            static_cast<float>(m_gains[static_cast<size_t>(c)]));
        }
        i += static_cast<size_t>(channels);
    }
    if (!haveRate || !(m_rate > 0) || !std::isfinite(static_cast<float>(m_rate)))
        Fail("Initialize", "The header gives no valid [Sampling Rate].");
    if (!haveSamples || m_samples < 0 || m_samples > INT_MAX)
        Fail("Initialize", "The header gives no valid [Samples].");
    if (m_gains.empty())
        Fail("Initialize", "The header has no [Basic Channel Data].");
}

void ANT::ReadChannelOrder()
{
    const int channels = GetNumChans();
    if (m_chan.size != 2LL * channels)
        Fail("Initialize", "The channel order lists " + std::to_string(m_chan.size / 2) + " channels; the header " +
                               std::to_string(channels) + ".");
    const std::string bytes = ChunkBytes(m_chan);
    const ByteCursor c(bytes.data(), bytes.size());
    std::vector<bool> seen(static_cast<size_t>(channels), false);
    m_order.clear();
    for (int k = 0; k < channels; ++k) {
        const int chan = c.i16le(2 * static_cast<size_t>(k));
        if (chan < 0 || chan >= channels || seen[static_cast<size_t>(chan)])
            Fail("Initialize", "The channel order is not a permutation of the channels.");
        seen[static_cast<size_t>(chan)] = true;
        m_order.push_back(chan);
    }
}

void ANT::ReadBlockTable()
{
    if (m_ep.size < m_width)
        Fail("Initialize", "The epoch table is empty.");
    const std::string bytes = ChunkBytes(m_ep);
    const ByteCursor c(bytes.data(), bytes.size());
    auto entry = [&](size_t k) { return m_width == 4 ? c.u32le(k * 4) : c.u64le(k * 8); };
    const uint64_t length = entry(0);
    if (length < 1 || length > INT_MAX)
        Fail("Initialize", "The epoch table gives " + std::to_string(length) + " samples per block.");
    m_blockSlices = static_cast<long long>(length);
    const long long needed = (m_samples + m_blockSlices - 1) / m_blockSlices;
    const long long listed = m_ep.size / m_width - 1;
    if (listed < needed)
        Fail("Initialize", "The epoch table lists " + std::to_string(listed) + " blocks; the data need " +
                               std::to_string(needed) + ".");
    m_blocks.clear();
    for (long long k = 0; k <= needed; ++k) {
        const uint64_t offset = k < listed ? entry(static_cast<size_t>(k + 1)) : static_cast<uint64_t>(m_data.size);
        if (offset > static_cast<uint64_t>(m_data.size) || (!m_blocks.empty() && m_data.start + static_cast<long long>(offset) < m_blocks.back()))
            Fail("Initialize", "Block " + std::to_string(k) + " starts at " + std::to_string(offset) +
                                   ", outside the data chunk or before the block before it.");
        m_blocks.push_back(m_data.start + static_cast<long long>(offset));
    }
}

void ANT::ReadStart()
{
    m_hasStart = false;
    if (m_info.start < 0)
        return;
    std::vector<std::string> lines;
    std::istringstream in(ChunkBytes(m_info));
    for (std::string line; std::getline(in, line);)
        lines.push_back(Trimmed(line));
    bool day = false, seconds = false;
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        if (lines[i] == "[StartDate]")
            day = ParseReal(lines[i + 1], m_startDay);
        else if (lines[i] == "[StartFraction]")
            seconds = ParseReal(lines[i + 1], m_startSeconds);
    }
    m_hasStart = day && std::fabs(m_startDay) < 1e7;
    if (!seconds)
        m_startSeconds = 0;
    if (m_hasStart) {
        const std::string start = DateText(m_startDay, m_startSeconds);
        m_recordingInfo.date = start.substr(0, 10);
        m_recordingInfo.time = start.substr(11);
    }
}

// Each block is a segment the reader decodes into one int32 run per channel, m_blockSlices apart.
void ANT::DescribeLayout()
{
    const int channels = GetNumChans();
    ecDataLayout layout = ecDataLayout::Vectorized(ecSampleType::Int32, !HostIsLittleEndian(), channels, 0, m_samples);
    layout.decodedSegments = true;
    layout.segmentSlices = m_blockSlices;
    for (size_t k = 0; k + 1 < m_blocks.size(); ++k) {
        layout.segmentTable.push_back(m_blocks[k]);
        layout.segmentFirstSlices.push_back(static_cast<long long>(k) * m_blockSlices);
    }
    for (int c = 0; c < channels; ++c) {
        layout.channels[static_cast<size_t>(c)].offset = c * std::min(m_blockSlices, m_samples) * 4;
        layout.SetConversion(c, m_gains[static_cast<size_t>(c)], 0);
    }
    Engine().SetLayout(std::move(layout));
}

const uint8_t* ANT::DecodeSegment(long long segment)
{
    if (segment == m_current)
        return reinterpret_cast<const uint8_t*>(m_decoded.data());
    if (segment < 0 || segment + 1 >= static_cast<long long>(m_blocks.size()))
        return nullptr;
    m_current = -1;
    const size_t k = static_cast<size_t>(segment);
    m_packed.resize(static_cast<size_t>(m_blocks[k + 1] - m_blocks[k]));
    if (ReadAt(GetInputFilePointer(), m_blocks[k], m_packed.data(), m_packed.size()) != m_packed.size())
        throw ecError("[ANT::ReadData] Cannot read block " + std::to_string(segment) + ".");
    const long long run = std::min(m_blockSlices, m_samples);
    const long long n = std::min(m_blockSlices, m_samples - segment * m_blockSlices);
    m_decoded.assign(static_cast<size_t>(run * GetNumChans()), 0);
    const std::vector<int32_t> zeros(static_cast<size_t>(n), 0);
    const int32_t* previous = zeros.data();
    size_t at = 0;
    for (int chan : m_order) {
        int32_t* out = m_decoded.data() + static_cast<size_t>(chan) * static_cast<size_t>(run);
        std::string why;
        const size_t used = DecodeChannel(m_packed.data() + at, m_packed.size() - at, n, previous, out, why);
        if (used == 0)
            throw ecError("[ANT::ReadData] Block " + std::to_string(segment) + ": " + why + ".");
        at += used;
        previous = out;
    }
    m_current = segment;
    return reinterpret_cast<const uint8_t*>(m_decoded.data());
}

int ANT::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "ANT");
    if (ReadRows(data, first, n) != n)
        throw ecError("[ANT::ReadData] Cannot read the samples.");
    return static_cast<int>(n);
}

void ANT::AppendTriggers(std::vector<ecEvent>& out)
{
    if (m_evt.start < 0)
        return;
    const std::string bytes = ChunkBytes(m_evt);
    const size_t entry = static_cast<size_t>(m_width) + 8;
    const ByteCursor c(bytes.data(), bytes.size());
    for (size_t at = 0; at + entry <= bytes.size(); at += entry) {
        const uint64_t sample = m_width == 4 ? c.u32le(at) : c.u64le(at);
        const std::string code = Trimmed(c.str(at + static_cast<size_t>(m_width), 8));
        if (sample <= static_cast<uint64_t>(m_samples))
            out.push_back(MarkerEvent(static_cast<long>(sample), code, CodeOf(code)));
    }
}

void ANT::AppendEventFile(std::vector<ecEvent>& out)
{
    const std::string path = GetFileNameNoExtension(GetInputFileName()) + ".evt";
    FILE* fp = std::fopen(path.c_str(), "rb");
    if (!fp || !m_hasStart) {
        if (fp)
            std::fclose(fp);
        return;
    }
    const long long size = FileLength(fp);
    std::vector<uint8_t> bytes(static_cast<size_t>(std::clamp(size, 0LL, kMaxEventFileBytes)));
    const bool whole = size <= kMaxEventFileBytes && ReadAt(fp, 0, bytes.data(), bytes.size()) == bytes.size();
    std::fclose(fp);
    if (!whole)
        throw ecError("[ANT::InitialEventList] Cannot read the event file " + path + ".");
    try {
        EventFileCursor in(bytes);
        const int32_t version = in.c().i32le(12);
        in.c().seek(24);
        if (in.ClassName() != "class dcEventsLibrary_c")
            return;
        in.Text();  // library name
        const uint32_t count = in.c().next_u32le();
        for (uint32_t k = 0; k < count; ++k) {
            const FileEvent e = ReadFileEvent(in, in.ClassName(), version);
            const double t = (e.day - m_startDay) * 86400.0 + (e.seconds - m_startSeconds);
            const double slice = std::round(t * m_rate);
            if (!(slice >= 0 && slice <= static_cast<double>(m_samples)))
                continue;
            const std::string label = e.description.empty() ? e.name : e.description;
            const double duration = std::isfinite(e.duration) ? std::clamp(std::round(e.duration * m_rate), 0.0, 1e9) : 0;
            out.push_back(MarkerEvent(static_cast<long>(slice), label, CodeOf(label), static_cast<long>(duration)));
        }
    } catch (const ecError& e) {
        throw ecError("[ANT::InitialEventList] The event file " + path + " is damaged: " + e.what());
    }
}

int ANT::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    std::vector<ecEvent> found;
    if (m_hasStart)
        found.push_back(SegmentBoundaryEvent(0, "Start " + DateText(m_startDay, m_startSeconds)));
    AppendTriggers(found);
    AppendEventFile(found);
    for (const ecEvent& e : found)
        events->AppendOneEvent(e);
    return static_cast<int>(found.size());
}
