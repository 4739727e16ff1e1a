// Events of a recording and the list that holds them.
#pragma once

#include "companion/Export.h"

#include <string>
#include <vector>

class FILELIB_API ecEvent {
public:
    ecEvent() = default;
    virtual ~ecEvent() = default;

    void SetEventName(const std::string& name) { m_sName = name; }
    std::string GetEventName() const { return m_sName; }
    void SetEventCode(int code) { m_iCode = code; }
    int GetEventCode() const { return m_iCode; }
    // Times are slices in the reader's time base.
    void SetBegin(long slice) { m_lBegin = slice; }
    long GetBegin() const { return m_lBegin; }
    void SetEnd(long slice) { m_lEnd = slice; }
    long GetEnd() const { return m_lEnd; }
    // The reader's kind value: 2 = stimulus (also a trigger found on a channel), 3 = response,
    // 1 = start of an excluded stretch, 0 = segment boundary.
    void SetKind(int kind) { m_iKind = kind; }
    int GetKind() const { return m_iKind; }
    void SetCodeMask(int mask) { m_iCodeMask = mask; }
    int GetCodeMask() const { return m_iCodeMask; }
    // A boundary between two segments of a recording: name "New Segment", code 0, kind 0,
    // mask 0, zero length at its begin slice.
    void SetSegmentBoundaryDefaults();
    bool IsSegmentBoundary() const { return m_bSegmentBoundary; }

private:
    std::string m_sName;
    int m_iCode = 0;
    long m_lBegin = 0;
    long m_lEnd = 0;
    int m_iKind = 0;
    int m_iCodeMask = 0;
    bool m_bSegmentBoundary = false;
};

class FILELIB_API ecEventList {
public:
    ecEventList() = default;
    virtual ~ecEventList() = default;

    void Clear() { m_events.clear(); }
    void AppendOneEvent(const ecEvent& event) { m_events.push_back(event); }
    // Number of events; with includeBoundaries false the segment boundaries are not counted.
    int GetEventCnt(bool includeBoundaries = true) const;
    // index must be in 0 .. GetEventCnt(true)-1.
    const ecEvent& GetEvent(int index) const { return m_events.at(static_cast<size_t>(index)); }
    // Stable sort by begin slice; the key "End" sorts by end slice instead.
    void SortEventListInTimelyOrder(std::string key);
    // Keeps the low `bits` bits of every code (1..31) and renames the event to that value in
    // binary with `bits` digits, most significant first: how digital trigger words are shown.
    void ConvertCodesToBinary(int bits);
    // Reads a text event file: one event per line, tab- or blank-separated
    //   name  code  begin  [end  [kind]]
    // (end defaults to begin, kind to 2; names with blanks are quoted with "..."); blank lines
    // and lines starting with '#' are skipped. append=false clears the list first. On any
    // malformed line or an unreadable file it returns false and leaves the list untouched.
    bool ReadEventFile(const char* path, bool append);

private:
    std::vector<ecEvent> m_events;
};

// Writes the events (segment boundaries excepted) in the layout ReadEventFile reads, names
// quoted. False when the file cannot be written.
// Event builders of the readers: a marker at a slice (kind 2 is a stimulus), and a segment
// boundary (named, or with the default name when `name` is empty).
FILELIB_API ecEvent MarkerEvent(long slice, const std::string& name, int code, long duration = 0, int kind = 2);
FILELIB_API ecEvent SegmentBoundaryEvent(long slice, const std::string& name = "");

FILELIB_API bool WriteEventFile(const ecEventList& events, const char* path);
