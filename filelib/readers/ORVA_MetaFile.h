// ecORVA_MetaFile: several recordings presented as one (.orva_mf). Sessions split over several
// files (amplifier restarts, file-size limits, runs of one experiment) read as one recording.
//
// The file is XML:
//   <ORVA_MetaFile version="1">
//     <Member path="run1.edf"/>
//     <Member path="sub/run2.vhdr" first="1000" count="5000"/>
//   </ORVA_MetaFile>
// Members are delivered in document order. `path` is resolved against the metafile's folder
// (absolute paths are taken as they are); `first` and `count` optionally take a slice range of
// the member (default: all of it). Each member is opened through the library's own detection, so
// any format the library reads can be a member, a metafile included; a metafile that lists
// itself, directly or through other metafiles, is refused. Members stay open while the metafile
// is, so a metafile lists at most 500 of them.
//
// Channels: the first member's channels, in its order, with its names, types, units and scales.
// Every later member must hold a channel of each name (matched by name; a name repeated in the
// first member matches the same repeat in the member), in the same unit, at the same sampling
// rate; channels a later member holds beyond those are not delivered. A member that differs is
// refused with an error naming it and the channel.
//
// Time base: continuous members join into one continuous recording whose slices are the sum of
// the members' (ranges). Epoched members (all of equal epoch length and pre-stimulus time) join
// as epochs; their ranges must cover whole epochs. Continuous and epoched members do not mix.
// The samples are the members' own ReadData values, uncalibrated like every reader's.
//
// Events: each member's events shifted to the joint timeline (those outside its range dropped),
// a segment boundary named by the member's path at each join (in place of a boundary the member
// itself places at its first slice), then the user events of the `.evt` side file of the same
// base name (base.evt, the text layout of ecEventList::ReadEventFile, slices of the joint
// timeline); a malformed side file is refused rather than dropped.
//
// `.ppm` side files are not read: this library applies no per-member processing, so every
// member's PPM option is 1 and the data are the members' as recorded.
//
// Recording information (date, subject, filters ...) is the first member's: the joint recording
// starts with it.
#pragma once

#include "companion/Export.h"

#include <memory>
#include <string>
#include <vector>

#include "filelib/ecFilebase.h"

class CFilelib;

class FILELIB_API ecORVA_MetaFile : public ecFilebase {
public:
    explicit ecORVA_MetaFile(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new ecORVA_MetaFile(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;

    int GetMemberCount() const { return static_cast<int>(m_members.size()); }
    // The resolved path of member `index`; "" outside 0 .. GetMemberCount()-1.
    std::string GetCurrentFileName(int index) const;
    // No per-member processing parameters are applied (see above): always 1.
    int GetCurrentFilePPMOption(int) const { return 1; }

private:
    struct Member {
        std::string path;  // as listed
        std::string resolved;
        std::shared_ptr<CFilelib> file;
        long long first = 0;   // the member's slice range
        long long count = 0;
        long long offset = 0;  // where the range starts on the joint timeline
        std::vector<int> rows;  // the member's channel index of each joint channel
    };

    [[noreturn]] void Fail(const std::string& text);
    std::string ReadText(const std::string& name);
    void ReadMembers(const std::string& text, const std::string& folder);
    std::shared_ptr<CFilelib> OpenMember(const Member& m);
    void TakeRange(Member& m, const std::string& first, const std::string& count);
    void DescribeChannels(Member& m);
    void MatchChannels(Member& m);
    void SetTimeBase();
    void ReadUserEvents(const std::string& name);
    void AppendMemberEvents(const Member& m, bool join, ecEventList& out, ecProgressDlg* progress) const;

    std::vector<Member> m_members;
    ecEventList m_userEvents;
};

// Writes a metafile `out` (.orva_mf) of the recordings `members`, in order, by paths relative to
// out's folder (the folder moves whole). Refuses an existing `out` unless `replace`, and a member
// that is `out` itself. The text is written beside as out.part and opened as a metafile (every
// member detected and matched) before it is renamed into place, so a refused list leaves
// nothing. Returns the joint recording's slices; raises ecError "[WriteMetaFile] ...".
FILELIB_API int WriteMetaFile(const std::string& out, const std::vector<std::string>& members, bool replace);
