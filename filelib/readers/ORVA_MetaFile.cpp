#include "filelib/readers/ORVA_MetaFile.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>

#include "companion/Utility.h"
#include "companion/Xml.h"
#include "filelib/ExportKit.h"
#include "filelib/ReaderTable.h"
#include "filelib/filelib.h"

namespace fs = std::filesystem;

namespace {

const char kRoot[] = "ORVA_MetaFile";
constexpr size_t kProbeBytes = 4096;
constexpr long long kMaxTextBytes = 16 << 20;  // a list of paths; far more than any session needs
// Every member keeps its files open while the metafile is open: well inside the usual limit of
// open files per process.
constexpr size_t kMaxMembers = 500;

// The metafiles being opened on this thread, outermost first: a member that is one of them
// would open itself without end.
thread_local std::vector<std::string> t_openChain;

class ChainLink {
public:
    explicit ChainLink(std::string path) { t_openChain.push_back(std::move(path)); }
    ~ChainLink() { t_openChain.pop_back(); }
    ChainLink(const ChainLink&) = delete;
    ChainLink& operator=(const ChainLink&) = delete;
};

std::string CanonicalPath(const std::string& path)
{
    std::error_code ec;
    const fs::path canonical = fs::weakly_canonical(fs::absolute(path, ec), ec);
    return ec ? path : canonical.string();
}

size_t SkipPast(const std::string& text, size_t at, const char* end)
{
    const size_t found = text.find(end, at);
    return found == std::string::npos ? text.size() : found + std::strlen(end);
}

// Whether the first element of the text (after a byte-order mark, blanks, the XML declaration,
// comments and a DOCTYPE) is the metafile's root: the signature of the format.
bool StartsWithRoot(const std::string& text)
{
    size_t at = text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    while (at < text.size()) {
        if (std::isspace(static_cast<unsigned char>(text[at])))
            ++at;
        else if (text.compare(at, 2, "<?") == 0)
            at = SkipPast(text, at, "?>");
        else if (text.compare(at, 4, "<!--") == 0)
            at = SkipPast(text, at, "-->");
        else if (text.compare(at, 2, "<!") == 0)
            at = SkipPast(text, at, ">");
        else
            break;
    }
    const size_t name = std::strlen(kRoot);
    if (text.compare(at, name + 1, std::string("<") + kRoot) != 0 || at + name + 1 >= text.size())
        return false;
    const char next = text[at + name + 1];
    return next == '>' || next == '/' || std::isspace(static_cast<unsigned char>(next));
}

bool SameRate(double a, double b) { return std::fabs(a - b) <= 1e-6 * std::max(std::fabs(a), std::fabs(b)); }

bool Epoched(CFilelib& f) { return f.GetRunType() != kRunContinuous; }

}  // namespace

ecORVA_MetaFile::ecORVA_MetaFile(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void ecORVA_MetaFile::Fail(const std::string& text) { FailClosing("ecORVA_MetaFile::Initialize", text); }

std::string ecORVA_MetaFile::GetCurrentFileName(int index) const
{
    return index >= 0 && index < GetMemberCount() ? m_members[static_cast<size_t>(index)].resolved : std::string();
}

void ecORVA_MetaFile::Initialize(int)
{
    const std::string name = GetInputFileName();
    const std::string text = ReadText(name);
    const std::string self = CanonicalPath(name);
    if (std::find(t_openChain.begin(), t_openChain.end(), self) != t_openChain.end())
        Fail("The metafile " + name + " lists itself, directly or through another metafile.");
    const ChainLink link(self);
    m_members.clear();
    ReadMembers(text, GetFileNameDirectory(name));
    SetTimeBase();
    m_userEvents.Clear();
    ReadUserEvents(GetFileNameNoExtension(name) + ".evt");
}

// The whole text, once its first element shows that it is a metafile (the claim).
std::string ecORVA_MetaFile::ReadText(const std::string& name)
{
    FILE* fp = OpenInputFile(name);
    if (!fp)
        Fail("Cannot open file: " + name);
    const long long size = FileLength(fp);
    std::string text(static_cast<size_t>(std::clamp<long long>(size, 0, kProbeBytes)), '\0');
    if (ReadAt(fp, 0, text.data(), text.size()) != text.size() || !StartsWithRoot(text))
        Fail("Not a metafile: " + name);
    SetFileMFR(kMfrMetaFile);
    if (size > kMaxTextBytes)
        Fail("The metafile " + name + " holds " + std::to_string(size) + " bytes; a list of members is far smaller.");
    text.resize(static_cast<size_t>(size));
    if (ReadAt(fp, 0, text.data(), text.size()) != text.size())
        Fail("Cannot read " + name + ".");
    CloseInputFile();
    return text;
}

void ecORVA_MetaFile::ReadMembers(const std::string& text, const std::string& folder)
{
    ecXml xml;
    if (!xml.Read(text.compare(0, 3, "\xEF\xBB\xBF") == 0 ? text.substr(3) : text) || xml.GetName() != kRoot)
        Fail("The metafile is not well-formed XML.");
    const std::vector<ecXml> listed = xml.Children("Member");
    if (listed.empty())
        Fail("The metafile lists no member recordings.");
    if (listed.size() > kMaxMembers)
        Fail("The metafile lists " + std::to_string(listed.size()) + " members; at most " +
             std::to_string(kMaxMembers) + " are read as one.");
    for (const ecXml& entry : listed) {
        Member m;
        m.path = entry.Attribute("path");
        if (m.path.empty())
            Fail("A member has no path.");
        m.resolved = fs::path(m.path).is_absolute() ? m.path : folder + m.path;
        m.file = OpenMember(m);
        if (m_members.empty())
            DescribeChannels(m);
        else
            MatchChannels(m);
        TakeRange(m, entry.Attribute("first"), entry.Attribute("count"));
        m.offset = m_members.empty() ? 0 : m_members.back().offset + m_members.back().count;
        m_members.push_back(std::move(m));
    }
}

// Opened as any caller opens a recording, so that a member reads as it does on its own.
std::shared_ptr<CFilelib> ecORVA_MetaFile::OpenMember(const Member& m)
{
    auto f = std::make_shared<CFilelib>();
    try {
        OpenRecording(*f, m.resolved);
    } catch (const ecOpenError& e) {
        if (e.GetKind() == ecOpenError::kNotReadable)
            Fail("Member " + m.path + " not found: looked for " + m.resolved + ".");
        Fail("Member " + m.path + " is not a recording this library reads.");
    } catch (const std::exception& e) {
        Fail("Member " + m.path + ": " + e.what());
    }
    if (f->GetNumChans() <= 0 || f->GetNumSlices() <= 0)
        Fail("Member " + m.path + " holds no channels or no slices.");
    return f;
}

void ecORVA_MetaFile::TakeRange(Member& m, const std::string& first, const std::string& count)
{
    const long long slices = m.file->GetNumSlices();
    m.first = 0;
    m.count = slices;
    if ((!first.empty() && !ParseInteger(first, m.first)) || (!count.empty() && !ParseInteger(count, m.count)))
        Fail("Member " + m.path + ": the slice range is not a pair of whole numbers.");
    if (count.empty())
        m.count = slices - m.first;
    if (m.first < 0 || m.count < 1 || m.first > slices - m.count)
        Fail("Member " + m.path + ": the slice range " + std::to_string(m.first) + " + " + std::to_string(m.count) +
             " is not within its " + std::to_string(slices) + " slices.");
    const long long epoch = m.file->GetEpochSlices();
    if (Epoched(*m.file) && (epoch <= 0 || m.first % epoch != 0 || m.count % epoch != 0))
        Fail("Member " + m.path + ": the slice range must cover whole epochs of " + std::to_string(epoch) + " slices.");
    const long long joined = m_members.empty() ? 0 : m_members.back().offset + m_members.back().count;
    if (m.count > INT_MAX - joined)
        Fail("The members hold more than 2147483647 slices together.");
}

// The first member's channels are the joint recording's.
void ecORVA_MetaFile::DescribeChannels(Member& m)
{
    CFilelib& f = *m.file;
    const int channels = f.GetNumChans();
    SetNumChans(channels);
    for (int c = 0; c < channels; ++c) {
        m.rows.push_back(c);
        DescribeChannel(c, ChannelName(f, c), f.GetChanType(c), ChannelUnit(f, c), f.GetChanScale(c),
                        f.GetActiveFile()->GetChanOffset(c));
        SetUseChanUnit(c, f.UseChanUnit(c));
        SetUseChanUnitPrefix(c, f.UseChanUnitPrefix(c));
    }
    m_recordingInfo = f.GetActiveFile()->GetRecordingInfo();
    ecRecordingInfo& info = m_recordingInfo;
    for (auto* table : {&info.channelFilters, &info.channelTransducers})
        table->resize(std::min(table->size(), static_cast<size_t>(channels)));
    info.channelRates.resize(std::min(info.channelRates.size(), static_cast<size_t>(channels)));
    info.badChannels.erase(std::remove_if(info.badChannels.begin(), info.badChannels.end(),
                                          [&](int c) { return c >= channels; }),
                           info.badChannels.end());
}

void ecORVA_MetaFile::MatchChannels(Member& m)
{
    CFilelib& first = *m_members.front().file;
    CFilelib& f = *m.file;
    if (!SameRate(f.GetSampleRate(), first.GetSampleRate()))
        Fail("Member " + m.path + " is sampled at " + std::to_string(f.GetSampleRate()) + " Hz, the first member at " +
             std::to_string(first.GetSampleRate()) + " Hz.");
    if (Epoched(f) != Epoched(first))
        Fail("Member " + m.path + " is " + (Epoched(f) ? "epoched" : "continuous") + ", the first member " +
             (Epoched(first) ? "epoched" : "continuous") + "; they do not join.");
    if (Epoched(f) && (f.GetEpochSlices() != first.GetEpochSlices() || f.GetPreStim() != first.GetPreStim()))
        Fail("Member " + m.path + " has epochs of another length or pre-stimulus time than the first member.");
    std::multimap<std::string, int> byName;
    for (int c = 0; c < f.GetNumChans(); ++c)
        byName.emplace(ChannelName(f, c), c);
    for (int c = 0; c < GetNumChans(); ++c) {
        std::string wanted, unit;
        GetChanName(c, wanted);
        GetChanUnit(c, unit);
        const auto found = byName.find(wanted);
        if (found == byName.end())
            Fail("Member " + m.path + " lacks channel " + wanted + " of the first member.");
        if (ChannelUnit(f, found->second) != unit)
            Fail("Member " + m.path + ": channel " + wanted + " is in \"" + ChannelUnit(f, found->second) +
                 "\", the first member's in \"" + unit + "\".");
        m.rows.push_back(found->second);
        byName.erase(found);
    }
}

void ecORVA_MetaFile::SetTimeBase()
{
    CFilelib& first = *m_members.front().file;
    const long long slices = m_members.back().offset + m_members.back().count;
    // One averaged epoch stays an average; several epochs are a run of epochs, whatever each member was.
    const long long epochs = Epoched(first) ? slices / first.GetEpochSlices() : 1;
    if (Epoched(first))
        SetEpochTimeBase(first.GetSampleRate(), first.GetEpochSlices(), epochs, first.GetPreStim(),
                         epochs == 1 && first.GetRunType() == kRunSingleEpoch);
    else
        SetContinuousTimeBase(first.GetSampleRate(), slices);
}

void ecORVA_MetaFile::ReadUserEvents(const std::string& name)
{
    if (FILE* probe = std::fopen(name.c_str(), "rb"))
        std::fclose(probe);
    else
        return;
    if (!m_userEvents.ReadEventFile(name.c_str(), false))
        Fail("The event file " + name + " is not a readable event list.");
}

int ecORVA_MetaFile::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "ecORVA_MetaFile");
    ecLabeledMatrix<float> block;
    for (long long done = 0; done < n;) {
        const long long slice = first + done;
        const auto m = std::prev(std::upper_bound(m_members.begin(), m_members.end(), slice,
                                                  [](long long s, const Member& x) { return s < x.offset; }));
        const long long within = slice - m->offset;
        const long long take = std::min(n - done, m->count - within);
        if (m->file->ReadData(block, static_cast<int>(m->first + within), static_cast<int>(take)) != take)
            throw ecError("[ecORVA_MetaFile::ReadData] Member " + m->path + " delivered fewer slices than it holds.", 1,
                          0, -1, -1);
        for (size_t c = 0; c < m->rows.size(); ++c)
            std::copy_n(block[m->rows[c]], take, data[static_cast<long>(c)] + done);
        done += take;
    }
    return static_cast<int>(n);
}

void ecORVA_MetaFile::AppendMemberEvents(const Member& m, bool join, ecEventList& out, ecProgressDlg* progress) const
{
    if (join)
        out.AppendOneEvent(SegmentBoundaryEvent(static_cast<long>(m.offset), m.path));
    ecEventList own;
    m.file->InitialEventList(&own, progress);
    const long shift = static_cast<long>(m.offset - m.first);
    for (int i = 0; i < own.GetEventCnt(true); ++i) {
        ecEvent e = own.GetEvent(i);
        const bool outside = e.GetBegin() < m.first || e.GetBegin() >= m.first + m.count;
        if (outside || (join && e.IsSegmentBoundary() && e.GetBegin() == m.first))
            continue;
        e.SetBegin(e.GetBegin() + shift);
        e.SetEnd(e.GetEnd() + shift);
        out.AppendOneEvent(e);
    }
}

int ecORVA_MetaFile::InitialEventList(ecEventList* events, ecProgressDlg* progress)
{
    if (!events)
        return 0;
    const int before = events->GetEventCnt(true);
    for (size_t k = 0; k < m_members.size(); ++k)
        AppendMemberEvents(m_members[k], k > 0, *events, progress);
    for (int i = 0; i < m_userEvents.GetEventCnt(true); ++i)
        events->AppendOneEvent(m_userEvents.GetEvent(i));
    return events->GetEventCnt(true) - before;
}

int WriteMetaFile(const std::string& out, const std::vector<std::string>& members, bool replace)
{
    auto fail = [](const std::string& text) { throw ecError("[WriteMetaFile] " + text, 1, 0, -1, -1); };
    if (members.empty())
        fail("No member recordings given.");
    if (!IsEqual(GetFileNameExtension(out), "orva_mf", false))
        fail(out + " does not end in .orva_mf.");
    std::error_code ec;
    if (fs::exists(out, ec) && !replace)
        fail(out + " exists; it is replaced only when asked to.");
    const fs::path folder = fs::weakly_canonical(fs::absolute(out).parent_path(), ec);
    const std::string target = CanonicalPath(out);
    std::string text = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<" + std::string(kRoot) + " version=\"1\">\n";
    for (const std::string& member : members) {
        if (!fs::exists(member, ec))  // folder recordings (.mff, .ds) are members too
            fail("Member " + member + " not found.");
        const std::string path = CanonicalPath(member);
        if (path == target)
            fail(out + " cannot be a member of itself.");
        text += "  <Member path=\"" + XmlEscaped(fs::path(path).lexically_relative(folder).generic_string()) + "\"/>\n";
    }
    text += "</" + std::string(kRoot) + ">\n";
    exportkit::StagedFiles staged("WriteMetaFile", {out});
    staged.WriteText(0, text);
    ecORVA_MetaFile check(staged.Temp(0).c_str());
    check.Initialize(0);
    staged.Commit();
    return check.GetNumSlices();
}
