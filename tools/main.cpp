// filelib: read any supported recording from the command line.
#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <sstream>

#include "Commands.h"
#include "filelib/ReaderTable.h"
#include "filelib/ecBase.h"

// The window and channel options, shown alike in every usage line that takes them.
#define WINDOW "--start S] [--stop S] [--first N] [--count N"
#define PICK "--channels a,b] [--types eeg,eog,..."

namespace {

// The usage line is also the table of what a command takes: every "--option" it shows, and
// nothing else, is accepted.
struct Command {
    int (*run)(const Options&);
    const char* usage;
    const char* help;
    bool needsOut;
    bool outThenInputs = false;  // OUT followed by one or more input files
};

const std::map<std::string, Command>& Commands()
{
    static const std::map<std::string, Command> commands = {
        {"info", {RunInfo, "filelib info FILE [--json]",
                  "Format, run type, time base, duration (h:mm:ss), date, subject, description, events count and "
                  "the channels table with each channel's kind, rate, filters and bad mark where the file states them.",
                  false}},
        {"events", {RunEvents, "filelib events FILE [" WINDOW "] [--json]",
                    "The recording's event list, onset and duration in slices and in seconds from the first slice. A "
                    "window keeps the events that begin inside it; their times stay those of the recording.",
                    false}},
        {"dump", {RunDump, "filelib dump FILE [" WINDOW "] [" PICK "] [--csv|--json]",
                  "Samples as delivered (volts for EEG), slice by slice, with each slice's time in seconds (for "
                  "epoched files: within its epoch, from the stimulus); 10 slices unless the window says.",
                  false}},
        {"stats", {RunStats, "filelib stats FILE [" WINDOW "] [" PICK "]",
                   "Reads the recording (or the window) block by block: per-channel min, max, mean, rms and the "
                   "reading speed.",
                   false}},
        {"convert", {RunConvert,
                     "filelib convert FILE OUT [--to edf|bdf|brainvision|brainvision16|generic] [" WINDOW "] [" PICK
                     "] [--force]",
                     "Writes the recording, or the window and channels picked, as EDF+ (.edf), "
                     "BDF+ (.bdf), BrainVision (.vhdr with .vmrk and .eeg; float samples, brainvision16: 16-bit "
                     "counts) or the generic format (any other name: OUT raw 32-bit floats, OUT.orva_hdr and "
                     "OUT.evt), with the events; --to overrides the extension. The files appear only once "
                     "complete; existing ones are replaced only with --force, and never FILE or the files read "
                     "with it. Text the format cannot hold in full is reported on standard error.",
                     true}},
        {"concat", {RunConcat, "filelib concat OUT.orva_mf IN... [--force]",
                    "Writes OUT, a metafile that reads the recordings IN (any format, in order) as one: channels "
                    "matched by name, slices and events joined, a segment boundary at each join. Members are "
                    "listed relative to OUT's folder, so the folder can move whole; OUT appears only once every "
                    "member opened and matched, and an existing OUT is replaced only with --force.",
                    false, true}},
        {"triggers", {RunTriggers,
                      "filelib triggers FILE [--threshold X] [--dead-time N] [--digital] [--words [--mask M]] [--json]",
                      "Events found on trigger channels by threshold crossing (default threshold 0.5). --digital: a "
                      "crossing counts only from an exact zero; --words: every change of the integer trigger word "
                      "(masked with M, decimal or 0x hexadecimal) to a non-zero value; --dead-time: slices skipped "
                      "after each event.",
                      false}},
        {"plot", {RunPlot,
                  "filelib plot FILE --out FILE.svg [" WINDOW "] [" PICK "] [--duration S] [--page N] [--force]",
                  "An SVG page of stacked traces: channels of one type share one scale (one scale bar per type), "
                  "each trace drawn about its mean over the page, a time axis in seconds, event markers with "
                  "labels that do not overlap, trigger channels as steps with their codes. The window (the whole "
                  "recording unless the window options say) is cut into pages of --duration seconds (default 10); "
                  "--page N draws page N (default 1), and the page count is printed. OUT must end in .svg; an "
                  "existing OUT is replaced only with --force.",
                  false}},
    };
    return commands;
}

void ProgramHelp(std::ostream& out)
{
    out << "filelib: read EEG/MEG recordings of many acquisition systems.\n\nUsage:\n";
    for (const auto& [name, cmd] : Commands())
        out << "  " << cmd.usage << "\n";
    out << "  filelib --version\n";
    out << "\nA window is --start/--stop in seconds from the first slice (stop excluded) or --first/--count in\n"
        << "slices; --channels picks channels by name, --types by kind (eeg, meg, eog, ecg, emg, resp, trigger, misc).\n";
    out << "\nEvery command takes --format CODE: FILE is read with the reader of that code (listed below in\n"
        << "brackets) instead of being detected. Files detection does not recognise are tried by extension\n"
        << "with the readers it never tries (.lay: Persyst).\n";
    out << "\nfilelib COMMAND --help explains a command. Exit status: 0 done, 1 error, 2 file not recognised.\n"
        << "Supported formats: " << SupportedFormatsText() << ".\n";
}

// A whole number in decimal, or in hexadecimal after "0x".
long Number(const std::string& option, const char* text)
{
    const char* digits = text + (*text == '-' || *text == '+');
    const bool hex = digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X');
    char* stop = nullptr;
    errno = 0;
    const long v = std::strtol(text, &stop, hex ? 16 : 10);
    if (!*text || *stop || errno == ERANGE || std::isspace(static_cast<unsigned char>(*text)))
        throw std::runtime_error(option + " needs a whole number, not \"" + text + "\"");
    return v;
}

bool Takes(const Command& cmd, const std::string& option)
{
    const std::string usage = cmd.usage;
    for (size_t at = usage.find(option); at != std::string::npos; at = usage.find(option, at + 1)) {
        const char next = usage[at + option.size()];
        if (!std::isalnum(static_cast<unsigned char>(next)) && next != '-')
            return true;
    }
    return false;
}

std::vector<std::string> SplitCommas(const std::string& s)
{
    std::vector<std::string> out;
    std::stringstream in(s);
    for (std::string item; std::getline(in, item, ',');)
        if (!item.empty())
            out.push_back(item);
    return out;
}

double Real(const std::string& option, const char* text)
{
    char* stop = nullptr;
    const double v = std::strtod(text, &stop);
    if (!*text || *stop || !std::isfinite(v))
        throw std::runtime_error(option + " needs a number, not \"" + text + "\"");
    return v;
}

// Stores option `a`; value() hands out its argument.
template <typename Value>
void SetOption(Options& o, const std::string& a, Value value)
{
    if (a == "--json") o.json = true;
    else if (a == "--force") o.force = true;
    else if (a == "--csv") o.csv = true;
    else if (a == "--digital") o.digital = true;
    else if (a == "--words") o.words = true;
    else if (a == "--first") o.first = Number(a, value());
    else if (a == "--count") o.count = Number(a, value());
    else if (a == "--dead-time") o.deadTime = static_cast<int>(Number(a, value()));
    else if (a == "--mask") o.mask = Number(a, value());
    else if (a == "--start") o.start = Real(a, value());
    else if (a == "--stop") o.stop = Real(a, value());
    else if (a == "--channels") o.channels = SplitCommas(value());
    else if (a == "--types") o.types = SplitCommas(value());
    else if (a == "--out") o.out = value();
    else if (a == "--to") o.to = value();
    else if (a == "--threshold") o.threshold = Real(a, value());
    else if (a == "--duration") o.duration = Real(a, value());
    else if (a == "--page") o.page = Number(a, value());
}

Options Parse(const std::string& command, int argc, char** argv)
{
    const Command& cmd = Commands().at(command);
    Options o;
    std::vector<std::string> positional;
    for (int i = 2; i < argc; ++i) {
        const std::string a = argv[i];
        if (a.size() < 2 || a[0] != '-') {
            positional.push_back(a);
            continue;
        }
        if (a == "--format") {  // any command: read FILE with the reader of that code
            if (i + 1 >= argc)
                throw std::runtime_error(a + " needs a value");
            o.format = static_cast<int>(Number(a, argv[++i]));
            continue;
        }
        if (!Takes(cmd, a))
            throw std::runtime_error(command + " does not take " + a + "; usage: " + cmd.usage);
        o.given.insert(a);
        SetOption(o, a, [&]() -> const char* {
            if (i + 1 >= argc)
                throw std::runtime_error(a + " needs a value");
            return argv[++i];
        });
    }
    if (cmd.outThenInputs) {
        if (positional.size() < 2)
            throw std::runtime_error(std::string("usage: ") + cmd.usage);
        o.out = positional[0];
        o.inputs.assign(positional.begin() + 1, positional.end());
        return o;
    }
    if (positional.size() != (cmd.needsOut ? 2u : 1u))
        throw std::runtime_error(std::string("usage: ") + cmd.usage);
    o.file = positional[0];
    if (cmd.needsOut)
        o.out = positional[1];
    if (command == "plot" && o.out.empty())
        throw std::runtime_error("plot needs --out FILE.svg");
    if (o.given.count("--mask") && !o.words)
        throw std::runtime_error("--mask applies to --words only");
    return o;
}

bool WantsHelp(int argc, char** argv)
{
    for (int i = 2; i < argc; ++i)
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h"))
            return true;
    return false;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && !std::strcmp(argv[1], "--version")) {
        std::cout << "filelib " << FILELIB_VERSION << "\n";
        return 0;
    }
    if (argc < 2 || !std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h") || !std::strcmp(argv[1], "help")) {
        ProgramHelp(std::cout);
        return argc < 2 ? 1 : 0;
    }
    const auto found = Commands().find(argv[1]);
    if (found == Commands().end()) {
        std::cerr << "filelib: unknown command \"" << argv[1] << "\"\n\n";
        ProgramHelp(std::cerr);
        return 1;
    }
    if (WantsHelp(argc, argv)) {
        std::cout << "Usage: " << found->second.usage << "\n\n" << found->second.help << "\n";
        return 0;
    }
    try {
        return found->second.run(Parse(found->first, argc, argv));
    } catch (const ecOpenError& e) {
        if (e.GetKind() != ecOpenError::kNotRecognised) {
            std::cerr << e.what() << "\n";
            return 1;
        }
        std::cerr << "filelib: " << e.what() << "\n";  // a file no reader recognises: status 2
        return 2;
    } catch (const std::exception& e) {
        std::cerr << e.what() << "\n";
        return 1;
    }
}
