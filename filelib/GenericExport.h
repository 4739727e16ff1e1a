// Writing any recording in the generic format.
#pragma once

#include "companion/Export.h"

#include <string>

#include "filelib/Selection.h"
#include "filelib/filelib.h"

// Writes the selected window and channels of the recording open in `source` (all of it by
// default) as a generic file pair that reads back through detection with the same metadata and
// samples:
//  - dataFile: the samples as delivered by source.ReadData (physical units, calibration
//    applied), little-endian 32-bit floats, slice after slice ("Float", "Slice_Mode");
//  - dataFile.orva_hdr: the header, every channel's scale 1 (the samples are already scaled),
//    with NumEpochs and EpochSlices added so that multi-epoch runs keep their epochs;
//  - dataFile.evt: the events (segment boundaries are rebuilt from the epochs on reading).
// A window of whole epochs keeps them; any other window is one continuous run. Events with their
// onset in the window are kept, counted from its start.
// Reads and writes in blocks of 5000 slices; with a progress object, one step per block.
// The files are written under temporary names beside their targets (target.part) and renamed
// into place only when all three are complete, so a cancel or an error leaves existing files
// as they were. Returns the number of slices written, or -1 when the progress object cancelled.
// Raises ecError when an output file cannot be written (or a read of the source fails).
FILELIB_API int WriteGenericCopy(CFilelib& source, const std::string& dataFile, ecProgressDlg* progress,
                                 const ecSelection& selection = {});
