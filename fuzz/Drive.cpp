#include "Drive.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>

#include "filelib/ReaderTable.h"
#include "filelib/filelib.h"

namespace {

constexpr long kMaxSlicesRead = 200000;  // keeps one input under a second

void WriteBytes(const std::string& path, const std::vector<uint8_t>& bytes)
{
    std::error_code ec;  // folder formats: the recording's files may lie in a folder of their own
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
    FILE* out = std::fopen(path.c_str(), "wb");
    if (!out)
        std::abort();
    std::fwrite(bytes.data(), 1, bytes.size(), out);
    std::fclose(out);
}

void Getters(CFilelib& f)
{
    std::string s;
    f.GetRunType();
    f.GetSampleRate();
    f.GetPreStim();
    f.GetDuration();
    f.GetNumSlices();
    f.GetEpochSlices();
    f.GetNumEpochs();
    f.GetValidEpochCnt();
    f.GetReferenceType();
    f.GetReferenceChannel();
    f.GetEEGChannelCount();
    f.GetMEGChannelCount();
    f.GetOnChannelCount();
    f.GetNumChans(0x8000);
    f.GetDataFormat();
    f.DoesVarianceExist();
    for (int c = 0; c < f.GetNumChans() && c < 4096; ++c) {
        f.GetChanName(c, s);
        f.GetChanUnit(c, s);
        f.GetChanType(c);
        f.GetChanScale(c);
        f.UseChanUnit(c);
        f.UseChanUnitPrefix(c);
    }
}

void Reads(CFilelib& f)
{
    ecLabeledMatrix<float> block;
    const long slices = f.GetNumSlices();
    long read = 0;
    for (long first = 0; first < slices && read < kMaxSlicesRead; first += 5000) {
        const int n = f.ReadData(block, static_cast<int>(first), 5000);
        if (n < 1)
            break;
        read += n;
    }
    // A few ranges at odd places: the end, past the end, single slices.
    for (long first : {slices - 1, slices, slices / 2, slices + 7, 0L})
        if (first >= 0 && first < 0x7FFFFFFF)
            f.ReadData(block, static_cast<int>(first), 3);
    std::vector<float> one;
    f.ReadOneRawSlice(one, 0);
}

void Events(CFilelib& f)
{
    ecEventList events;
    f.InitialEventList(&events, nullptr);
    if (f.GetNumSlices() <= kMaxSlicesRead) {
        ecEventList triggers;
        ecFilebase* reader = f.GetActiveFile();
        reader->FindAllTriggers(&triggers, 0, 0.5f, 3, false, nullptr);
        reader->FindAllTriggersDig(&triggers, 2, 1.0f, 0, false, -1, nullptr);
        if (reader->GetNumChans() > 0)
            reader->FindNextTrigger(0, 0, 0.5f, true);
    }
}

}  // namespace

void DriveFacade(const std::vector<FuzzFile>& files, const std::string& mainSuffix)
{
    char tmpl[] = "/tmp/filelib_fuzz_XXXXXX";
    const char* dir = mkdtemp(tmpl);
    if (!dir)
        std::abort();
    const std::string stem = std::string(dir) + "/f";
    for (const FuzzFile& file : files)
        WriteBytes(stem + file.suffix, file.bytes);
    try {
        CFilelib f;
        std::string name = stem + mainSuffix;
        // As the filelib program does: a file detection passes over may be a never-probed format.
        const int unprobed = f.GuessFileMFR(name) == 0 ? UnprobedReaderByExtension(name) : 0;
        if (unprobed != 0)
            f.SetFileSource(unprobed);
        if (f.GetFileSource() != 0) {
            f.Initialize(0);
            Getters(f);
            Reads(f);
            Events(f);
        }
    } catch (const std::exception&) {
        // Library errors (ecError, and the facade's standard exceptions) are the expected
        // answer to bad input.
    }
    // With the folders of folder formats and the side files a reader may write (the Neuroscan
    // width decision).
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
}
