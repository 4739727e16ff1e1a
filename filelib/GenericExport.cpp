#include "filelib/GenericExport.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <vector>

#include "companion/ByteCursor.h"
#include "filelib/readers/Generic.h"

namespace {

constexpr int kBlockSlices = 5000;

struct FileCloser {
    void operator()(FILE* fp) const { std::fclose(fp); }
};

[[noreturn]] void ExportError(const std::string& what)
{
    throw ecError("[WriteGenericCopy] " + what);
}

void RemoveOutputs(const std::string& dataFile)
{
    std::remove(dataFile.c_str());
    std::remove((dataFile + ".orva_hdr").c_str());
    std::remove((dataFile + ".evt").c_str());
}

void CopyMetadata(CFilelib& source, CGeneric& target, int channels)
{
    target.SetNumChans(channels);
    for (int c = 0; c < channels; ++c) {
        std::string name, unit;
        source.GetChanName(c, name);
        source.GetChanUnit(c, unit);
        target.SetChanName(c, name);
        target.SetChanUnit(c, unit);
        target.SetChanType(c, source.GetChanType(c));
        target.SetUseChanUnit(c, source.UseChanUnit(c));
        target.SetUseChanUnitPrefix(c, source.UseChanUnitPrefix(c));
    }
    target.SetRunType(source.GetRunType());
    target.SetSampleRate(source.GetSampleRate(), 0);
    target.SetPreStim(source.GetPreStim());
    target.SetNumEpochs(source.GetNumEpochs());
    target.SetEpochSlices(source.GetEpochSlices());
    target.SetValidEpochCnt(source.GetValidEpochCnt());
    target.SetDataFormat(kFmtFloat);
    target.SetDataMatrixOrientation(true);
}

// Writes the samples block by block; false when cancelled.
bool WriteSamples(CFilelib& source, FILE* out, int channels, int& written, ecProgressDlg* progress)
{
    const int slices = source.GetNumSlices();
    if (progress) {
        progress->SetRange(0, slices / kBlockSlices + 1);
        progress->SetStep(1);
    }
    ecLabeledMatrix<float> block;
    std::vector<uint8_t> bytes;
    written = 0;
    while (written < slices) {
        const int n = source.ReadData(block, written, std::min(kBlockSlices, slices - written));
        if (n < 1)
            break;
        const long rows = std::min<long>(channels, block.nrow());
        bytes.assign(static_cast<size_t>(n) * channels * 4, 0);
        for (long c = 0; c < rows; ++c) {
            const float* row = block[c];
            for (int s = 0; s < n; ++s) {
                const uint32_t bits = FloatToBits(row[s]);
                uint8_t* p = &bytes[(static_cast<size_t>(s) * channels + c) * 4];
                p[0] = bits & 0xFF;
                p[1] = (bits >> 8) & 0xFF;
                p[2] = (bits >> 16) & 0xFF;
                p[3] = bits >> 24;
            }
        }
        if (std::fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size())
            ExportError("Cannot write the samples.");
        written += n;
        if (progress) {
            progress->StepIt();
            if (progress->CheckCancelButton())
                return false;
        }
    }
    return true;
}

}  // namespace

int WriteGenericCopy(CFilelib& source, const std::string& dataFile, ecProgressDlg* progress)
{
    const int channels = source.GetNumChans();
    CGeneric target(dataFile.c_str());
    CopyMetadata(source, target, channels);

    int written = 0;
    bool completed = false;
    {
        std::unique_ptr<FILE, FileCloser> out(std::fopen(dataFile.c_str(), "wb"));
        if (!out)
            ExportError("Cannot create " + dataFile);
        completed = WriteSamples(source, out.get(), channels, written, progress);
        if (std::fflush(out.get()) != 0)
            ExportError("Cannot write the samples.");
    }
    if (!completed) {
        RemoveOutputs(dataFile);
        return -1;
    }
    target.SetNumSlices(written);

    ecEventList events;
    source.InitialEventList(&events, nullptr);
    if (!WriteEventFile(events, (dataFile + ".evt").c_str()))
        ExportError("Cannot write " + dataFile + ".evt");
    std::ofstream header(target.GetHeaderFileName(), std::ios::binary | std::ios::trunc);
    target.WriteHeaderText(header, true);
    if (!header)
        ExportError("Cannot write " + target.GetHeaderFileName());
    return written;
}
