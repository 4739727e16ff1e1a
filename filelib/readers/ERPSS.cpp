#include "filelib/readers/ERPSS.h"

#include <algorithm>
#include <climits>
#include <new>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"

namespace {

constexpr size_t kRawHeaderBytes = 512;
constexpr size_t kRecordHeaderBytes = 512;
constexpr uint16_t kMagic = 0x55AA;
constexpr uint16_t kMagicSwabbed = 0xAA55;
constexpr int kMaxEvents = 110;
constexpr size_t kEventSlots = 72;
constexpr uint16_t kPauseCode = 65535;
constexpr uint16_t kDeleteCode = 65534;

// A two's-complement number of `bits` bits.
int Signed(int value, int bits) { return (value & (1 << (bits - 1))) ? value - (1 << bits) : value; }

}  // namespace

ecERPSS::ecERPSS(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

ecFilebase* ecERPSS::GetpNewFilebase(const char* name)
{
    ecFilebase* reader = new (std::nothrow) ecERPSS(name);
    if (!reader)
        throw ecError("[ecERPSS::GetpNewFilebase] New operation failed", 1, 0, -1, -1);
    return reader;
}

void ecERPSS::Fail(const char* method, const std::string& text)
{
    throw ecError((std::string("[ecERPSS::") + method + "] " + text).c_str(), 1, 0, -1, -1);
}

uint16_t ecERPSS::Word(const std::vector<uint8_t>& bytes, size_t at) const
{
    const ByteCursor c(bytes.data(), bytes.size());
    return m_bSwabbed ? c.u16be(at) : c.u16le(at);
}

bool ecERPSS::IsValidRawHdr() const
{
    if (m_rawHeader.size() < kRawHeaderBytes)
        return false;
    const uint16_t magic = ByteCursor(m_rawHeader.data(), m_rawHeader.size()).u16le(0);
    const int channels = Word(m_rawHeader, 6);
    return (magic == kMagic || magic == kMagicSwabbed) && Word(m_rawHeader, 2) == 0xB0 && channels >= 1 &&
           channels <= 256;
}

bool ecERPSS::IsValidRecHdr(const std::vector<uint8_t>& recordHeader) const
{
    const ByteCursor c(recordHeader.data(), recordHeader.size());
    return c.u16le(0) == ByteCursor(m_rawHeader.data(), m_rawHeader.size()).u16le(0) &&
           Word(recordHeader, 2) == 0xF0 && (Word(recordHeader, 4) & 1) == (m_bCompressed ? 1 : 0);
}

void ecERPSS::Initialize(int)
{
    const std::string name = GetInputFileName();
    if (name.empty())
        Fail("Initialize", "The time series name is not set.");
    FILE* fp = OpenInputFile(name);
    if (!fp)
        Fail("Initialize", "Failed to open ERPSS time series file");
    m_fileSize = FileLength(fp);
    m_rawHeader.assign(kRawHeaderBytes, 0);
    if (ReadAt(fp, 0, m_rawHeader.data(), kRawHeaderBytes) != kRawHeaderBytes) {
        CloseInputFile();
        Fail("Initialize", "Failed to read ERPSS raw header in file");
    }
    const uint16_t magic = ByteCursor(m_rawHeader.data(), m_rawHeader.size()).u16le(0);
    m_bSwabbed = magic == kMagicSwabbed;
    if ((magic == kMagic || magic == kMagicSwabbed) && Word(m_rawHeader, 2) == 0xB0)
        SetFileMFR(kMfrERPSS);
    m_iChannels = Word(m_rawHeader, 6);
    m_iPoints = Word(m_rawHeader, 18);
    m_bCompressed = Word(m_rawHeader, 4) != 0;
    if (!IsValidRawHdr() || m_iPoints < 1) {
        CloseInputFile();
        Fail("Initialize", "Invalid ERPSS header: " + name);
    }
    // A compressed sample takes at least one nibble: a record decodes to at most 4 times its bytes.
    CheckHeaderSize(2LL * m_iPoints * m_iChannels, m_fileSize, 4, "[ecERPSS::Initialize]");
    try {
        m_psBuff.assign(static_cast<size_t>(m_iPoints) * m_iChannels, 0);
    } catch (const std::bad_alloc&) {
        Fail("Initialize", "Memory allocation failed (m_psBuff).");
    }
    try {
        m_psBuffComp.assign(static_cast<size_t>(m_iPoints) * m_iChannels, 0);
    } catch (const std::bad_alloc&) {
        Fail("Initialize", "Memory allocation failed (m_psBuffComp).");
    }
    SetRecordParams();
    std::vector<uint8_t> first(kRecordHeaderBytes);
    ReadAt(fp, m_records.front().offset, first.data(), first.size());
    const int period = Word(first, 40);
    if (period == 0) {
        CloseInputFile();
        Fail("Initialize", "Invalid ERPSS header: " + name);
    }
    SetNumChans(m_iChannels);
    SetSampleRate(static_cast<float>(period * 1e-6), 1);
    const Record& last = m_records.back();
    SetNumSlices(static_cast<int>(std::min<long long>(last.firstSlice + last.samples, INT_MAX)));
    DescribeLayout();
    SetRunType(kRunContinuous);
    SetNumEpochs(1);
    SetEpochSlices(GetNumSlices());
    SetValidEpochCnt(1);
}

void ecERPSS::SetRecordParams()
{
    SetRecordOffsets();
    m_iCurrentRecord = -1;
}

// Walks every record once: offsets, compressed sizes and sample counts. A record running past
// the end of the file ends the walk with the last whole record.
void ecERPSS::SetRecordOffsets()
{
    FILE* fp = GetInputFilePointer();
    if (!fp)
        Fail("SetRecordOffsets", "File has not been opened");
    m_records.clear();
    std::vector<uint8_t> header(kRecordHeaderBytes);
    const unsigned maxBytes = static_cast<unsigned>(m_iPoints) * static_cast<unsigned>(m_iChannels) * 2u;
    long long slice = 0;
    for (long long offset = kRawHeaderBytes; offset + static_cast<long long>(kRecordHeaderBytes) <= m_fileSize;) {
        if (ReadAt(fp, offset, header.data(), header.size()) != header.size())
            break;
        if (!IsValidRecHdr(header))
            Fail("SetRecordOffsets", "Invalid ERPSS record header encountered");
        const int samples = Word(header, 10);
        if (Word(header, 6) != m_iChannels || samples > m_iPoints)
            Fail("SetRecordOffsets", "Internal inconsistency (size mismatch)");
        const unsigned compressed = m_bCompressed ? Word(header, 22) * 2u : 0u;
        if (compressed > maxBytes)
            Fail("SetRecordOffsets", "Compressed record size exceeds maximum");
        const long long dataBytes = m_bCompressed ? compressed : static_cast<long long>(samples) * m_iChannels * 2;
        if (offset + static_cast<long long>(kRecordHeaderBytes) + dataBytes > m_fileSize)
            break;
        m_records.push_back({offset, compressed, samples, slice});
        slice += samples;
        offset += static_cast<long long>(kRecordHeaderBytes) + dataBytes;
    }
    if (m_records.empty())
        Fail("SetRecordOffsets", "Internal inconsistency (size mismatch)");
}

void ecERPSS::ReadRecord(int n)
{
    if (n == m_iCurrentRecord)
        return;
    if (n < 0 || m_records.empty() || n >= static_cast<int>(m_records.size()))
        Fail("ReadRecord", "Record number out of range");
    const Record& r = m_records[static_cast<size_t>(n)];
    FILE* fp = GetInputFilePointer();
    if (!SeekTo(fp, r.offset + static_cast<long long>(kRecordHeaderBytes)))
        Fail("ReadRecord", m_bCompressed ? "Failed to read compressed data" : "Failed to read uncompressed data");
    ++m_recordReads;
    m_iCurrentRecord = -1;  // until the record is whole
    std::vector<uint8_t> bytes;
    if (!m_bCompressed) {
        bytes.resize(static_cast<size_t>(r.samples) * m_iChannels * 2);
        if (std::fread(bytes.data(), 1, bytes.size(), fp) != bytes.size())
            Fail("ReadRecord", "Failed to read uncompressed data");
        std::fill(m_psBuff.begin(), m_psBuff.end(), 0);
        for (size_t i = 0; i < bytes.size() / 2; ++i)
            m_psBuff[i] = static_cast<int16_t>(LoadU16LE(&bytes[2 * i]));
    } else {
        if (r.compressedBytes > static_cast<unsigned>(m_iPoints) * m_iChannels * 2u)
            Fail("ReadRecord", "Invalid data size encountered");
        bytes.resize(r.compressedBytes);
        if (std::fread(bytes.data(), 1, bytes.size(), fp) != bytes.size())
            Fail("ReadRecord", "Failed to read compressed data");
        for (size_t i = 0; i < bytes.size() / 2; ++i)
            m_psBuffComp[i] = LoadU16LE(&bytes[2 * i]);
        Uncompress(static_cast<int>(bytes.size() / 2));
    }
    m_iCurrentRecord = n;
}

short ecERPSS::GetNextNibble()
{
    const uint16_t word = m_psBuffComp[static_cast<size_t>(m_iNibbleWord)];
    const short nibble = static_cast<short>((word >> ((3 - m_sNibblePos) * 4)) & 15);
    m_sNibblePos = static_cast<int16_t>((m_sNibblePos + 1) % 4);
    if (m_sNibblePos == 0)
        ++m_iNibbleWord;
    return nibble;
}

void ecERPSS::Uncompress(int compressedWords)
{
    m_iNibbleWord = 0;
    m_sNibblePos = 0;
    std::fill(m_psBuff.begin(), m_psBuff.end(), 0);
    const long total = static_cast<long>(m_iPoints) * m_iChannels;
    // Never read a nibble past the record's compressed words.
    auto next = [&]() -> int {
        if (m_iNibbleWord >= compressedWords)
            Fail("Uncompress", "Compressed data ended before the record was complete.");
        return GetNextNibble();
    };
    for (long s = 0; s < m_iPoints; ++s) {
        for (long c = 0; c < m_iChannels; ++c) {
            const long i = s * m_iChannels + c;
            const int n = next();
            if (n == 15)
                Fail("Uncompress", "Compressed data corrupt? (2)");
            if (n == 14) {
                const int a = next(), b = next(), d = next();
                if (i >= total)
                    Fail("Uncompress", "Out of bounds error (2)");
                m_psBuff[static_cast<size_t>(i)] = static_cast<int16_t>(Signed(a * 256 + b * 16 + d, 12));
                continue;
            }
            int delta = 0;
            if (n >= 8 && n <= 11)
                delta = Signed((n & 3) * 16 + next(), 6);
            else if (n == 12 || n == 13)
                delta = Signed(((n & 1) * 16 + next()) * 16 + next(), 9);
            else
                delta = Signed(n, 3);
            if (i - m_iChannels < 0 || i >= total)
                Fail("Uncompress", "Out of bounds error (1)");
            m_psBuff[static_cast<size_t>(i)] =
                static_cast<int16_t>(static_cast<uint16_t>(m_psBuff[static_cast<size_t>(i - m_iChannels)] + delta));
        }
    }
}

// Records are segments of unequal length: plain ones are read straight from the file,
// compressed ones through the record decoder (whose buffer holds host-order words).
void ecERPSS::DescribeLayout()
{
    ecDataLayout layout = ecDataLayout::Multiplexed(ecSampleType::Int16, m_bCompressed && !HostIsLittleEndian(),
                                                    m_iChannels, m_iChannels, 0, GetNumSlices());
    layout.exact = false;
    layout.decodedSegments = m_bCompressed;
    layout.segmentHeader = m_bCompressed ? 0 : static_cast<long long>(kRecordHeaderBytes);
    for (const Record& r : m_records) {
        layout.segmentTable.push_back(r.offset);
        layout.segmentFirstSlices.push_back(r.firstSlice);
    }
    Engine().SetLayout(std::move(layout));
}

const uint8_t* ecERPSS::DecodeSegment(long long segment)
{
    ReadRecord(static_cast<int>(segment));
    return reinterpret_cast<const uint8_t*>(m_psBuff.data());
}

int ecERPSS::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    if (m_bSwabbed)
        throw ecError("[ecERPSS::ReadData] Reading of 'swabbed' data has not been tested in this release.  Please "
                      "contact KVI for current status.",
                      1, 0, -1, -1);
    const long long n = PrepareBlock(data, first, count, "ecERPSS");
    if (ReadRows(data, first, n) != n)
        Fail("ReadRecord", "Failed to read uncompressed data");
    return static_cast<int>(n);
}

int ecERPSS::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    std::vector<uint8_t> header(kRecordHeaderBytes);
    std::vector<ecEvent> found;
    for (const Record& r : m_records) {
        if (ReadAt(GetInputFilePointer(), r.offset, header.data(), header.size()) != header.size())
            Fail("InitialEventList", "Inconsistent number of events");
        const int count = Word(header, 20);
        if (count > kMaxEvents)
            Fail("InitialEventList", "Inconsistent number of events");
        for (int k = 0; k < count; ++k) {
            const size_t slot = kEventSlots + 4 * static_cast<size_t>(k);
            const int offset = header[slot], condition = header[slot + 1];
            const uint16_t code = Word(header, slot + 2);
            if (offset >= r.samples)
                Fail("InitialEventList", "Inconsistent number of events");
            ecEvent e;
            e.SetEventName(code == kPauseCode    ? "PAUSE"
                           : code == kDeleteCode ? "DELETE"
                                                 : std::to_string(condition) + "-" + std::to_string(code));
            e.SetEventCode(code);
            e.SetKind(2);
            e.SetBegin(static_cast<long>(r.firstSlice + offset));
            e.SetEnd(e.GetBegin());
            found.push_back(e);
        }
    }
    for (const ecEvent& e : found)
        events->AppendOneEvent(e);
    return static_cast<int>(found.size());
}
