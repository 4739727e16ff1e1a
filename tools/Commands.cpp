#include "Commands.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <sstream>
#include <sys/stat.h>

#include "Output.h"
#include "filelib/Writers.h"
#include "filelib/ReaderTable.h"
#include "filelib/filelib.h"
#include "filelib/readers/BrainVision.h"
#include "filelib/readers/Persyst.h"

std::string RenderSvg(CFilelib& f, const std::string& title, long first, long count, const std::vector<int>& channels);

namespace {

constexpr int kBlock = 5000;

// Detection first; a file it does not recognise may still be one of the readers detection never
// tries, known by its extension. A format the caller names replaces both.
void Open(CFilelib& f, const std::string& path, int format)
{
    if (FILE* probe = std::fopen(path.c_str(), "rb"))
        std::fclose(probe);
    else
        throw std::runtime_error("cannot open " + path + ": no such file or not readable");
    if (format != 0 && !FindReader(format))
        throw std::runtime_error("--format " + std::to_string(format) + " is no reader's code. Supported formats: " +
                                 SupportedFormatsText() + ".");
    const int code = format != 0 ? format : DetectReader(f, path);
    if (code == 0)
        throw Unrecognized(path + " is not a recording filelib recognises. Supported formats: " +
                           SupportedFormatsText() + ".");
    f.SetInputFileName(path.c_str());
    f.SetFileSource(code);
    f.Initialize(0);
}

std::string FormatName(CFilelib& f)
{
    const ecReaderEntry* row = FindReader(static_cast<int>(f.GetFileSource()));
    return row ? row->className : "unknown";
}

const char* RunTypeWord(unsigned runType)
{
    switch (runType) {
    case 1: return "single epoch";
    case 2: return "epochs";
    case 4: return "continuous";
    default: return "unknown";
    }
}

std::string Name(CFilelib& f, int c)
{
    std::string s;
    f.GetChanName(c, s);
    return s;
}

std::string Unit(CFilelib& f, int c)
{
    std::string s;
    f.GetChanUnit(c, s);
    return s;
}

std::vector<int> SelectChannels(CFilelib& f, const std::vector<std::string>& names)
{
    std::vector<int> out;
    if (names.empty()) {
        for (int c = 0; c < f.GetNumChans(); ++c)
            out.push_back(c);
        return out;
    }
    for (const std::string& wanted : names) {
        int found = -1;
        for (int c = 0; c < f.GetNumChans() && found < 0; ++c)
            if (Name(f, c) == wanted)
                found = c;
        if (found < 0)
            throw std::runtime_error("no channel named \"" + wanted + "\"");
        out.push_back(found);
    }
    return out;
}

// The rate is kept as a single-precision period, so its inverse carries float noise in the last
// digit (249.99998 for 250 Hz); it is shown to float precision.
std::string RateText(float rate)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.7g", static_cast<double>(rate));
    return buf;
}

int CountEvents(CFilelib& f)
{
    ecEventList events;
    f.InitialEventList(&events, nullptr);
    return events.GetEventCnt(true);
}

void PrintEvents(const ecEventList& events, bool json)
{
    if (json) {
        std::cout << "[";
        for (int i = 0; i < events.GetEventCnt(true); ++i) {
            const ecEvent& e = events.GetEvent(i);
            std::cout << (i ? "," : "") << "\n  {\"name\": " << JsonString(e.GetEventName())
                      << ", \"code\": " << e.GetEventCode() << ", \"begin\": " << e.GetBegin()
                      << ", \"end\": " << e.GetEnd() << ", \"kind\": " << e.GetKind() << "}";
        }
        std::cout << (events.GetEventCnt(true) ? "\n" : "") << "]\n";
        return;
    }
    std::printf("%6s  %-20s %8s %10s %10s %5s\n", "#", "name", "code", "begin", "end", "kind");
    for (int i = 0; i < events.GetEventCnt(true); ++i) {
        const ecEvent& e = events.GetEvent(i);
        std::printf("%6d  %-20s %8d %10ld %10ld %5d\n", i, e.GetEventName().c_str(), e.GetEventCode(), e.GetBegin(),
                    e.GetEnd(), e.GetKind());
    }
    std::printf("%d events\n", events.GetEventCnt(true));
}

// The files a recording is read from: the one named, the reader's own input (a generic pair is
// named by either file), the side files readers look for beside it, a calibration file, and the
// files a BrainVision header or a Persyst layout names.
std::vector<std::string> SourceFiles(CFilelib& f, const std::string& path)
{
    ecFilebase* reader = f.GetActiveFile();
    const std::string input = reader->GetInputFileName();
    std::vector<std::string> files = {path, input, input + ".orva_hdr", input + ".evt", input + ".aux",
                                      reader->GetCalibration().GetCalFile()};
    if (const auto* bv = dynamic_cast<const BrainVision*>(reader)) {
        files.push_back(bv->GetDataFileName());
        files.push_back(bv->GetMarkerFileName());
    }
    if (const auto* persyst = dynamic_cast<const PerSyst*>(reader))
        files.push_back(persyst->GetDataFileName());
    return files;
}

bool SameFile(const struct stat& a, const std::string& path)
{
    struct stat b;
    return !path.empty() && ::stat(path.c_str(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// Refuses outputs that are the source or a file read with it (whatever their spelling: links,
// "./" and ".." all lead to the same device and inode), and existing outputs without --force.
void CheckConvertTargets(CFilelib& f, const Options& o, ecOutputFormat format)
{
    const std::vector<std::string> sources = SourceFiles(f, o.file);
    for (const std::string& target : OutputFilesOf(o.out, format)) {
        struct stat st;
        if (::stat(target.c_str(), &st) != 0)
            continue;
        for (const std::string& source : sources)
            if (SameFile(st, source))
                throw std::runtime_error("convert would overwrite " + target + ", which is " + source +
                                         ", read for " + o.file + "; nothing written");
        if (!o.force)
            throw std::runtime_error(target + " exists; --force replaces it");
    }
}

ecOutputFormat ConvertFormat(const Options& o)
{
    static const std::pair<const char*, ecOutputFormat> kNames[] = {
        {"edf", ecOutputFormat::EDF}, {"bdf", ecOutputFormat::BDF}, {"brainvision", ecOutputFormat::BrainVision},
        {"brainvision16", ecOutputFormat::BrainVisionInt16}, {"generic", ecOutputFormat::Generic}};
    if (o.to.empty())
        return OutputFormatOf(o.out);
    for (const auto& [name, format] : kNames)
        if (o.to == name)
            return format;
    throw std::runtime_error("--to takes edf, bdf, brainvision, brainvision16 or generic, not \"" + o.to + "\"");
}

// The part of the recording a command works on: --first and --count slices, --channels by name.
ecSelection SelectionOf(CFilelib& f, const Options& o)
{
    if (o.first < 0 || o.first > f.GetNumSlices())
        throw std::runtime_error("--first must lie between 0 and the recording's " + std::to_string(f.GetNumSlices()) +
                                 " slices");
    ecSelection selection;
    selection.first = o.first;
    selection.count = o.count;
    if (!o.channels.empty())
        selection.channels = SelectChannels(f, o.channels);
    return selection;
}

}  // namespace

int RunInfo(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    ecFilebase* reader = f.GetActiveFile();
    const int events = CountEvents(f);
    if (o.json) {
        std::cout << "{\"format\": " << JsonString(FormatName(f)) << ", \"code\": " << f.GetFileSource()
                  << ", \"run_type\": " << f.GetRunType() << ", \"sample_rate\": " << RateText(f.GetSampleRate())
                  << ", \"slices\": " << f.GetNumSlices() << ", \"epochs\": " << f.GetNumEpochs()
                  << ", \"epoch_slices\": " << f.GetEpochSlices() << ", \"valid_epochs\": " << f.GetValidEpochCnt()
                  << ", \"prestim\": " << JsonFloat(f.GetPreStim()) << ", \"reference_type\": " << f.GetReferenceType()
                  << ", \"reference_channel\": " << f.GetReferenceChannel() << ", \"events\": " << events
                  << ", \"channels\": [";
        for (int c = 0; c < f.GetNumChans(); ++c)
            std::cout << (c ? "," : "") << "\n  {\"name\": " << JsonString(Name(f, c)) << ", \"type\": " << f.GetChanType(c)
                      << ", \"unit\": " << JsonString(Unit(f, c)) << ", \"scale\": " << JsonFloat(f.GetChanScale(c))
                      << ", \"offset\": " << JsonFloat(reader->GetChanOffset(c)) << "}";
        std::cout << (f.GetNumChans() ? "\n" : "") << "]}\n";
        return 0;
    }
    std::printf("File:          %s\n", o.file.c_str());
    std::printf("Format:        %s (code %u)\n", FormatName(f).c_str(), f.GetFileSource());
    std::printf("Run type:      %u (%s)\n", f.GetRunType(), RunTypeWord(f.GetRunType()));
    std::printf("Sample rate:   %g Hz\n", f.GetSampleRate());
    std::printf("Slices:        %d (%.6g s)\n", f.GetNumSlices(), f.GetDuration());
    std::printf("Epochs:        %d of %d slices (%d valid)\n", f.GetNumEpochs(), f.GetEpochSlices(), f.GetValidEpochCnt());
    std::printf("Pre-stimulus:  %g s\n", f.GetPreStim());
    std::printf("Reference:     type %u, channel %d\n", f.GetReferenceType(), f.GetReferenceChannel());
    std::printf("Events:        %d\n", events);
    std::printf("Channels:      %d (%d EEG, %d MEG, %d trigger)\n", f.GetNumChans(), f.GetEEGChannelCount(),
                f.GetMEGChannelCount(), f.GetNumChans(0x8000));
    std::printf("%6s  %-16s %8s %-6s %12s %12s\n", "#", "name", "type", "unit", "scale", "offset");
    for (int c = 0; c < f.GetNumChans(); ++c)
        std::printf("%6d  %-16s %#8x %-6s %12g %12g\n", c, Name(f, c).c_str(), f.GetChanType(c), Unit(f, c).c_str(),
                    f.GetChanScale(c), reader->GetChanOffset(c));
    return 0;
}

int RunEvents(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    ecEventList events;
    f.InitialEventList(&events, nullptr);
    PrintEvents(events, o.json);
    return 0;
}

int RunDump(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    const std::vector<int> channels = SelectChannels(f, o.channels);
    const long wanted = o.count >= 0 ? o.count : 10;
    if (o.first < 0 || o.first > 0x7FFFFFFF || wanted > 0x7FFFFFFF)
        throw std::runtime_error("--first and --count must lie between 0 and 2147483647");
    ecLabeledMatrix<float> m;
    // Only what the recording holds is asked for: readers differ on ranges beyond the end.
    const long held = std::clamp<long>(f.GetNumSlices() - o.first, 0, wanted);
    const int n = std::max(0, f.ReadData(m, static_cast<int>(o.first), static_cast<int>(held)));
    const double rate = f.GetSampleRate();
    if (o.json) {
        std::cout << "{\"first\": " << o.first << ", \"count\": " << n << ", \"channels\": [";
        for (size_t i = 0; i < channels.size(); ++i)
            std::cout << (i ? ", " : "") << JsonString(Name(f, channels[i]));
        std::cout << "], \"data\": [";
        for (size_t i = 0; i < channels.size(); ++i) {
            std::cout << (i ? "," : "") << "\n  [";
            for (int s = 0; s < n; ++s)
                std::cout << (s ? ", " : "") << JsonFloat(m[channels[i]][s]);
            std::cout << "]";
        }
        std::cout << (channels.empty() ? "" : "\n") << "]}\n";
        return 0;
    }
    const char* sep = o.csv ? "," : "\t";
    std::cout << "slice" << sep << "time_s";
    for (int c : channels)
        std::cout << sep << Name(f, c);
    std::cout << "\n";
    for (int s = 0; s < n; ++s) {
        std::cout << o.first + s << sep << JsonFloat(static_cast<float>((o.first + s) / rate));
        for (int c : channels)
            std::cout << sep << JsonFloat(m[c][s]);
        std::cout << "\n";
    }
    return 0;
}

int RunStats(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    const int chans = f.GetNumChans();
    std::vector<double> lo(static_cast<size_t>(chans), INFINITY), hi(lo.size(), -INFINITY), sum(lo.size(), 0.0),
        sq(lo.size(), 0.0);
    TerminalProgress progress("reading");
    progress.SetRange(0, f.GetNumSlices() / kBlock + 1);
    progress.SetStep(1);
    ecLabeledMatrix<float> m;
    long total = 0;
    const auto start = std::chrono::steady_clock::now();
    while (total < f.GetNumSlices()) {
        // Only what the recording holds is asked for: readers differ on ranges beyond the end.
        const int want = static_cast<int>(std::min<long>(kBlock, f.GetNumSlices() - total));
        const int n = f.ReadData(m, static_cast<int>(total), want);
        if (n < 1)
            break;
        for (int c = 0; c < chans && c < m.nrow(); ++c) {
            const float* row = m[c];
            for (int s = 0; s < n; ++s) {
                lo[c] = std::min<double>(lo[c], row[s]);
                hi[c] = std::max<double>(hi[c], row[s]);
                sum[c] += row[s];
                sq[c] += static_cast<double>(row[s]) * row[s];
            }
        }
        total += n;
        progress.StepIt();
        if (progress.CheckCancelButton()) {
            std::fprintf(stderr, "cancelled after %ld slices\n", total);
            return 130;
        }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%-16s %14s %14s %14s %14s\n", "channel", "min", "max", "mean", "rms");
    for (int c = 0; c < chans; ++c) {
        const double mean = total ? sum[c] / total : 0, rms = total ? std::sqrt(sq[c] / total) : 0;
        std::printf("%-16s %14.6g %14.6g %14.6g %14.6g\n", Name(f, c).c_str(), total ? lo[c] : 0.0, total ? hi[c] : 0.0,
                    mean, rms);
    }
    std::printf("%ld slices read in %.3f s (%.0f slices/s)\n", total, seconds, seconds > 0 ? total / seconds : 0.0);
    return 0;
}

int RunConvert(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    const ecOutputFormat format = ConvertFormat(o);
    const ecSelection selection = SelectionOf(f, o);
    CheckConvertTargets(f, o, format);
    TerminalProgress progress("converting");
    std::vector<std::string> warnings;
    const int written = WriteCopy(f, o.out, format, selection, &progress, &warnings);
    for (const std::string& warning : warnings)
        std::fprintf(stderr, "filelib: %s\n", warning.c_str());
    if (written < 0) {
        std::fprintf(stderr, "cancelled; nothing written\n");
        return 130;
    }
    const std::vector<std::string> files = OutputFilesOf(o.out, format);
    std::printf("wrote %s (%d slices x %zu channels)", o.out.c_str(), written,
                selection.channels.empty() ? static_cast<size_t>(f.GetNumChans()) : selection.channels.size());
    for (size_t i = 1; i < files.size(); ++i)
        std::printf("%s %s", i + 1 == files.size() ? " and" : ",", files[i].c_str());
    std::printf("\n");
    return 0;
}

int RunTriggers(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    if (f.GetNumChans(0x8000) == 0)
        throw std::runtime_error(o.file + " has no trigger channel (type bit 0x8000)");
    TerminalProgress progress("searching");
    ecEventList events;
    ecFilebase* reader = f.GetActiveFile();
    if (o.words)
        reader->FindAllTriggersDig(&events, 2, static_cast<float>(o.threshold), o.deadTime, false,
                                   static_cast<int>(o.mask), &progress);
    else
        reader->FindAllTriggers(&events, 0, static_cast<float>(o.threshold), o.deadTime, o.digital, &progress);
    if (progress.CheckCancelButton()) {
        std::fprintf(stderr, "cancelled\n");
        return 130;
    }
    PrintEvents(events, o.json);
    return 0;
}

int RunPlot(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    const std::vector<int> channels = SelectChannels(f, o.channels);
    const double rate = f.GetSampleRate();
    const long available = std::max(0L, f.GetNumSlices() - o.first);
    const long count = std::min(available, o.count >= 0 ? o.count : static_cast<long>(std::lround(10 * rate)));
    const std::string svg = RenderSvg(f, o.file, o.first, count, channels);
    std::ofstream out(o.out, std::ios::binary | std::ios::trunc);
    out << svg;
    if (!out)
        throw std::runtime_error("cannot write " + o.out);
    std::printf("wrote %s (%zu channels, %ld slices from %ld)\n", o.out.c_str(), channels.size(), count, o.first);
    return 0;
}
