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

ecStagedFiles::ecStagedFiles(const std::vector<std::string>& targets, std::string who)
    : m_targets(targets), m_who(std::move(who))
{
    for (const std::string& target : m_targets)
        m_temps.push_back(Claim(target));
}

ecStagedFiles::~ecStagedFiles()
{
    for (const std::string& temp : m_temps)
        std::remove(temp.c_str());
}

void ecStagedFiles::Commit()
{
    for (size_t i = 0; i < m_targets.size(); ++i) {
        if (std::rename(m_temps[i].c_str(), m_targets[i].c_str()) != 0)
            throw ecError("[" + m_who + "] Cannot replace " + m_targets[i]);
        m_temps[i].clear();
    }
}

std::string ecStagedFiles::Claim(const std::string& target) const
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
    throw ecError("[" + m_who + "] Cannot create a temporary file beside " + target);
}

int WriteGenericCopy(CFilelib& source, const std::string& dataFile, ecProgressDlg* progress)
{
    const int channels = source.GetNumChans();
    CGeneric target(dataFile.c_str());
    CopyMetadata(source, target, channels);
    ecStagedFiles staged({dataFile, dataFile + ".evt", target.GetHeaderFileName()}, "WriteGenericCopy");

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
