#include "Commands.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>
#include <sstream>
#include <tuple>
#include <sys/stat.h>

#include "Output.h"
#include "Plot.h"
#include "filelib/Writers.h"
#include "filelib/ReaderTable.h"
#include "companion/ChannelKind.h"
#include "companion/Utility.h"
#include "filelib/filelib.h"
#include "filelib/readers/BrainVision.h"
#include "filelib/readers/ORVA_MetaFile.h"
#include "filelib/readers/Persyst.h"

namespace {

constexpr int kBlock = 5000;

void Open(CFilelib& f, const std::string& path, int format)
{
    try {
        OpenRecording(f, path, format);
    } catch (const ecOpenError& e) {
        // The code came from the program's option; say so.
        if (e.GetKind() == ecOpenError::kUnknownFormat)
            throw std::runtime_error(std::string("--") + e.what());
        throw;
    }
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

// The rate is kept as a single-precision period, so its inverse carries float noise (999.9999
// for 1000 Hz). The rate meant is the shortest decimal with the same period; it is shown, and
// times are computed, with that.
double Rate(CFilelib& f)
{
    const float rate = f.GetSampleRate();
    for (int precision = 1; precision <= 9; ++precision) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%.*g", precision, static_cast<double>(rate));
        const double candidate = std::strtod(buf, nullptr);
        if (static_cast<float>(1.0 / static_cast<float>(1.0 / candidate)) == rate)
            return candidate;
    }
    return rate;
}

std::string RateText(CFilelib& f) { return JsonNumber(Rate(f)); }

// The kind of a channel by the word researchers use: its type bits where they say trigger or MEG,
// else the kind its label names (most formats store none), else EEG for the EEG bit, else misc.
std::string KindOf(CFilelib& f, int c)
{
    const int type = f.GetChanType(c);
    if (type & kChanTrigger)
        return "trigger";
    if (type & kChanMEG)
        return "MEG";
    const std::string inferred = InferChannelType(ChannelName(f, c));
    return !inferred.empty() ? inferred : (type & kChanEEG) ? "EEG" : "misc";
}

const std::vector<std::string>& Kinds()
{
    static const std::vector<std::string> kinds = {"EEG", "MEG", "EOG", "ECG", "EMG", "resp", "trigger", "misc"};
    return kinds;
}

std::string Seconds(double s)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g s", s);
    return buf;
}

// The slice at `seconds`: the first one at or after it. Decimal seconds times the rate land a
// hair beside the slice they mean (0.1 s at 30 Hz is 3.0000000000000004): such a product is
// rounded to it.
long SliceAt(double seconds, double rate)
{
    const double x = seconds * rate, nearest = std::round(x);
    return static_cast<long>(std::fabs(x - nearest) <= 1e-6 * std::max(1.0, x) ? nearest : std::ceil(x));
}

// {first, count} of the window the options give, checked against the recording.
std::pair<long, long> WindowOf(CFilelib& f, const Options& o)
{
    const bool bySeconds = o.given.count("--start") || o.given.count("--stop");
    if (bySeconds && (o.given.count("--first") || o.given.count("--count")))
        throw std::runtime_error("give the window in seconds (--start/--stop) or in slices (--first/--count), not both");
    const long total = f.GetNumSlices();
    const double rate = Rate(f), length = total / rate;
    const std::string recording = " the recording (" + std::to_string(total) + " slices, " + Seconds(length) + ")";
    if (bySeconds) {
        const bool stopGiven = o.given.count("--stop") > 0;
        if (o.start < 0 || o.start >= length)
            throw std::runtime_error("--start " + Seconds(o.start) + " lies outside" + recording);
        if (stopGiven && (o.stop <= o.start || o.stop > length * (1 + 1e-9)))
            throw std::runtime_error("--stop " + Seconds(o.stop) + " must lie after --start and within" + recording);
        const long first = SliceAt(o.start, rate);
        const long end = stopGiven ? std::min(total, SliceAt(o.stop, rate)) : total;
        if (first >= end)
            throw std::runtime_error("--start " + Seconds(o.start) + " --stop " + Seconds(o.stop) + " holds no slice");
        return {first, stopGiven ? end - first : -1};
    }
    if (o.first < 0 || (o.first >= total && o.given.count("--first")))
        throw std::runtime_error("--first " + std::to_string(o.first) + " lies outside" + recording);
    if (o.given.count("--count") && (o.count < 1 || o.count > total - o.first))
        throw std::runtime_error("--first " + std::to_string(o.first) + " --count " + std::to_string(o.count) +
                                 " reaches outside" + recording);
    return {o.first, o.count};
}

// The kinds --types names, in any case.
std::vector<std::string> KindsNamed(const std::vector<std::string>& words)
{
    std::vector<std::string> kinds;
    for (const std::string& word : words) {
        const auto known = std::find_if(Kinds().begin(), Kinds().end(),
                                        [&](const std::string& k) { return IsEqual(k, word, false); });
        if (known == Kinds().end())
            throw std::runtime_error("--types: no channel kind \"" + word + "\"; kinds: eeg, meg, eog, ecg, emg, resp, "
                                     "trigger, misc");
        kinds.push_back(*known);
    }
    return kinds;
}

// The channels --channels names (all without it), of those the kinds --types names.
std::vector<int> ChannelsOf(CFilelib& f, const Options& o)
{
    std::vector<int> picked;
    for (const std::string& wanted : o.channels) {
        int found = -1;
        for (int c = 0; c < f.GetNumChans() && found < 0; ++c)
            if (ChannelName(f, c) == wanted)
                found = c;
        if (found < 0)
            throw std::runtime_error("no channel named \"" + wanted + "\" in " + o.file);
        picked.push_back(found);
    }
    if (o.channels.empty())
        for (int c = 0; c < f.GetNumChans(); ++c)
            picked.push_back(c);
    if (o.types.empty())
        return picked;
    const std::vector<std::string> kinds = KindsNamed(o.types);
    std::vector<int> out;
    for (int c : picked)
        if (std::find(kinds.begin(), kinds.end(), KindOf(f, c)) != kinds.end())
            out.push_back(c);
    if (out.empty())
        throw std::runtime_error("no channel of the kinds --types names in " + o.file);
    return out;
}

int CountEvents(CFilelib& f)
{
    ecEventList events;
    f.InitialEventList(&events, nullptr);
    return events.GetEventCnt(true);
}

// Onsets and durations in slices and in seconds from the first slice of the file; `first` and
// `count` keep the events that begin inside that window (count -1: to the end).
void PrintEvents(const ecEventList& all, double rate, bool json, long first = 0, long count = -1)
{
    std::vector<const ecEvent*> events;
    for (int i = 0; i < all.GetEventCnt(true); ++i) {
        const ecEvent& e = all.GetEvent(i);
        if (e.GetBegin() >= first && (count < 0 || e.GetBegin() - first < count))
            events.push_back(&e);
    }
    if (json) {
        std::cout << "[";
        for (size_t i = 0; i < events.size(); ++i) {
            const ecEvent& e = *events[i];
            std::cout << (i ? "," : "") << "\n  {\"name\": " << JsonString(e.GetEventName())
                      << ", \"code\": " << e.GetEventCode() << ", \"begin\": " << e.GetBegin()
                      << ", \"end\": " << e.GetEnd() << ", \"kind\": " << e.GetKind()
                      << ", \"onset_s\": " << JsonNumber(e.GetBegin() / rate)
                      << ", \"duration_s\": " << JsonNumber((e.GetEnd() - e.GetBegin()) / rate) << "}";
        }
        std::cout << (events.empty() ? "" : "\n") << "]\n";
        return;
    }
    std::printf("%6s  %-20s %8s %10s %10s %5s %12s %12s\n", "#", "name", "code", "begin", "end", "kind", "onset_s",
                "duration_s");
    for (size_t i = 0; i < events.size(); ++i) {
        const ecEvent& e = *events[i];
        std::printf("%6zu  %-20s %8d %10ld %10ld %5d %12.6f %12.6f\n", i, e.GetEventName().c_str(), e.GetEventCode(),
                    e.GetBegin(), e.GetEnd(), e.GetKind(), e.GetBegin() / rate, (e.GetEnd() - e.GetBegin()) / rate);
    }
    std::printf("%zu events\n", events.size());
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
void CheckTargets(CFilelib& f, const Options& o, const std::string& command, const std::vector<std::string>& targets)
{
    const std::vector<std::string> sources = SourceFiles(f, o.file);
    for (const std::string& target : targets) {
        struct stat st;
        if (::stat(target.c_str(), &st) != 0)
            continue;
        for (const std::string& source : sources)
            if (SameFile(st, source))
                throw std::runtime_error(command + " would overwrite " + target + ", which is " + source +
                                         ", read for " + o.file + "; nothing written");
        if (!o.force)
            throw std::runtime_error(target + " exists; --force replaces it");
    }
}

// h:mm:ss, with milliseconds where the duration has them.
std::string Clock(double seconds)
{
    const long long ms = std::llround(seconds * 1000);
    char buf[48];
    const int n = std::snprintf(buf, sizeof buf, "%lld:%02lld:%02lld", ms / 3600000, ms / 60000 % 60, ms / 1000 % 60);
    if (ms % 1000)
        std::snprintf(buf + n, sizeof buf - static_cast<size_t>(n), ".%03lld", ms % 1000);
    return buf;
}

std::string ReferenceWords(CFilelib& f)
{
    const unsigned type = f.GetReferenceType();
    const int chan = f.GetReferenceChannel();
    std::string words = type == 2 ? "common reference channel" : type == 8 ? "average reference"
                        : type == 0 ? "not stated" : "type " + std::to_string(type);
    if (chan >= 0 && chan < f.GetNumChans())
        words += " (channel " + std::to_string(chan) + ", " + ChannelName(f, chan) + ")";
    return words;
}

std::string EpochWords(CFilelib& f)
{
    if (f.GetRunType() == kRunContinuous)
        return "none (continuous)";
    char buf[160];
    std::snprintf(buf, sizeof buf, "%d of %d slices (%g s), %d valid, pre-stimulus %g s", f.GetNumEpochs(),
                  f.GetEpochSlices(), f.GetEpochSlices() / Rate(f), f.GetValidEpochCnt(), f.GetPreStim());
    return buf;
}

// What info shows, gathered once for the text and the JSON form.
struct Facts {
    ecRecordingInfo rec;
    int events;
    double duration;
    std::vector<std::string> kinds;  // per channel
    std::vector<bool> bad;           // per channel
};

Facts FactsOf(CFilelib& f)
{
    Facts facts{f.GetRecordingInfo(), CountEvents(f), f.GetNumSlices() / Rate(f), {}, {}};
    facts.bad.assign(static_cast<size_t>(f.GetNumChans()), false);
    for (int c = 0; c < f.GetNumChans(); ++c)
        facts.kinds.push_back(KindOf(f, c));
    for (int c : facts.rec.badChannels)
        if (c >= 0 && c < f.GetNumChans())
            facts.bad[static_cast<size_t>(c)] = true;
    return facts;
}

// The per-channel text `table` holds for channel c, empty where the format stores none.
std::string Cell(const std::vector<std::string>& table, int c)
{
    return c < static_cast<int>(table.size()) ? table[static_cast<size_t>(c)] : "";
}

std::string KindCounts(const Facts& facts)
{
    std::string text;
    for (const std::string& kind : Kinds()) {
        const auto n = std::count(facts.kinds.begin(), facts.kinds.end(), kind);
        if (n)
            text += (text.empty() ? "" : ", ") + std::to_string(n) + " " + kind;
    }
    return text;
}

std::string JsonText(const std::string& s) { return s.empty() ? "null" : JsonString(s); }

void PrintInfoJson(CFilelib& f, const Facts& facts)
{
    ecFilebase* reader = f.GetActiveFile();
    const ecRecordingInfo& r = facts.rec;
    std::cout << "{\"format\": " << JsonString(FormatName(f)) << ", \"code\": " << f.GetFileSource()
              << ", \"run_type\": " << f.GetRunType() << ", \"run_type_words\": " << JsonString(RunTypeWord(f.GetRunType()))
              << ", \"sample_rate\": " << RateText(f) << ", \"slices\": " << f.GetNumSlices()
              << ", \"duration_s\": " << JsonNumber(facts.duration) << ", \"duration\": " << JsonString(Clock(facts.duration))
              << ", \"epochs\": " << f.GetNumEpochs() << ", \"epoch_slices\": " << f.GetEpochSlices()
              << ", \"valid_epochs\": " << f.GetValidEpochCnt() << ", \"prestim\": " << JsonFloat(f.GetPreStim())
              << ", \"epoch_words\": " << JsonString(EpochWords(f)) << ", \"reference_type\": " << f.GetReferenceType()
              << ", \"reference_channel\": " << f.GetReferenceChannel()
              << ", \"reference_words\": " << JsonString(ReferenceWords(f)) << ", \"date\": " << JsonText(r.date)
              << ", \"time\": " << JsonText(r.time) << ", \"subject\": {\"id\": " << JsonText(r.subjectId)
              << ", \"name\": " << JsonText(r.subjectName) << ", \"sex\": " << JsonText(r.subjectSex)
              << ", \"birth_date\": " << JsonText(r.subjectBirthDate) << "}, \"description\": " << JsonText(r.description)
              << ", \"events\": " << facts.events << ", \"channels\": [";
    for (int c = 0; c < f.GetNumChans(); ++c) {
        const size_t i = static_cast<size_t>(c);
        std::cout << (c ? "," : "") << "\n  {\"name\": " << JsonString(ChannelName(f, c)) << ", \"type\": " << f.GetChanType(c)
                  << ", \"kind\": " << JsonString(facts.kinds[i]) << ", \"unit\": " << JsonString(ChannelUnit(f, c))
                  << ", \"scale\": " << JsonFloat(f.GetChanScale(c)) << ", \"offset\": " << JsonFloat(reader->GetChanOffset(c))
                  << ", \"rate\": " << (i < r.channelRates.size() ? JsonNumber(r.channelRates[i]) : "null")
                  << ", \"filter\": " << JsonText(Cell(r.channelFilters, c))
                  << ", \"transducer\": " << JsonText(Cell(r.channelTransducers, c))
                  << ", \"bad\": " << (facts.bad[i] ? "true" : "false") << "}";
    }
    std::cout << (f.GetNumChans() ? "\n" : "") << "]}\n";
}

void PrintInfoText(CFilelib& f, const Facts& facts, const std::string& file)
{
    ecFilebase* reader = f.GetActiveFile();
    const ecRecordingInfo& r = facts.rec;
    std::printf("File:          %s\n", file.c_str());
    std::printf("Format:        %s (code %u)\n", FormatName(f).c_str(), f.GetFileSource());
    std::printf("Run type:      %s (%u)\n", RunTypeWord(f.GetRunType()), f.GetRunType());
    std::printf("Sample rate:   %s Hz\n", RateText(f).c_str());
    std::printf("Duration:      %s (%d slices, %s)\n", Clock(facts.duration).c_str(), f.GetNumSlices(),
                Seconds(facts.duration).c_str());
    std::printf("Epochs:        %s\n", EpochWords(f).c_str());
    std::printf("Reference:     %s\n", ReferenceWords(f).c_str());
    if (!r.date.empty() || !r.time.empty())
        std::printf("Recorded:      %s %s\n", r.date.c_str(), r.time.c_str());
    const std::pair<const char*, const std::string*> subject[] = {
        {"Subject id", &r.subjectId}, {"Subject name", &r.subjectName}, {"Sex", &r.subjectSex},
        {"Birth date", &r.subjectBirthDate}, {"Description", &r.description}};
    for (const auto& [label, value] : subject)
        if (!value->empty())
            std::printf("%-14s %s\n", (std::string(label) + ":").c_str(), value->c_str());
    std::printf("Events:        %d\n", facts.events);
    std::printf("Channels:      %d (%s)\n", f.GetNumChans(), KindCounts(facts).c_str());
    // The optional columns only where the file states them; the free texts last.
    const bool rates = !r.channelRates.empty(), filters = !r.channelFilters.empty();
    const bool transducers = !r.channelTransducers.empty();
    std::printf("%6s  %-16s %-8s %8s %-6s %12s %12s%s%s%s%s\n", "#", "name", "kind", "type", "unit", "scale", "offset",
                rates ? "      rate" : "", r.badChannels.empty() ? "" : "  bad", filters ? "  filter" : "",
                transducers ? " | transducer" : "");
    for (int c = 0; c < f.GetNumChans(); ++c) {
        const size_t i = static_cast<size_t>(c);
        std::printf("%6d  %-16s %-8s %#8x %-6s %12g %12g", c, ChannelName(f, c).c_str(), facts.kinds[i].c_str(),
                    f.GetChanType(c), ChannelUnit(f, c).c_str(), f.GetChanScale(c), reader->GetChanOffset(c));
        if (rates)
            std::printf(" %9s", i < r.channelRates.size() ? JsonNumber(r.channelRates[i]).c_str() : "");
        if (!r.badChannels.empty())
            std::printf("  %-3s", facts.bad[i] ? "bad" : "");
        if (filters)
            std::printf("  %s", Cell(r.channelFilters, c).c_str());
        if (transducers)
            std::printf(" | %s", Cell(r.channelTransducers, c).c_str());
        std::printf("\n");
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

}  // namespace

ecSelection SelectionOf(CFilelib& file, const Options& o)
{
    ecSelection selection;
    std::tie(selection.first, selection.count) = WindowOf(file, o);
    selection.channels = ChannelsOf(file, o);
    return selection;
}

int RunInfo(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    const Facts facts = FactsOf(f);
    if (o.json)
        PrintInfoJson(f, facts);
    else
        PrintInfoText(f, facts, o.file);
    return 0;
}

int RunEvents(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    const ecSelection window = SelectionOf(f, o);
    ecEventList events;
    f.InitialEventList(&events, nullptr);
    PrintEvents(events, Rate(f), o.json, window.first, window.count);
    return 0;
}

int RunDump(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    const ecSelection sel = SelectionOf(f, o);
    // Ten slices unless the window says; never more than the recording holds.
    const long count = sel.count >= 0 ? sel.count : std::min(10L, std::max(0L, f.GetNumSlices() - sel.first));
    ecLabeledMatrix<float> m;
    const int n = count ? std::max(0, f.ReadData(m, static_cast<int>(sel.first), static_cast<int>(count))) : 0;
    const double rate = Rate(f);
    // Continuous files: seconds from the first slice. Epoched files: seconds within the slice's
    // epoch from the stimulus, so the pre-stimulus part is negative. Readers store the
    // pre-stimulus time as its length (CTF, MFF) or as the time of the epoch's first slice
    // (Neuroscan x-min, FIFF evoked sets): either way the epoch starts at minus its size.
    const bool epoched = f.GetRunType() != kRunContinuous && f.GetEpochSlices() > 0;
    const double epochStart = -std::fabs(static_cast<double>(f.GetPreStim()));
    // Within an epoch, float precision (that of the pre-stimulus time) is all there is.
    const auto time = [&](long slice) {
        return epoched ? JsonFloat(static_cast<float>((slice % f.GetEpochSlices()) / rate + epochStart))
                       : JsonNumber(slice / rate);
    };
    if (o.json) {
        std::cout << "{\"first\": " << sel.first << ", \"count\": " << n << ", \"channels\": [";
        for (size_t i = 0; i < sel.channels.size(); ++i)
            std::cout << (i ? ", " : "") << JsonString(ChannelName(f, sel.channels[i]));
        std::cout << "], \"time_s\": [";
        for (int s = 0; s < n; ++s)
            std::cout << (s ? ", " : "") << time(sel.first + s);
        std::cout << "], \"data\": [";
        for (size_t i = 0; i < sel.channels.size(); ++i) {
            std::cout << (i ? "," : "") << "\n  [";
            for (int s = 0; s < n; ++s)
                std::cout << (s ? ", " : "") << JsonFloat(m[sel.channels[i]][s]);
            std::cout << "]";
        }
        std::cout << (sel.channels.empty() ? "" : "\n") << "]}\n";
        return 0;
    }
    const char* sep = o.csv ? "," : "\t";
    std::cout << "slice" << sep << "time_s";
    for (int c : sel.channels)
        std::cout << sep << ChannelName(f, c);
    std::cout << "\n";
    for (int s = 0; s < n; ++s) {
        std::cout << sel.first + s << sep << time(sel.first + s);
        for (int c : sel.channels)
            std::cout << sep << JsonFloat(m[c][s]);
        std::cout << "\n";
    }
    return 0;
}

int RunStats(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    const ecSelection sel = SelectionOf(f, o);
    const long end = sel.count >= 0 ? sel.first + sel.count : f.GetNumSlices();
    const size_t chans = sel.channels.size();
    std::vector<double> lo(chans, INFINITY), hi(chans, -INFINITY), sum(chans, 0.0), sq(chans, 0.0);
    TerminalProgress progress("reading");
    progress.SetRange(0, static_cast<int>((end - sel.first) / kBlock + 1));
    progress.SetStep(1);
    ecLabeledMatrix<float> m;
    long total = 0;
    const auto start = std::chrono::steady_clock::now();
    while (sel.first + total < end) {
        // Only what the recording holds is asked for: readers differ on ranges beyond the end.
        const int want = static_cast<int>(std::min<long>(kBlock, end - sel.first - total));
        const int n = f.ReadData(m, static_cast<int>(sel.first + total), want);
        if (n < 1)
            break;
        for (size_t i = 0; i < chans; ++i) {
            const float* row = m[sel.channels[i]];
            for (int s = 0; s < n; ++s) {
                lo[i] = std::min<double>(lo[i], row[s]);
                hi[i] = std::max<double>(hi[i], row[s]);
                sum[i] += row[s];
                sq[i] += static_cast<double>(row[s]) * row[s];
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
    for (size_t i = 0; i < chans; ++i) {
        const double mean = total ? sum[i] / total : 0, rms = total ? std::sqrt(sq[i] / total) : 0;
        std::printf("%-16s %14.6g %14.6g %14.6g %14.6g\n", ChannelName(f, sel.channels[i]).c_str(), total ? lo[i] : 0.0,
                    total ? hi[i] : 0.0, mean, rms);
    }
    std::printf("%ld slices from %ld read in %.3f s (%.0f slices/s)\n", total, sel.first, seconds,
                seconds > 0 ? total / seconds : 0.0);
    return 0;
}

int RunConvert(const Options& o)
{
    CFilelib f;
    Open(f, o.file, o.format);
    const ecOutputFormat format = ConvertFormat(o);
    const ecSelection selection = SelectionOf(f, o);
    CheckTargets(f, o, "convert", OutputFilesOf(o.out, format));
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

int RunConcat(const Options& o)
{
    const int slices = WriteMetaFile(o.out, o.inputs, o.force);
    std::printf("wrote %s (%zu members, %d slices)\n", o.out.c_str(), o.inputs.size(), slices);
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
    PrintEvents(events, Rate(f), o.json);
    return 0;
}

int RunPlot(const Options& o)
{
    RequireSvgName(o.out);
    CFilelib f;
    Open(f, o.file, o.format);
    CheckTargets(f, o, "plot", {o.out});
    const ecSelection window = SelectionOf(f, o);
    const PlotPage p = WritePlot(f, window, {o.out, o.file, o.duration, o.page});
    std::printf("wrote %s: page %ld of %ld, %ld slices from %g s, %zu channels\n", o.out.c_str(), p.page, p.pages,
                p.slices, p.start, window.channels.size());
    return 0;
}
