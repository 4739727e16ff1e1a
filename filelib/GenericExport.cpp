#include "filelib/GenericExport.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <memory>
#include <vector>

#include "companion/ByteCursor.h"
#include "filelib/ExportKit.h"
#include "filelib/readers/Generic.h"

namespace {

constexpr const char* kWriter = "WriteGenericCopy";

// The window keeps the source's epochs when it holds whole ones; any other window is one
// continuous run.
void CopyMetadata(CFilelib& source, CGeneric& target, const exportkit::Window& w)
{
    const int channels = static_cast<int>(w.channels.size());
    target.SetNumChans(channels);
    for (int i = 0; i < channels; ++i) {
        const int c = w.channels[static_cast<size_t>(i)];
        std::string name = ChannelName(source, c), unit = ChannelUnit(source, c);
        target.SetChanName(i, name);
        target.SetChanUnit(i, unit);
        target.SetChanType(i, source.GetChanType(c));
        target.SetUseChanUnit(i, source.UseChanUnit(c));
        target.SetUseChanUnitPrefix(i, source.UseChanUnitPrefix(c));
    }
    const long epoch = source.GetEpochSlices();
    const bool wholeEpochs = epoch > 0 && w.first % epoch == 0 && w.count % epoch == 0 && w.count > 0;
    const bool whole = w.first == 0 && w.count == source.GetNumSlices();
    target.SetRunType(whole || wholeEpochs ? source.GetRunType() : kRunContinuous);
    target.SetSampleRate(source.GetSampleRate(), 0);
    target.SetPreStim(whole || wholeEpochs ? source.GetPreStim() : 0.0f);
    target.SetNumEpochs(whole ? source.GetNumEpochs() : wholeEpochs ? static_cast<int>(w.count / epoch) : 1);
    target.SetEpochSlices(whole || wholeEpochs ? source.GetEpochSlices() : static_cast<int>(w.count));
    target.SetValidEpochCnt(whole ? source.GetValidEpochCnt() : wholeEpochs ? static_cast<int>(w.count / epoch) : 1);
    target.SetDataFormat(kFmtFloat);
    target.SetDataMatrixOrientation(true);
}

// Writes the samples block by block; false when cancelled.
bool WriteSamples(CFilelib& source, const exportkit::Window& w, FILE* out, ecProgressDlg* progress)
{
    const size_t channels = w.channels.size();
    exportkit::WindowReader reader(source, w, kWriter, progress);
    std::vector<uint8_t> bytes;
    while (reader.Next()) {
        const size_t n = static_cast<size_t>(reader.Slices());
        bytes.assign(n * channels * 4, 0);
        for (size_t c = 0; c < channels; ++c) {
            const float* row = reader.Row(c);
            for (size_t s = 0; s < n; ++s) {
                const uint32_t bits = FloatToBits(row[s]);
                uint8_t* p = &bytes[(s * channels + c) * 4];
                p[0] = bits & 0xFF;
                p[1] = (bits >> 8) & 0xFF;
                p[2] = (bits >> 16) & 0xFF;
                p[3] = bits >> 24;
            }
        }
        if (std::fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size())
            exportkit::Fail(kWriter, "Cannot write the samples.");
    }
    return !reader.Cancelled();
}

}  // namespace

int WriteGenericCopy(CFilelib& source, const std::string& dataFile, ecProgressDlg* progress,
                     const ecSelection& selection)
{
    const exportkit::Window w = exportkit::Resolve(source, selection, kWriter);
    CGeneric target(dataFile.c_str());
    CopyMetadata(source, target, w);
    exportkit::StagedFiles staged(kWriter, {dataFile, dataFile + ".evt", target.GetHeaderFileName()});
    if (!staged.WriteBinary(0, [&](FILE* out) { return WriteSamples(source, w, out, progress); }))
        return -1;
    target.SetNumSlices(static_cast<int>(w.count));

    ecEventList events;
    for (const ecEvent& e : exportkit::WindowEvents(source, w))
        events.AppendOneEvent(e);
    if (!WriteEventFile(events, staged.Temp(1).c_str()))
        exportkit::Fail(kWriter, "Cannot write " + dataFile + ".evt");
    std::ostringstream header;
    target.WriteHeaderText(header, true);
    staged.WriteText(2, header.str());
    staged.Commit();
    return static_cast<int>(w.count);
}
