#include "companion/Events.h"

#include "companion/Utility.h"

#include <algorithm>
#include <fstream>

void ecEvent::SetSegmentBoundaryDefaults()
{
    m_sName = "New Segment";
    m_iCode = 0;
    m_iKind = 0;
    m_iCodeMask = 0;
    m_lEnd = m_lBegin;
    m_bSegmentBoundary = true;
}

int ecEventList::GetEventCnt(bool includeBoundaries) const
{
    if (includeBoundaries)
        return static_cast<int>(m_events.size());
    return static_cast<int>(std::count_if(m_events.begin(), m_events.end(),
                                          [](const ecEvent& e) { return !e.IsSegmentBoundary(); }));
}

void ecEventList::SortEventListInTimelyOrder(std::string key)
{
    if (key == "End")
        std::stable_sort(m_events.begin(), m_events.end(),
                         [](const ecEvent& a, const ecEvent& b) { return a.GetEnd() < b.GetEnd(); });
    else
        std::stable_sort(m_events.begin(), m_events.end(),
                         [](const ecEvent& a, const ecEvent& b) { return a.GetBegin() < b.GetBegin(); });
}

void ecEventList::ConvertCodesToBinary(int bits)
{
    bits = std::clamp(bits, 1, 31);
    const unsigned mask = (1u << bits) - 1u;
    for (ecEvent& e : m_events) {
        unsigned code = static_cast<unsigned>(e.GetEventCode()) & mask;
        std::string name(static_cast<size_t>(bits), '0');
        for (int b = 0; b < bits; ++b)
            if (code & (1u << b))
                name[static_cast<size_t>(bits - 1 - b)] = '1';
        e.SetEventCode(static_cast<int>(code));
        e.SetEventName(name);
    }
}

namespace {

// Splits on blanks and tabs, honouring "quoted fields".
std::vector<std::string> Tokens(const std::string& line)
{
    std::vector<std::string> out;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r'))
            ++i;
        if (i >= line.size())
            break;
        if (line[i] == '"') {
            size_t end = line.find('"', i + 1);
            if (end == std::string::npos)
                return {};
            out.push_back(line.substr(i + 1, end - i - 1));
            i = end + 1;
        } else {
            size_t end = line.find_first_of(" \t\r", i);
            if (end == std::string::npos)
                end = line.size();
            out.push_back(line.substr(i, end - i));
            i = end;
        }
    }
    return out;
}

bool ParseEventLine(const std::string& line, ecEvent& event)
{
    std::vector<std::string> t = Tokens(line);
    if (t.size() < 3 || t.size() > 5)
        return false;
    long long code = 0, begin = 0, end = 0, kind = 2;
    if (!ParseInteger(t[1], code) || !ParseInteger(t[2], begin))
        return false;
    end = begin;
    if ((t.size() > 3 && !ParseInteger(t[3], end)) || (t.size() > 4 && !ParseInteger(t[4], kind)))
        return false;
    event.SetEventName(t[0]);
    event.SetEventCode(static_cast<int>(code));
    event.SetBegin(begin);
    event.SetEnd(end);
    event.SetKind(static_cast<int>(kind));
    return true;
}

}  // namespace

bool ecEventList::ReadEventFile(const char* path, bool append)
{
    if (!path)
        return false;
    std::ifstream in(path);
    if (!in)
        return false;
    std::vector<ecEvent> read;
    std::string line;
    while (std::getline(in, line)) {
        size_t first = line.find_first_not_of(" \t\r");
        if (first == std::string::npos || line[first] == '#')
            continue;
        ecEvent e;
        if (!ParseEventLine(line, e))
            return false;
        read.push_back(e);
    }
    if (in.bad())
        return false;
    if (!append)
        m_events.clear();
    m_events.insert(m_events.end(), read.begin(), read.end());
    return true;
}

bool WriteEventFile(const ecEventList& events, const char* path)
{
    std::ofstream out(path);
    if (!out)
        return false;
    out << "# name\tcode\tbegin\tend\tkind\n";
    for (int i = 0; i < events.GetEventCnt(true); ++i) {
        const ecEvent& e = events.GetEvent(i);
        if (e.IsSegmentBoundary())
            continue;
        std::string name = e.GetEventName();
        std::replace(name.begin(), name.end(), '"', '\'');
        out << '"' << name << "\"\t" << e.GetEventCode() << '\t' << e.GetBegin() << '\t' << e.GetEnd() << '\t'
            << e.GetKind() << '\n';
    }
    return static_cast<bool>(out);
}

ecEvent MarkerEvent(long slice, const std::string& name, int code, long duration, int kind)
{
    ecEvent e;
    e.SetEventName(name);
    e.SetEventCode(code);
    e.SetKind(kind);
    e.SetBegin(slice);
    e.SetEnd(slice + duration);
    return e;
}

ecEvent SegmentBoundaryEvent(long slice, const std::string& name)
{
    ecEvent e;
    e.SetBegin(slice);
    e.SetSegmentBoundaryDefaults();
    if (!name.empty())
        e.SetEventName(name);
    return e;
}
