// Writing a recording, or a window and channels of it, in any of the formats the library writes.
#pragma once

#include "companion/Export.h"

#include <string>
#include <vector>

#include "filelib/Selection.h"
#include "filelib/filelib.h"

// Generic: the library's own format (GenericExport.h). EDF and BDF: EDF+ with 16-bit and BDF+
// with 24-bit samples (EdfExport.h). BrainVision: .vhdr + .vmrk + .eeg with IEEE_FLOAT_32
// samples, BrainVisionInt16 the same with INT_16 samples and a resolution per channel
// (BrainVisionExport.h).
enum class ecOutputFormat { Generic, EDF, BDF, BrainVision, BrainVisionInt16 };

// The format a target's extension names (.edf, .bdf, .vhdr, in any letter case); any other: Generic.
FILELIB_API ecOutputFormat OutputFormatOf(const std::string& path);
// The files WriteCopy writes for `target`, the file that names the others first.
FILELIB_API std::vector<std::string> OutputFilesOf(const std::string& target, ecOutputFormat format);

// Writes the selected part of `source` to `target` in `format`. Every output is written beside its
// target as target.part and renamed into place only when all are complete, so a cancel or an
// error leaves existing files as they were; an existing target is replaced (whether that is
// wanted, and that no output is one of the source's files, is the caller's to check).
// Returns the slices written, or -1 when the progress object cancelled; raises ecError when the
// selection lies outside the recording, the source cannot be read or an output cannot be written.
// Texts that the format's fields cannot hold in full (EDF labels, units, filter texts ...) are
// written shortened and reported in `warnings`, one line each, when given.
FILELIB_API int WriteCopy(CFilelib& source, const std::string& target, ecOutputFormat format,
                          const ecSelection& selection, ecProgressDlg* progress,
                          std::vector<std::string>* warnings = nullptr);
