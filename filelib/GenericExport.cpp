#include "filelib/GenericExport.h"

#include <algorithm>
#include <cerrno>
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

// Output files written under temporary names beside their targets and renamed into place only
// when all are complete: a failure or a cancel leaves the targets as they were. A temporary name
// is claimed by creating the file exclusively, so no existing file is ever touched.
class StagedFiles {
public:
    explicit StagedFiles(const std::vector<std::string>& targets) : m_targets(targets)
    {
        for (const std::string& target : m_targets)
            m_temps.push_back(Claim(target));
    }
    ~StagedFiles()
    {
        for (const std::string& temp : m_temps)
            std::remove(temp.c_str());
    }
    StagedFiles(const StagedFiles&) = delete;
    StagedFiles& operator=(const StagedFiles&) = delete;

    const std::string& Temp(size_t i) const { return m_temps[i]; }
    // Renames the files into place, the header last (the pair is a recording only once it exists).
    void Commit()
    {
        for (size_t i = 0; i < m_targets.size(); ++i) {
            if (std::rename(m_temps[i].c_str(), m_targets[i].c_str()) != 0)
                ExportError("Cannot replace " + m_targets[i]);
            m_temps[i].clear();
        }
    }

private:
    static std::string Claim(const std::string& target)
    {
        for (int i = 0; i < 100; ++i) {
            const std::string name = target + ".part" + (i ? std::to_string(i) : "");
            if (FILE* fp = std::fopen(name.c_str(), "wbx")) {
                std::fclose(fp);
                return name;
            }
            if (errno != EEXIST)
                break;
        }
        ExportError("Cannot create a temporary file beside " + target);
    }

    std::vector<std::string> m_targets;
    std::vector<std::string> m_temps;
};

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
    StagedFiles staged({dataFile, dataFile + ".evt", target.GetHeaderFileName()});

    int written = 0;
    {
        std::unique_ptr<FILE, FileCloser> out(std::fopen(staged.Temp(0).c_str(), "wb"));
        if (!out)
            ExportError("Cannot create " + staged.Temp(0));
        if (!WriteSamples(source, out.get(), channels, written, progress))
            return -1;
        if (std::fflush(out.get()) != 0)
            ExportError("Cannot write the samples.");
    }
    target.SetNumSlices(written);

    ecEventList events;
    source.InitialEventList(&events, nullptr);
    if (!WriteEventFile(events, staged.Temp(1).c_str()))
        ExportError("Cannot write " + dataFile + ".evt");
    std::ofstream header(staged.Temp(2), std::ios::binary | std::ios::trunc);
    target.WriteHeaderText(header, true);
    header.close();
    if (!header)
        ExportError("Cannot write " + target.GetHeaderFileName());
    staged.Commit();
    return written;
}
