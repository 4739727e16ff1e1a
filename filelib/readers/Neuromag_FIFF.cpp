#include "filelib/readers/Neuromag_FIFF.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <tuple>
#include <numeric>

#include "companion/ByteCursor.h"
#include "companion/Utility.h"

namespace {

struct KindName {
    unsigned long kind;
    const char* name;
};

// In insertion order: lookups take the first match.
const KindName kKindNames[] = {
    {100, "FILE_ID"}, {101, "DIR_POINTER"}, {102, "DIR"}, {103, "BLOCK_ID"}, {104, "BLOCK_START"},
    {105, "BLOCK_END"}, {106, "FREE_LIST"}, {107, "FREE_BLOCK"}, {108, "NOP"}, {109, "PARENT_FILE_ID"},
    {110, "PARENT_BLOCK_ID"}, {111, "BLOCK_NAME"}, {112, "BLOCK_VERSION"}, {113, "CREATOR"}, {114, "MODIFIER"},
    {115, "REF_ROLE"}, {116, "REF_FILE_ID"}, {117, "REF_FILE_NUM"}, {118, "REF_FILE_NAME"}, {119, "<reserved>"},
    {120, "REF_BLOCK_ID"}, {150, "DACQ_PARS"}, {151, "DACQ_STIM"}, {200, "NCHAN"}, {201, "SFREQ"},
    {202, "DATA_PACK"}, {203, "CH_INFO"}, {204, "MEAS_DATE"}, {205, "SUBJECT"}, {206, "COMMENT"}, {207, "NAVE"},
    {208, "FIRST_SAMPLE"}, {209, "LAST_SAMPLE"}, {210, "ASPECT_KIND"}, {211, "REF_EVENT"}, {212, "EXPERIMENTER"},
    {213, "DIG_POINT"}, {214, "CH_POS"}, {215, "HPI_SLOPES"}, {216, "HPI_NCOIL"}, {217, "REQ_EVENT"},
    {218, "REQ_LIMIT"}, {219, "LOWPASS"}, {220, "BAD_CHS"}, {221, "ARTEF_REMOVAL"}, {222, "COORD_TRANS"},
    {223, "HIGHPASS"}, {224, "CH_CALS"}, {225, "HPI_BAD_CHS"}, {226, "HPI_CORR_COEFF"}, {227, "EVENT_COMMENT"},
    {228, "NO_SAMPLES"}, {229, "FIRST_TIME"}, {230, "SUBAVE_SIZE"}, {231, "SUBAVE_FIRST"}, {233, "NAME"},
    {234, "DIG_STRING"}, {235, "LINE_FREQ"}, {236, "HPI_COIL_FREQ"}, {237, "SIGNAL_CHANNEL"},
    {240, "HPI_COIL_MOMENTS"}, {241, "HPI_FIT_GOODNESS"}, {242, "HPI_FIT_GOOD_ACCEPT"}, {243, "HPI_FIT_GOOD_LIMIT"},
    {244, "HPI_FIT_DIST_LIMIT"}, {245, "HPI_COIL_NO"}, {246, "HPI_COILS_USED"}, {247, "HPI_DIGITIZATION_ORDER"},
    {250, "CH_SCAN_NO"}, {251, "CH_LOGICAL_NO"}, {252, "CH_KIND"}, {253, "CH_RANGE"}, {254, "CH_CAL"},
    {255, "CH_POS"}, {256, "CH_UNIT"}, {257, "CH_UNIT_MUL"}, {258, "CH_DACQ_NAME"}, {263, "SSS_FRAME"},
    {264, "SSS_JOB"}, {265, "SSS_ORIGIN"}, {266, "SSS_ORD_IN"}, {267, "SSS_ORD_OUT"}, {268, "SSS_NMAG"},
    {269, "SSS_COMPONENTS"}, {270, "SSS_CAL_CHANS"}, {271, "SSS_CAL_CORRS"}, {272, "SSS_ST_CORR"},
    {273, "SSS_BASE_IN"}, {274, "SSS_BASE_OUT"}, {275, "SSS_BASE_VIRT"}, {276, "SSS_NORM"}, {277, "SSS_ITERATE"},
    {300, "DATA_BUFFER"}, {301, "DATA_SKIP"}, {302, "EPOCH"}, {303, "DATA_SKIP_SAMP"}, {304, "DATA_BUFFER2"},
    {400, "SUBJ_ID"}, {401, "SUBJ_FIRST_NAME"}, {402, "SUBJ_MIDDLE_NAME"}, {403, "SUBJ_LAST_NAME"},
    {404, "SUBJ_BIRTH_DAY"}, {405, "SUBJ_SEX"}, {406, "SUBJ_HAND"}, {407, "SUBJ_WEIGHT"}, {408, "SUBJ_HEIGHT"},
    {409, "SUBJ_COMMENT"}, {410, "SUBJ_HIS_ID"}, {500, "PROJ_ID"}, {501, "PROJ_NAME"}, {502, "PROJ_AIM"},
    {503, "PROJ_PERSONS"}, {504, "PROJ_COMMENT"}, {600, "EVENT_CHANNELS"}, {601, "EVENT_LIST"},
    {602, "EVENT_CHANNEL"}, {603, "EVENT_BITS"}, {701, "SQUID_BIAS"}, {702, "SQUID_OFFSET"}, {703, "SQUID_GATE"},
    {800, "DECOUPLER_MATRIX"}, {1101, "REF_PATH"}, {3201, "SOURCE_DIPOLE"}, {3411, "PROJ_ITEM_KIND"},
    {3412, "PROJ_ITEM_TIME"}, {3413, "PROJ_ITEM_IGN_CHS"}, {3414, "PROJ_ITEM_NVEC"}, {3415, "PROJ_ITEM_VECTORS"},
    {3416, "PROJ_ITEM_DEFINITION"}, {3417, "PROJ_ITEM_CH_NAME_LIST"},
};

constexpr const char* kShortRead = "[ecNeuromag_FIFF::ReadUnsignedLong] Inconsistent offsets";
constexpr size_t kTagHeaderBytes = 16;
// Block kinds (the data of a BLOCK_START) and the flag of a matrix in a tag's type.
constexpr uint32_t kBlockMeasInfo = 101;
constexpr uint32_t kBlockEvoked = 104;
constexpr uint32_t kBlockAspect = 105;
constexpr uint32_t kBlockBads = 359;             // MNE-Python's bad-channels block
constexpr uint32_t kTagChannelNameList = 3502;  // its list of names
constexpr uint32_t kMatrixType = 0x40000000;

bool IsDataBuffer(const FIFF_TagRec& r) { return r.name == "DATA_BUFFER" || r.name == "DATA_BUFFER2"; }

[[noreturn]] void Fail(const std::string& text) { throw ecError(text.c_str(), 1, 0, -1, -1); }

// Decodes a fixed-layout record as the field-by-field reads would: an unsigned field that runs
// past the bytes read raises, a float field gives 0.
class Fields {
public:
    Fields(const std::vector<uint8_t>& bytes) : m_bytes(bytes) {}
    uint32_t u32(size_t at) const
    {
        if (at + 4 > m_bytes.size())
            Fail(kShortRead);
        return LoadU32BE(&m_bytes[at]);
    }
    float f32(size_t at) const { return at + 4 > m_bytes.size() ? 0.0f : BitsToFloat(LoadU32BE(&m_bytes[at])); }
    void floats(size_t at, float* out, int n) const
    {
        for (int i = 0; i < n; ++i)
            out[i] = f32(at + 4 * static_cast<size_t>(i));
    }

private:
    const std::vector<uint8_t>& m_bytes;
};

void DecodeChPos(const Fields& f, size_t at, FIFF_ChPos& pos)
{
    pos.coilType = f.u32(at);
    f.floats(at + 4, pos.r0, 3);
    f.floats(at + 16, pos.ex, 3);
    f.floats(at + 28, pos.ey, 3);
    f.floats(at + 40, pos.ez, 3);
}

int BytesOfType(uint32_t type)
{
    switch (type) {
    case 2: case 16: return 2;  // short, dau_pack16
    case 3: case 4: return 4;   // int, float
    case 5: return 8;           // double
    default: return 0;
    }
}

// The stored value of each DATA_BUFFER type (all big-endian).
template <typename Apply>
void WithDecoder(uint32_t type, Apply apply)
{
    switch (type) {
    case 2: case 16: return apply([](const uint8_t* p) { return static_cast<float>(static_cast<int16_t>(LoadU16BE(p))); });
    case 3: return apply([](const uint8_t* p) { return static_cast<float>(static_cast<int32_t>(LoadU32BE(p))); });
    case 4: return apply([](const uint8_t* p) { return BitsToFloat(LoadU32BE(p)); });
    default: return apply([](const uint8_t* p) { return static_cast<float>(BitsToDouble(LoadU64BE(p))); });
    }
}

}  // namespace

void FIFF_4Byte::reverse()
{
    std::swap(b[0], b[3]);
    std::swap(b[1], b[2]);
}

void FIFF_2Byte::swap() { std::swap(b[0], b[1]); }

std::string FIFF_ChPos::CoilType() const
{
    switch (coilType) {
    case 0: return "NONE";
    case 1: return "EEG";
    case 2: return "NM_122";
    case 3: return "NM_24";
    case 4: return "NM_MCG_AXIAL";
    case 200: return "DIPOLE";
    case 1000: return "MCG_42";
    case 2000: return "POINT_MAGNETOMETER";
    case 3011: return "VV_PLANAR_W";
    case 3012: return "VV_PLANAR_T1";
    case 3013: return "VV_PLANAR_T2";
    case 3014: return "VV_PLANAR_T3";
    case 3021: return "VV_MAG_W";
    case 3022: return "VV_MAG_T1";
    case 3023: return "VV_MAG_T2";
    case 3024: return "VV_MAG_T3";
    case 4001: return "MAGNES_MAG";
    case 4002: return "MAGNES_GRAD";
    default: return "UNKNOWN";
    }
}

std::string FIFF_ChInfo::Kind() const
{
    switch (kind) {
    case 1: return "MEG_CH";
    case 2: return "EEG_CH";
    case 3: return "STIM_CH";
    case 201: return "MCG_CH";
    case 202: return "EOG_CH";
    case 302: return "EMG_CH";
    case 402: return "ECG_CH";
    case 502: return "MISC_CH";
    case 602: return "RESP_CH";
    case 1000: return "DIPOLE_WAVE_CH";
    case 1001: return "GOODNESS_FIT_CH";
    default: return "UNKNOWN_CH";
    }
}

std::string FIFF_ChInfo::Name() const { return std::string(name, strnlen(name, sizeof name)); }

std::string FIFF_CoordTrans::Coord(bool fromFrame) const
{
    switch (fromFrame ? from : to) {
    case 1: return "DEVICE";
    case 2: return "ISOTRAK";
    case 3: return "HPI";
    case 4: return "HEAD";
    case 5: return "MRI";
    case 6: return "MRI_SLICE";
    case 7: return "MRI_DISPLAY";
    case 8: return "DICOM_DEVICE";
    case 9: return "IMAGING_DEVICE";
    case 100: return "TORSO";
    default: return "UNKNOWN";
    }
}

std::string FIFF_DigPoint::Kind() const
{
    switch (kind) {
    case 1: return "CARDINAL";
    case 2: return "HPI";
    case 3: return "EEG";
    case 4: return "EXTRA";
    default: return "UNKNOWN";
    }
}

ecNeuromag_FIFF::ecNeuromag_FIFF(const char* fileName)
{
    SetInputFileName(fileName ? fileName : "");
    for (const KindName& k : kKindNames)
        m_kindNames.emplace_back(k.name, k.kind);
}

unsigned long ecNeuromag_FIFF::ReadUnsignedLong()
{
    FILE* fp = GetInputFilePointer();
    const long long before = fp ? ftello(fp) : -1;
    uint8_t b[4];
    if (!fp || std::fread(b, 1, 4, fp) != 4 || ftello(fp) != before + 4)
        Fail(kShortRead);
    return LoadU32BE(b);
}

unsigned long ecNeuromag_FIFF::ReadUnsignedLong(const FIFF_TagRec& rec)
{
    if (!SeekTo(GetInputFilePointer(), rec.dataPos))
        Fail(kShortRead);
    return ReadUnsignedLong();
}

float ecNeuromag_FIFF::ReadFloat()
{
    FILE* fp = GetInputFilePointer();
    const long long before = fp ? ftello(fp) : -1;
    uint8_t b[4];
    if (!fp || std::fread(b, 1, 4, fp) != 4)
        return 0.0f;  // unlike ReadUnsignedLong, a short float read is not an error
    if (ftello(fp) != before + 4)
        Fail("[ecNeuromag_FIFF::ReadFloat] Inconsistent offsets");
    return BitsToFloat(LoadU32BE(b));
}

float ecNeuromag_FIFF::ReadFloat(const FIFF_TagRec& rec)
{
    if (!SeekTo(GetInputFilePointer(), rec.dataPos))
        return 0.0f;
    return ReadFloat();
}

std::string ecNeuromag_FIFF::IdentifyKind(unsigned long kind) const
{
    for (const auto& entry : m_kindNames)
        if (entry.second == kind)
            return entry.first;
    return kind < 6000 ? "Unsupported" : "";
}

// One 16-byte read per tag header, decoded in memory, with the observable behaviour of four
// word reads: an unknown kind of 6000 or more leaves the file just past the kind word.
bool ecNeuromag_FIFF::ReadTagRecord(FIFF_TagRec& rec)
{
    FILE* fp = GetInputFilePointer();
    const long long at = fp ? ftello(fp) : -1;
    uint8_t h[kTagHeaderBytes];
    const size_t got = fp ? std::fread(h, 1, sizeof h, fp) : 0;
    if (got < 4)
        Fail(kShortRead);
    rec.kind = LoadU32BE(h);
    rec.name = IdentifyKind(rec.kind);
    if (rec.name.empty()) {
        SeekTo(fp, at + 4);
        return false;
    }
    if (got < kTagHeaderBytes)
        Fail(kShortRead);
    rec.type = LoadU32BE(h + 4);
    rec.size = LoadU32BE(h + 8);
    rec.next = LoadU32BE(h + 12);
    rec.dataPos = at + static_cast<long long>(kTagHeaderBytes);
    // next is a 32-bit offset: 0xFFFFFFFF is -1 and cannot be sought, whatever the host.
    const long long target = rec.next != 0 ? static_cast<long long>(static_cast<int32_t>(rec.next))
                                           : rec.dataPos + static_cast<long long>(rec.size);
    return SeekTo(fp, target);
}

void ecNeuromag_FIFF::ReadAllTagRecords()
{
    m_directory.clear();
    m_cursor = 0;
    m_fileSize = FileLength(GetInputFilePointer());
    if (!SeekTo(GetInputFilePointer(), 0))
        Fail(kShortRead);
    // Every tag takes at least 16 bytes, so a chain with more tags than that loops on itself.
    const long long maxTags = m_fileSize / static_cast<long long>(kTagHeaderBytes) + 2;
    FIFF_TagRec rec;
    while (ReadTagRecord(rec)) {
        m_directory.push_back(rec);
        if (static_cast<long long>(m_directory.size()) > maxTags)
            Fail("[ecNeuromag_FIFF::ReadAllTagRecords] The tag chain of " + GetInputFileName() +
                 " loops back on itself.");
    }
    // Read once more from where the walk stopped (kept as the format's readers always did),
    // unless the walk stopped at the end of the file, as it does after a last tag without data.
    FILE* fp = GetInputFilePointer();
    if (ftello(fp) + 4 > m_fileSize)
        return;
    ReadTagRecord(rec);
    if (!rec.name.empty())
        m_directory.push_back(rec);
}

void ecNeuromag_FIFF::WriteTagRecords(const std::string& path) const
{
    FILE* out = std::fopen(path.c_str(), "w");
    if (!out)
        return;
    for (const FIFF_TagRec& r : m_directory)
        std::fprintf(out, "%25s %12u %12u %12u %12u %12lu\n", r.name.c_str(), r.kind, r.type, r.size, r.next,
                     static_cast<unsigned long>(r.dataPos));
    std::fclose(out);
}

unsigned long ecNeuromag_FIFF::Get(const std::string& name)
{
    unsigned long value = 0;
    for (const FIFF_TagRec& r : m_directory)
        if (r.name == name)
            value = ReadUnsignedLong(r);
    return value;
}

unsigned long ecNeuromag_FIFF::CountAfter(const std::string& name, const std::string& after) const
{
    const auto anchor = std::find_if(m_directory.begin(), m_directory.end(),
                                     [&](const FIFF_TagRec& r) { return r.name == after; });
    if (anchor == m_directory.end())
        return 0;
    return static_cast<unsigned long>(
        std::count_if(anchor + 1, m_directory.end(), [&](const FIFF_TagRec& r) { return r.name == name; }));
}

const FIFF_TagRec* ecNeuromag_FIFF::FindAfter(const std::string& name, const std::string& after, long n) const
{
    auto it = std::find_if(m_directory.begin(), m_directory.end(), [&](const FIFF_TagRec& r) { return r.name == after; });
    long seen = 0;
    for (; it != m_directory.end(); ++it)
        if (it->name == name && ++seen >= n)
            return &*it;
    return nullptr;
}

unsigned long ecNeuromag_FIFF::SizeAfter(const std::string& name, const std::string& after, long n) const
{
    const FIFF_TagRec* r = FindAfter(name, after, n);
    return r ? r->size : 0;
}

bool ecNeuromag_FIFF::NextAfter(const std::string& name, const std::string& after)
{
    size_t start = m_cursor + 1;
    if (m_cursor == 0) {
        const auto anchor = std::find_if(m_directory.begin(), m_directory.end(),
                                         [&](const FIFF_TagRec& r) { return r.name == after; });
        if (anchor == m_directory.end())
            return false;
        start = static_cast<size_t>(anchor - m_directory.begin()) + 1;
    }
    for (size_t i = start; i < m_directory.size(); ++i) {
        if (m_directory[i].name == name) {
            m_cursor = i;
            return true;
        }
    }
    return false;
}

std::vector<uint8_t> ecNeuromag_FIFF::ReadBytes(long long pos, size_t bytes)
{
    std::vector<uint8_t> out(bytes);
    out.resize(pos < 0 ? 0 : ReadAt(GetInputFilePointer(), pos, out.data(), bytes));
    return out;
}

void ecNeuromag_FIFF::ReadChPos(FIFF_ChPos& pos)
{
    FILE* fp = GetInputFilePointer();
    const std::vector<uint8_t> bytes = ReadBytes(fp ? ftello(fp) : -1, 52);
    DecodeChPos(Fields(bytes), 0, pos);
}

void ecNeuromag_FIFF::ReadChInfo(const FIFF_TagRec& rec, FIFF_ChInfo& info)
{
    const std::vector<uint8_t> bytes = ReadBytes(rec.dataPos, 96);
    const Fields f(bytes);
    info.scanNo = f.u32(0);
    info.logNo = f.u32(4);
    info.kind = f.u32(8);
    info.range = f.f32(12);
    info.cal = f.f32(16);
    DecodeChPos(f, 20, info.chpos);
    info.unit = f.u32(72);
    info.unitMul = f.u32(76);
    std::memset(info.name, 0, sizeof info.name);
    if (bytes.size() > 80)
        std::memcpy(info.name, &bytes[80], std::min<size_t>(16, bytes.size() - 80));
}

void ecNeuromag_FIFF::ReadCoordTrans(const FIFF_TagRec& rec, FIFF_CoordTrans& trans)
{
    const std::vector<uint8_t> bytes = ReadBytes(rec.dataPos, 104);
    const Fields f(bytes);
    trans.from = f.u32(0);
    trans.to = f.u32(4);
    f.floats(8, &trans.rot[0][0], 9);
    f.floats(44, trans.move, 3);
    f.floats(56, &trans.invrot[0][0], 9);
    f.floats(92, trans.invmove, 3);
}

void ecNeuromag_FIFF::ReadDigPoint(const FIFF_TagRec& rec, FIFF_DigPoint& point)
{
    const std::vector<uint8_t> bytes = ReadBytes(rec.dataPos, 20);
    const Fields f(bytes);
    point.kind = f.u32(0);
    point.ident = f.u32(4);
    f.floats(8, point.r, 3);
}

unsigned long ecNeuromag_FIFF::GetNumChans_FIFF()
{
    const FIFF_TagRec* nchan = FindAfter("NCHAN", "MEAS_DATE", 1);
    if (!nchan)
        Fail("[ecNeuroMag_FIFF::GetNumChans_FIFF] NCHAN not found after MEAS_DATE in FIFF file");
    const unsigned long channels = ReadUnsignedLong(*nchan);
    if (channels == 0)
        Fail("[ecNeuromag_FIFF::GetNumChans_FIFF] Zero channels detected in FIFF file");
    if (CountAfter("CH_INFO", "MEAS_DATE") != channels)
        Fail("[ecNeuromag_FIFF::GetNumChans_FIFF] Inconsistent number of channels detected in FIFF file");
    return channels;
}

unsigned long ecNeuromag_FIFF::GetNumEventChans_FIFF() const
{
    const FIFF_TagRec* last = nullptr;
    for (const FIFF_TagRec& r : m_directory)
        if (r.name == "EVENT_CHANNELS")
            last = &r;
    return last ? last->size / 4 : 0;
}

float ecNeuromag_FIFF::GetSampleRate_FIFF()
{
    const FIFF_TagRec* sfreq = FindAfter("SFREQ", "MEAS_DATE", 1);
    if (!sfreq)
        Fail("[ecNeuroMag_FIFF::GetSampleRate_FIFF] SFREQ not found after MEAS_DATE in FIFF file");
    const float rate = ReadFloat(*sfreq);
    if (!(rate > 0))
        Fail("[ecNeuromag_FIFF::GetSampleRate_FIFF] Zero or negative sample rate detected in FIFF file");
    return rate;
}

long ecNeuromag_FIFF::GetFirstSample_FIFF(long n)
{
    const FIFF_TagRec* r = FindAfter("FIRST_SAMPLE", "MEAS_DATE", n);
    if (!r)
        Fail("[ecNeuroMag_FIFF::GetFirstSample_FIFF] nth FIRST_SAMPLE not found after MEAS_DATE in FIFF file");
    return static_cast<long>(static_cast<int32_t>(ReadUnsignedLong(*r)));
}

long ecNeuromag_FIFF::GetLastSample_FIFF(long n)
{
    const FIFF_TagRec* r = FindAfter("LAST_SAMPLE", "MEAS_DATE", n);
    if (!r)
        Fail("[ecNeuroMag_FIFF::GetLastSample_FIFF] LAST_SAMPLE not found after MEAS_DATE in FIFF file");
    return static_cast<long>(static_cast<int32_t>(ReadUnsignedLong(*r)));
}

unsigned long ecNeuromag_FIFF::SetChannelInformationVector()
{
    std::vector<size_t> entries;
    for (size_t i = 0; i < m_directory.size(); ++i)
        if (m_directory[i].name == "CH_INFO")
            entries.push_back(i);
    return BuildChannelList(entries);
}

unsigned long ecNeuromag_FIFF::BuildChannelList(const std::vector<size_t>& chInfoEntries)
{
    m_chInfo.clear();
    for (size_t entry : chInfoEntries) {
        FIFF_ChInfo info;
        ReadChInfo(m_directory[entry], info);
        const std::string name = info.Name();
        for (const FIFF_ChInfo& earlier : m_chInfo) {
            if (earlier.Name() == name) {
                // Only the first match is looked at: a third duplicate also becomes "<name>x".
                const std::string renamed = name + "x";
                std::memset(info.name, 0, sizeof info.name);
                std::memcpy(info.name, renamed.data(), std::min(renamed.size(), sizeof info.name));
                break;
            }
        }
        m_chInfo.push_back(info);
    }
    return static_cast<unsigned long>(m_chInfo.size());
}

unsigned long ecNeuromag_FIFF::SetCoordinateTransformationVector()
{
    m_coordTrans.clear();
    for (const FIFF_TagRec& r : m_directory) {
        if (r.name != "COORD_TRANS")
            continue;
        FIFF_CoordTrans t;
        ReadCoordTrans(r, t);
        m_coordTrans.push_back(t);
    }
    return static_cast<unsigned long>(m_coordTrans.size());
}

unsigned long ecNeuromag_FIFF::SetDigitizationPointVector()
{
    m_digPoints.clear();
    for (const FIFF_TagRec& r : m_directory) {
        if (r.name != "DIG_POINT")
            continue;
        FIFF_DigPoint p;
        ReadDigPoint(r, p);
        if (p.Kind() == "CARDINAL") {
            float* target = p.ident == 1 ? m_lpa : p.ident == 2 ? m_nasion : p.ident == 3 ? m_rpa : nullptr;
            bool* found = p.ident == 1 ? &m_lpaFound : p.ident == 2 ? &m_nasionFound : p.ident == 3 ? &m_rpaFound : nullptr;
            if (target) {
                std::copy(p.r, p.r + 3, target);
                *found = true;
            }
        }
        m_digPoints.push_back(p);
    }
    return static_cast<unsigned long>(m_digPoints.size());
}

bool ecNeuromag_FIFF::GetFiducial(int ident, float out[3]) const
{
    const float* point = ident == 1 ? m_lpa : ident == 2 ? m_nasion : ident == 3 ? m_rpa : nullptr;
    const bool found = ident == 1 ? m_lpaFound : ident == 2 ? m_nasionFound : ident == 3 && m_rpaFound;
    if (!point || !found)
        return false;
    std::copy(point, point + 3, out);
    return true;
}

void ecNeuromag_FIFF::Initialize(int)
{
    const std::string name = GetInputFileName();
    FILE* fp = OpenInputFile(name);
    if (!fp)
        Fail("[ecNeuromag_FIFF::Initialize] Cannot open file: " + name);
    m_fileSize = FileLength(fp);
    uint8_t first[4];
    if (ReadAt(fp, 0, first, 4) != 4 || LoadU32BE(first) != 100) {
        CloseInputFile();
        Fail("[ecNeuromag_FIFF::Initialize] Not a FIFF file (its first tag is not FILE_ID): " + name);
    }
    SetFileMFR(kMfrFIFF);
    ReadAllTagRecords();
    MapBlocks();
    SetSampleRate(ReadMeasurementInfo(), 0);
    SetCoordinateTransformationVector();
    SetDigitizationPointVector();
    const std::vector<long> sets = BlocksOfKind(kBlockEvoked);
    if (std::any_of(m_directory.begin(), m_directory.end(), IsDataBuffer))
        InitializeRaw();
    else if (!sets.empty())
        InitializeAveraged(sets);
    else
        Fail("[ecNeuromag_FIFF::Initialize] " + name + " holds neither raw data buffers nor averaged sets.");
    if (GetNumSlices() == 0)
        Fail("[ecNeuromag_FIFF::Initialize] " + name + " holds no samples.");
    DescribeLayout();
    ReadRecordingInfo();
}

namespace {
std::string Hertz(float value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%gHz", static_cast<double>(value));
    return text;
}
}  // namespace

// The date, subject, description, filters and bad channels the file states.
void ecNeuromag_FIFF::ReadRecordingInfo()
{
    const std::vector<long> blocks = BlocksOfKind(kBlockMeasInfo);
    const long info = blocks.empty() ? kTopLevel : blocks.front();
    ecRecordingInfo& r = m_recordingInfo;
    if (const FIFF_TagRec* date = FirstChild(info, "MEAS_DATE"); date && date->size >= 8) {
        const std::vector<uint8_t> b = ReadBytes(date->dataPos, 8);
        if (b.size() == 8) {
            std::tie(r.date, r.time) = UtcDateAndTime(static_cast<int32_t>(LoadU32BE(b.data())));
            char micro[16];
            std::snprintf(micro, sizeof micro, ".%06d", static_cast<int>(LoadU32BE(b.data() + 4) % 1000000));
            r.time += micro;
        }
    }
    if (const FIFF_TagRec* comment = FirstChild(info, "COMMENT"))
        r.description = TagText(*comment);
    std::string filter;
    if (const FIFF_TagRec* highpass = FirstChild(info, "HIGHPASS"))
        filter = "HP:" + Hertz(ReadFloat(*highpass));
    if (const FIFF_TagRec* lowpass = FirstChild(info, "LOWPASS"))
        filter += (filter.empty() ? "LP:" : " LP:") + Hertz(ReadFloat(*lowpass));
    if (!filter.empty())
        r.channelFilters.assign(static_cast<size_t>(GetNumChans()), filter);
    ReadSubjectAndBads();
}

// Subject fields (anywhere in the file) and the bad channels MNE-Python writes as a colon-separated
// name list in its bad-channels block.
void ecNeuromag_FIFF::ReadSubjectAndBads()
{
    ecRecordingInfo& r = m_recordingInfo;
    std::string first, last;
    for (size_t i = 0; i < m_directory.size(); ++i) {
        const FIFF_TagRec& tag = m_directory[i];
        const long parent = m_nodes[i].parent;
        if (tag.name == "SUBJ_HIS_ID")
            r.subjectId = TagText(tag);
        else if (tag.name == "SUBJ_FIRST_NAME")
            first = TagText(tag);
        else if (tag.name == "SUBJ_LAST_NAME")
            last = TagText(tag);
        else if (tag.name == "SUBJ_SEX" && tag.size >= 4) {
            const unsigned long sex = ReadUnsignedLong(tag);
            r.subjectSex = sex == 1 ? "M" : sex == 2 ? "F" : "";
        } else if (tag.name == "SUBJ_BIRTH_DAY" && tag.size >= 4)  // a Julian day number
            r.subjectBirthDate = UtcDateAndTime((static_cast<int32_t>(ReadUnsignedLong(tag)) - 2440588LL) * 86400).first;
        else if (tag.kind == kTagChannelNameList && parent >= 0 && m_nodes[static_cast<size_t>(parent)].blockKind == kBlockBads)
            MarkBad(TagText(tag));
    }
    r.subjectName = first + (first.empty() || last.empty() ? "" : " ") + last;
}

void ecNeuromag_FIFF::MarkBad(const std::string& names)
{
    std::stringstream list(names);
    for (std::string name; std::getline(list, name, ':');)
        for (int c = 0; c < GetNumChans(); ++c) {
            std::string label;
            GetChanName(c, label);
            if (label == name)
                m_recordingInfo.badChannels.push_back(c);
        }
}

// For every entry the innermost block around it. A BLOCK_END without a start is ignored; a
// block left open runs to the end of the file.
void ecNeuromag_FIFF::MapBlocks()
{
    m_nodes.assign(m_directory.size(), Node{kTopLevel, 0});
    std::vector<long> open;
    for (size_t i = 0; i < m_directory.size(); ++i) {
        const FIFF_TagRec& r = m_directory[i];
        m_nodes[i].parent = open.empty() ? kTopLevel : open.back();
        if (r.name == "BLOCK_START") {
            m_nodes[i].blockKind = r.size >= 4 ? static_cast<uint32_t>(ReadUnsignedLong(r)) : 0;
            open.push_back(static_cast<long>(i));
        } else if (r.name == "BLOCK_END" && !open.empty()) {
            open.pop_back();
        }
    }
    GroupByBlock();
}

// Entries grouped by their block, in file order, so that a block's own entries are found without
// scanning the rest of the directory (however deeply a damaged file nests its blocks). Group
// k + 1 holds the entries of the block opened at entry k, group 0 those at the top level.
void ecNeuromag_FIFF::GroupByBlock()
{
    m_groupStart.assign(m_directory.size() + 2, 0);
    for (const Node& n : m_nodes)
        ++m_groupStart[static_cast<size_t>(n.parent + 2)];
    std::partial_sum(m_groupStart.begin(), m_groupStart.end(), m_groupStart.begin());
    std::vector<size_t> next(m_groupStart.begin(), m_groupStart.end() - 1);
    m_grouped.resize(m_directory.size());
    for (size_t i = 0; i < m_nodes.size(); ++i)
        m_grouped[next[static_cast<size_t>(m_nodes[i].parent + 1)]++] = i;
}

// Entries named `name` directly inside `block` (not inside its sub-blocks), in file order.
std::vector<size_t> ecNeuromag_FIFF::Children(long block, const std::string& name) const
{
    std::vector<size_t> out;
    const size_t group = static_cast<size_t>(block + 1);
    for (size_t k = m_groupStart[group]; k < m_groupStart[group + 1]; ++k)
        if (m_directory[m_grouped[k]].name == name)
            out.push_back(m_grouped[k]);
    return out;
}

const FIFF_TagRec* ecNeuromag_FIFF::FirstChild(long block, const std::string& name) const
{
    const std::vector<size_t> found = Children(block, name);
    return found.empty() ? nullptr : &m_directory[found.front()];
}

std::vector<long> ecNeuromag_FIFF::BlocksOfKind(uint32_t kind) const
{
    std::vector<long> out;
    for (size_t i = 0; i < m_directory.size(); ++i)
        if (m_directory[i].name == "BLOCK_START" && m_nodes[i].blockKind == kind)
            out.push_back(static_cast<long>(i));
    return out;
}

// Channels and rate from the measurement info: the first MEAS_INFO block, or the top level of
// a file without one. Returns the sample rate.
float ecNeuromag_FIFF::ReadMeasurementInfo()
{
    const std::vector<long> blocks = BlocksOfKind(kBlockMeasInfo);
    const long info = blocks.empty() ? kTopLevel : blocks.front();
    const FIFF_TagRec* nchan = FirstChild(info, "NCHAN");
    if (!nchan)
        Fail("[ecNeuromag_FIFF::Initialize] NCHAN not found in the measurement info of FIFF file");
    const unsigned long channels = ReadUnsignedLong(*nchan);
    if (channels == 0)
        Fail("[ecNeuromag_FIFF::Initialize] Zero channels detected in FIFF file");
    if (BuildChannelList(Children(info, "CH_INFO")) != channels)
        Fail("[ecNeuromag_FIFF::Initialize] Inconsistent number of channels detected in FIFF file");
    const FIFF_TagRec* sfreq = FirstChild(info, "SFREQ");
    if (!sfreq)
        Fail("[ecNeuromag_FIFF::Initialize] SFREQ not found in the measurement info of FIFF file");
    const float rate = ReadFloat(*sfreq);
    if (!(rate > 0 && std::isfinite(rate)))
        Fail("[ecNeuromag_FIFF::Initialize] Zero, negative or infinite sample rate detected in FIFF file");
    return rate;
}

void ecNeuromag_FIFF::RequireInFile(const FIFF_TagRec& r) const
{
    if (r.dataPos + static_cast<long long>(r.size) > m_fileSize)
        Fail("[ecNeuromag_FIFF::Initialize] The " + r.name + " tag at byte " +
             std::to_string(r.dataPos - static_cast<long long>(kTagHeaderBytes)) + " runs past the end of the file.");
}

// A string tag's text, up to its first NUL.
std::string ecNeuromag_FIFF::TagText(const FIFF_TagRec& r)
{
    const long long inFile = std::max(0LL, std::min<long long>(r.size, m_fileSize - r.dataPos));
    const std::vector<uint8_t> bytes = ReadBytes(r.dataPos, static_cast<size_t>(inFile));
    const std::string text(bytes.begin(), bytes.end());
    return text.substr(0, text.find('\0'));
}

void ecNeuromag_FIFF::InitializeRaw()
{
    SetChannels(true);
    BuildBuffers();
    // The first sample number belongs to the block that holds the buffers.
    const auto buffer = std::find_if(m_directory.begin(), m_directory.end(), IsDataBuffer);
    const FIFF_TagRec* first = FirstChild(m_nodes[static_cast<size_t>(buffer - m_directory.begin())].parent, "FIRST_SAMPLE");
    m_firstSampleNumber = first ? static_cast<int32_t>(ReadUnsignedLong(*first)) : 0;
    const long long slices = m_buffers.empty() ? 0 : m_buffers.back().firstSlice + m_buffers.back().slices;
    SetNumSlices(static_cast<int>(slices));
    SetRunType(kRunContinuous);
    SetNumEpochs(1);
    SetEpochSlices(static_cast<int>(slices));
    SetValidEpochCnt(1);
}

// One epoch per set; epochs of one length need one sample window for all sets.
void ecNeuromag_FIFF::InitializeAveraged(const std::vector<long>& sets)
{
    SetChannels(false);
    m_buffers.clear();
    m_setComments.clear();
    long first = 0;
    long long slices = 0;
    for (long set : sets) {
        const FIFF_TagRec* firstTag = FirstChild(set, "FIRST_SAMPLE");
        const FIFF_TagRec* lastTag = FirstChild(set, "LAST_SAMPLE");
        if (!firstTag || !lastTag)
            Fail("[ecNeuromag_FIFF::Initialize] An averaged set lacks its FIRST_SAMPLE or LAST_SAMPLE.");
        const long setFirst = static_cast<int32_t>(ReadUnsignedLong(*firstTag));
        const long long setSlices = static_cast<long long>(static_cast<int32_t>(ReadUnsignedLong(*lastTag))) - setFirst + 1;
        if (m_buffers.empty()) {
            first = setFirst;
            slices = setSlices;
        }
        if (setSlices < 1)
            Fail("[ecNeuromag_FIFF::Initialize] An averaged set ends before it begins.");
        if (setFirst != first || setSlices != slices)
            Fail("[ecNeuromag_FIFF::Initialize] The averaged sets cover different sample windows; they cannot be "
                 "delivered as epochs of one length.");
        if (static_cast<long long>(m_buffers.size() + 1) * slices > INT_MAX)
            Fail("[ecNeuromag_FIFF::Initialize] The recording holds more than 2147483647 slices.");
        m_buffers.push_back(AveragedSet(set, static_cast<long long>(m_buffers.size()) * slices, slices));
        const FIFF_TagRec* comment = FirstChild(set, "COMMENT");
        m_setComments.push_back(comment ? TagText(*comment) : "");
    }
    const int epochs = static_cast<int>(m_buffers.size());
    SetNumSlices(static_cast<int>(epochs * slices));
    SetRunType(epochs == 1 ? kRunSingleEpoch : kRunMultiEpoch);
    SetNumEpochs(epochs);
    SetEpochSlices(static_cast<int>(slices));
    SetValidEpochCnt(epochs);
    SetPreStim(static_cast<float>(first / static_cast<double>(GetSampleRate())));
    m_firstSampleNumber = first;
}

// A set's samples from the EPOCH data of its first ASPECT block: one matrix of all channels or
// one vector per channel.
ecNeuromag_FIFF::Buffer ecNeuromag_FIFF::AveragedSet(long set, long long firstSlice, long long slices)
{
    const std::vector<size_t> starts = Children(set, "BLOCK_START");
    const auto aspect = std::find_if(starts.begin(), starts.end(), [&](size_t i) { return m_nodes[i].blockKind == kBlockAspect; });
    if (aspect == starts.end())
        Fail("[ecNeuromag_FIFF::Initialize] An averaged set holds no ASPECT block.");
    const std::vector<size_t> epochs = Children(static_cast<long>(*aspect), "EPOCH");
    Buffer buffer{firstSlice, slices, 0, 0, 0, {}};
    const size_t channels = static_cast<size_t>(GetNumChans());
    if (epochs.size() == 1 && (m_directory[epochs.front()].type & kMatrixType))
        AddMatrixRows(m_directory[epochs.front()], buffer);
    else if (epochs.size() == channels)
        AddVectorRows(epochs, buffer);
    else
        Fail("[ecNeuromag_FIFF::Initialize] An averaged set holds " + std::to_string(epochs.size()) + " EPOCH tags for " +
             std::to_string(channels) + " channels.");
    return buffer;
}

// A matrix is stored row by row (one row per channel), followed by its dimensions in reverse
// order and their count.
void ecNeuromag_FIFF::AddMatrixRows(const FIFF_TagRec& epoch, Buffer& set)
{
    set.type = epoch.type & ~kMatrixType;
    set.bytes = BytesOfType(set.type);
    if (set.bytes == 0)
        Fail("[ecNeuromag_FIFF::Initialize] Unsupported data type " + std::to_string(epoch.type) + " in an EPOCH.");
    RequireInFile(epoch);
    const long long channels = GetNumChans(), row = set.slices * set.bytes;
    const std::vector<uint8_t> dims = ReadBytes(epoch.dataPos + epoch.size - 12, epoch.size >= 12 ? 12 : 0);
    if (epoch.size < 12 || (epoch.size - 12) % row != 0 || (epoch.size - 12) / row != channels ||
        LoadU32BE(&dims[0]) != set.slices || LoadU32BE(&dims[4]) != channels || LoadU32BE(&dims[8]) != 2)
        Fail("[ecNeuromag_FIFF::Initialize] An EPOCH matrix does not hold " + std::to_string(channels) + " channels of " +
             std::to_string(set.slices) + " samples.");
    for (long long c = 0; c < channels; ++c)
        set.channelPos.push_back(epoch.dataPos + c * row);
}

void ecNeuromag_FIFF::AddVectorRows(const std::vector<size_t>& epochs, Buffer& set)
{
    set.type = m_directory[epochs.front()].type;
    set.bytes = BytesOfType(set.type);
    for (size_t entry : epochs) {
        const FIFF_TagRec& epoch = m_directory[entry];
        if (set.bytes == 0 || epoch.type != set.type)
            Fail("[ecNeuromag_FIFF::Initialize] Unsupported data type " + std::to_string(epoch.type) + " in an EPOCH.");
        if (epoch.size != set.slices * set.bytes)
            Fail("[ecNeuromag_FIFF::Initialize] An EPOCH of " + std::to_string(epoch.size) + " bytes does not hold " +
                 std::to_string(set.slices) + " samples.");
        RequireInFile(epoch);
        set.channelPos.push_back(epoch.dataPos);
    }
}

// Raw buffers hold value / (cal x range); averaged sets hold value / cal.
void ecNeuromag_FIFF::SetChannels(bool applyRange)
{
    SetNumChans(static_cast<int>(m_chInfo.size()));
    m_scales.assign(m_chInfo.size(), 1.0f);
    for (size_t i = 0; i < m_chInfo.size(); ++i) {
        const FIFF_ChInfo& ch = m_chInfo[i];
        const int c = static_cast<int>(i);
        std::string label = ch.Name();
        std::string unit = ch.unit == 112 ? "T" : ch.unit == 201 ? "T/m" : ch.unit == 107 ? "V" : "";
        const int type = ch.kind == 1 ? kChanMEG
                         : ch.kind == 2 || ch.kind == 202 || ch.kind == 302 || ch.kind == 402 ? kChanEEG
                         : ch.kind == 3 ? kChanTrigger : 0;
        m_scales[i] = static_cast<float>(static_cast<double>(ch.cal) * (applyRange ? ch.range : 1.0f));
        SetChanName(c, label);
        SetChanUnit(c, unit);
        SetUseChanUnit(c, !unit.empty());
        SetUseChanUnitPrefix(c, ch.unitMul != 0);
        SetChanType(c, type);
        SetChanScale(c, m_scales[i]);
    }
}

// The raw data buffers in file order; a DATA_SKIP counts buffers of the next buffer's length.
void ecNeuromag_FIFF::BuildBuffers()
{
    m_buffers.clear();
    const long long channels = GetNumChans();
    long long slice = 0, pendingSkipBuffers = 0, lastSlices = 0;
    const auto tooLong = [] { Fail("[ecNeuromag_FIFF::Initialize] The recording holds more than 2147483647 slices."); };
    // Skipped buffers count in units of a buffer's slices; checked before they are multiplied.
    auto skipBuffers = [&](long long buffers, long long slicesEach) {
        if (buffers > 0 && slicesEach > 0 && buffers > INT_MAX / slicesEach)
            tooLong();
        return buffers > 0 ? buffers * slicesEach : 0;
    };
    auto addSkip = [&](long long slices) {
        if (slices > 0) {
            m_buffers.push_back({slice, slices, -1, 0, 0, {}});
            slice += slices;
        }
    };
    for (const FIFF_TagRec& r : m_directory) {
        if (r.name == "DATA_SKIP") {
            pendingSkipBuffers += static_cast<int32_t>(ReadUnsignedLong(r));
        } else if (r.name == "DATA_SKIP_SAMP") {
            addSkip(static_cast<int32_t>(ReadUnsignedLong(r)));
        } else if (IsDataBuffer(r)) {
            const int bytes = BytesOfType(r.type);
            if (bytes == 0)
                Fail("[ecNeuromag_FIFF::Initialize] Unsupported data type " + std::to_string(r.type) + " in a DATA_BUFFER.");
            if (r.size % (channels * bytes) != 0)
                Fail("[ecNeuromag_FIFF::Initialize] A DATA_BUFFER of " + std::to_string(r.size) + " bytes does not hold whole slices of " +
                     std::to_string(channels) + " channels.");
            RequireInFile(r);
            lastSlices = r.size / (channels * bytes);
            addSkip(skipBuffers(pendingSkipBuffers, lastSlices));
            pendingSkipBuffers = 0;
            m_buffers.push_back({slice, lastSlices, r.dataPos, bytes, r.type, {}});
            slice += lastSlices;
        }
        if (slice > INT_MAX || pendingSkipBuffers > INT_MAX)
            tooLong();
    }
    addSkip(skipBuffers(pendingSkipBuffers, lastSlices));
    if (slice > INT_MAX)
        tooLong();
}

// The data buffers are the engine's segments (skips between them are gaps). When they all hold
// one type, slice after slice, the engine reads them from the file; otherwise (types that change
// from buffer to buffer, averaged sets whose channels lie apart) each is gathered here into
// slice-major floats first.
void ecNeuromag_FIFF::DescribeLayout()
{
    const int channels = GetNumChans();
    m_dataBuffers.clear();
    for (size_t k = 0; k < m_buffers.size(); ++k)
        if (m_buffers[k].dataPos >= 0)
            m_dataBuffers.push_back(k);
    auto kind = [](uint32_t type) { return type == 16 ? 2u : type; };  // dau_pack16 holds shorts
    bool uniform = true;
    for (size_t k : m_dataBuffers)
        uniform = uniform && m_buffers[k].channelPos.empty() &&
                  kind(m_buffers[k].type) == kind(m_buffers[m_dataBuffers.front()].type);
    const uint32_t type = uniform && !m_dataBuffers.empty() ? kind(m_buffers[m_dataBuffers.front()].type) : 0;
    const ecSampleType engineType = type == 2 ? ecSampleType::Int16 : type == 3 ? ecSampleType::Int32
                                  : type == 5 ? ecSampleType::Float64 : ecSampleType::Float32;
    ecDataLayout layout = ecDataLayout::Multiplexed(engineType, uniform ? true : !HostIsLittleEndian(), channels,
                                                    channels, 0, GetNumSlices());
    layout.exact = false;
    layout.decodedSegments = !uniform;
    for (size_t k : m_dataBuffers) {
        layout.segmentTable.push_back(m_buffers[k].dataPos);
        layout.segmentFirstSlices.push_back(m_buffers[k].firstSlice);
        layout.segmentLengths.push_back(m_buffers[k].slices);
    }
    for (int c = 0; c < channels; ++c)
        layout.SetConversion(c, m_scales[static_cast<size_t>(c)], 0);
    Engine().SetLayout(std::move(layout));
    m_decodedBuffer = -1;
}

const uint8_t* ecNeuromag_FIFF::DecodeSegment(long long segment)
{
    if (segment == m_decodedBuffer)
        return reinterpret_cast<const uint8_t*>(m_decoded.data());
    const Buffer& b = m_buffers[m_dataBuffers[static_cast<size_t>(segment)]];
    const size_t channels = static_cast<size_t>(GetNumChans()), width = static_cast<size_t>(b.bytes);
    m_decoded.resize(static_cast<size_t>(b.slices) * channels);
    // Raw buffers: one run of slices; averaged sets: one run per channel.
    const size_t runs = b.channelPos.empty() ? 1 : channels;
    const size_t perRun = m_decoded.size() / runs;
    m_raw.resize(perRun * width);
    for (size_t r = 0; r < runs; ++r) {
        const long long at = b.channelPos.empty() ? b.dataPos : b.channelPos[r];
        if (ReadAt(GetInputFilePointer(), at, m_raw.data(), m_raw.size()) != m_raw.size())
            return nullptr;
        WithDecoder(b.type, [&](auto decode) {
            for (size_t k = 0; k < perRun; ++k)
                m_decoded[runs == 1 ? k : k * channels + r] = decode(m_raw.data() + k * width);
        });
    }
    m_decodedBuffer = segment;
    return reinterpret_cast<const uint8_t*>(m_decoded.data());
}

int ecNeuromag_FIFF::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "ecNeuromag_FIFF");
    if (ReadRows(data, first, n) != n)
        Fail(GetRunType() == kRunContinuous ? "[ecNeuromag_FIFF::ReadData] Error in reading a DATA_BUFFER."
                                            : "[ecNeuromag_FIFF::ReadData] Error in reading an EPOCH.");
    return static_cast<int>(n);
}

int ecNeuromag_FIFF::InitialEventList(ecEventList* events, ecProgressDlg*)
{
    if (!events)
        return 0;
    return GetRunType() == kRunContinuous ? AppendTriggerRises(events) : AppendSetBoundaries(events);
}

// An averaged stimulus channel holds no triggers; each set starts a segment.
int ecNeuromag_FIFF::AppendSetBoundaries(ecEventList* events) const
{
    for (size_t k = 0; k < m_buffers.size(); ++k) {
        ecEvent boundary;
        boundary.SetBegin(static_cast<long>(m_buffers[k].firstSlice));
        boundary.SetSegmentBoundaryDefaults();
        if (!m_setComments[k].empty())
            boundary.SetEventName(m_setComments[k]);
        events->AppendOneEvent(boundary);
    }
    return static_cast<int>(m_buffers.size());
}

int ecNeuromag_FIFF::AppendTriggerRises(ecEventList* events)
{
    std::vector<int> stim;
    for (int c = 0; c < GetNumChans(); ++c)
        if (GetChanType(c) & kChanTrigger)
            stim.push_back(c);
    if (stim.empty())
        return 0;
    std::vector<long> previous(stim.size(), 0);
    std::vector<ecEvent> found;
    ecLabeledMatrix<float> block;
    // Only the data buffers are read: a skipped stretch reads as zeros, so it leaves every
    // stimulus channel at 0 and holds no rise.
    for (const Buffer& buffer : m_buffers) {
        if (buffer.dataPos < 0) {
            std::fill(previous.begin(), previous.end(), 0);
            continue;
        }
        const long long end = buffer.firstSlice + buffer.slices;
        for (long long first = buffer.firstSlice; first < end; first += 5000) {
            const int n = ReadData(block, static_cast<int>(first), static_cast<int>(std::min<long long>(5000, end - first)));
            for (size_t k = 0; k < stim.size(); ++k) {
                const float* row = block[stim[k]];
                for (int t = 0; t < n; ++t) {
                    const long value = std::isfinite(row[t]) ? std::lround(row[t]) : 0;
                    if ((first > 0 || t > 0) && value != 0 && value > previous[k]) {
                        ecEvent e;
                        e.SetEventName(std::to_string(value));
                        e.SetEventCode(static_cast<int>(value));
                        e.SetKind(2);
                        e.SetBegin(static_cast<long>(first + t));
                        e.SetEnd(static_cast<long>(first + t));
                        found.push_back(e);
                    }
                    previous[k] = value;
                }
            }
        }
    }
    std::stable_sort(found.begin(), found.end(), [](const ecEvent& a, const ecEvent& b) { return a.GetBegin() < b.GetBegin(); });
    for (const ecEvent& e : found)
        events->AppendOneEvent(e);
    return static_cast<int>(found.size());
}
