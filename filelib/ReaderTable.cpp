#include "filelib/ReaderTable.h"

#include <algorithm>
#include <cstdio>

#include "companion/Utility.h"
#include "filelib/readers/ANT.h"
#include "filelib/readers/BrainVision.h"
#include "filelib/readers/CFWB.h"
#include "filelib/readers/CTF.h"
#include "filelib/readers/EDF_BDF.h"
#include "filelib/readers/EGI_MFF.h"
#include "filelib/readers/EGI_Simple.h"
#include "filelib/readers/ERPSS.h"
#include "filelib/readers/FourD.h"
#include "filelib/readers/Generic.h"
#include "filelib/readers/Micromed.h"
#include "filelib/readers/Neuromag_FIFF.h"
#include "filelib/readers/neuroscn.h"
#include "filelib/readers/Nexstim.h"
#include "filelib/readers/Nicolet_BNI.h"
#include "filelib/readers/ORVA_MetaFile.h"
#include "filelib/readers/NihonKohden.h"
#include "filelib/readers/Persyst.h"
#include "filelib/readers/Plexon.h"
#include "filelib/readers/WinDaq.h"
#include "filelib/filelib.h"

namespace {
template <typename Reader>
ecFilebase* Create(const char* fileName)
{
    return new Reader(fileName);
}

bool GenericHeaderParses(ecFilebase& reader) { return static_cast<CGeneric&>(reader).ReadHeader(); }

std::vector<ecReaderEntry> SortedByProbe(std::vector<ecReaderEntry> rows)
{
    std::stable_sort(rows.begin(), rows.end(), [](const ecReaderEntry& a, const ecReaderEntry& b) {
        const int pa = a.probePosition > 0 ? a.probePosition : 1 << 30;
        const int pb = b.probePosition > 0 ? b.probePosition : 1 << 30;
        return pa < pb;
    });
    return rows;
}
}  // namespace

const std::vector<ecReaderEntry>& ReaderTable()
{
    static const std::vector<ecReaderEntry> table = SortedByProbe({
        // code, class, format, probe position, Initialize argument, factory, pre-check
        {kMfrGeneric, "CGeneric", "ORVA generic (.orva_hdr + raw data)", 1, 0, &Create<CGeneric>, &GenericHeaderParses},
        {kMfrMetaFile, "ecORVA_MetaFile", "ORVA metafile (.orva_mf: several recordings as one)", 2, 0,
         &Create<ecORVA_MetaFile>, nullptr},
        {kMfrBDF, "CEDF_BDF", "BDF / BDF+ (BioSemi, 24-bit)", 3, 3, &Create<CEDF_BDF>, nullptr},
        {kMfrEDF, "CEDF_BDF", "EDF / EDF+ (16-bit)", 4, 2, &Create<CEDF_BDF>, nullptr},
        {kMfrNeuroscan, "CNeuroscan", "Neuroscan (.cnt, .eeg, .avg)", 5, 0, &Create<CNeuroscan>, nullptr},
        {kMfrBrainVision, "BrainVision", "BrainVision (.vhdr/.ahdr + .vmrk + data)", 6, 0, &Create<BrainVision>, nullptr},
        {kMfrEGI, "CEGI", "EGI / Magstim MFF (.mff folder)", 7, 0, &Create<CEGI>, nullptr},
        {kMfr4D, "FourD", "4D Neuroimaging / BTi MEG (pdf + config)", 16, 0, &Create<FourD>, nullptr},
        {kMfrFIFF, "ecNeuromag_FIFF", "Neuromag / MEGIN FIFF raw and averaged (.fif)", 17, 0, &Create<ecNeuromag_FIFF>, nullptr},
        {kMfrMicromed, "MicroMed", "Micromed System 98 (.TRC)", 20, 0, &Create<MicroMed>, nullptr},
        {kMfrCTF, "CTF", "CTF MEG dataset (.ds folder: .res4 + .meg4)", 18, 0, &Create<CTF>, nullptr},
        {kMfrERPSS, "ecERPSS", "ERPSS raw (compressed or plain records)", 21, 0, &Create<ecERPSS>, nullptr},
        {kMfrANT, "ANT", "ANT Neuro eego / EEProbe (.cnt RIFF and RF64)", 23, 0, &Create<ANT>, nullptr},
        {kMfrEGISimple, "EGI_Simple", "EGI simple binary (.raw)", 8, 0, &Create<EGI_Simple>, nullptr},
        {kMfrNihonKohden, "NihonKoden", "Nihon Kohden (.EEG + .21E, .PNT, .LOG)", 9, 0, &Create<NihonKoden>, nullptr},
        {kMfrDataq, "ecDataq", "DATAQ WinDaq (.wdq, .wdh)", 0, 0, &Create<ecDataq>, nullptr},
        {kMfrPlexon, "ecPlexon", "Plexon (.plx)", 27, 0, &Create<ecPlexon>, nullptr},
        {kMfrCFWB, "ecADInst_CFWB", "ADInstruments Chart binary (CFWB)", 29, 0, &Create<ecADInst_CFWB>, nullptr},
        {kMfrNicoletBNI, "ecNicolet_BNI", "Nicolet BNI-1 (.bni + .eeg) and NicVue export (.head + .data)", 10, 0,
         &Create<ecNicolet_BNI>, nullptr},
        {kMfrNexstim, "ecNexstim", "Nexstim eXimia (.nxe)", 22, 0, &Create<ecNexstim>, nullptr},
        {kMfrPersyst, "PerSyst", "Persyst (.lay + .dat)", 0, 0, &Create<PerSyst>, nullptr},
    });
    return table;
}

namespace {
// Readers detection never tries, by the extension of the files they read. A row counts once its
// reader is in the table.
const struct {
    const char* extension;
    int code;
} kUnprobedByExtension[] = {
    {"lay", kMfrPersyst},
    {"wdq", kMfrDataq},
    {"wdh", kMfrDataq},
};
}  // namespace

int UnprobedReaderByExtension(const std::string& fileName)
{
    const std::string extension = GetFileNameExtension(fileName);
    for (const auto& row : kUnprobedByExtension)
        if (IsEqual(extension, row.extension, false) && FindReader(row.code))
            return row.code;
    return 0;
}

int DetectReader(CFilelib& f, const std::string& path)
{
    std::string name = path;
    const int code = f.GuessFileMFR(name);
    return code != 0 ? code : UnprobedReaderByExtension(path);
}

int OpenRecording(CFilelib& f, const std::string& path, int format)
{
    if (FILE* probe = std::fopen(path.c_str(), "rb"))
        std::fclose(probe);
    else
        throw ecOpenError(ecOpenError::kNotReadable, "cannot open " + path + ": no such file or not readable");
    if (format != 0 && !FindReader(format))
        throw ecOpenError(ecOpenError::kUnknownFormat, "format " + std::to_string(format) +
                                                           " is no reader's code. Supported formats: " +
                                                           SupportedFormatsText() + ".");
    const int code = format != 0 ? format : DetectReader(f, path);
    if (code == 0)
        throw ecOpenError(ecOpenError::kNotRecognised, path + " is not a recording filelib recognises. " +
                                                           "Supported formats: " + SupportedFormatsText() + ".");
    f.SetInputFileName(path.c_str());
    f.SetFileSource(code);
    f.Initialize(0);
    return code;
}

const ecReaderEntry* FindReader(int code)
{
    for (const ecReaderEntry& row : ReaderTable())
        if (row.code == code)
            return &row;
    return nullptr;
}

std::string SupportedFormatsText()
{
    std::string text;
    for (const ecReaderEntry& row : ReaderTable())
        text += (text.empty() ? "" : ", ") + std::string(row.format) + " [" + std::to_string(row.code) + "]";
    return text;
}
