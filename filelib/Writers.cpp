#include "filelib/Writers.h"

#include "companion/Utility.h"
#include "filelib/BrainVisionExport.h"
#include "filelib/EdfExport.h"
#include "filelib/GenericExport.h"

ecOutputFormat OutputFormatOf(const std::string& path)
{
    const std::string extension = GetFileNameExtension(path);
    if (IsEqual(extension, "edf", false))
        return ecOutputFormat::EDF;
    if (IsEqual(extension, "bdf", false))
        return ecOutputFormat::BDF;
    if (IsEqual(extension, "vhdr", false))
        return ecOutputFormat::BrainVision;
    return ecOutputFormat::Generic;
}

std::vector<std::string> OutputFilesOf(const std::string& target, ecOutputFormat format)
{
    switch (format) {
    case ecOutputFormat::EDF:
    case ecOutputFormat::BDF:
        return {target};
    case ecOutputFormat::BrainVision:
    case ecOutputFormat::BrainVisionInt16:
        return BrainVisionFilesOf(target);
    case ecOutputFormat::Generic:
        break;
    }
    return {target, target + ".orva_hdr", target + ".evt"};
}

int WriteCopy(CFilelib& source, const std::string& target, ecOutputFormat format, const ecSelection& selection,
              ecProgressDlg* progress, std::vector<std::string>* warnings)
{
    std::vector<std::string> ignored;
    std::vector<std::string>& said = warnings ? *warnings : ignored;
    switch (format) {
    case ecOutputFormat::EDF:
    case ecOutputFormat::BDF:
        return WriteEdfCopy(source, target, format == ecOutputFormat::BDF ? 3 : 2, selection, progress, said);
    case ecOutputFormat::BrainVision:
    case ecOutputFormat::BrainVisionInt16:
        return WriteBrainVisionCopy(source, target, format == ecOutputFormat::BrainVisionInt16, selection, progress,
                                    said);
    case ecOutputFormat::Generic:
        break;
    }
    return WriteGenericCopy(source, target, progress, selection);
}
