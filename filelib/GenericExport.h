// Writing any recording in the generic format.
#pragma once

#include "companion/Export.h"

#include <string>
#include <vector>

#include "filelib/filelib.h"

// Output files written under temporary names beside their targets (target.part) and renamed
// into place only when all are complete: a failure or a cancel leaves the targets as they were.
// A temporary name is claimed by creating the file exclusively, so no existing file is ever
// touched; the temporaries left at destruction are removed. Errors read "[who] ...".
class FILELIB_API ecStagedFiles {
public:
    ecStagedFiles(const std::vector<std::string>& targets, std::string who);
    ~ecStagedFiles();
    ecStagedFiles(const ecStagedFiles&) = delete;
    ecStagedFiles& operator=(const ecStagedFiles&) = delete;

    const std::string& Temp(size_t i) const { return m_temps[i]; }
    // Renames the files into place in the order given (a pair's header last).
    void Commit();

private:
    std::string Claim(const std::string& target) const;

    std::vector<std::string> m_targets;
    std::string m_who;
    std::vector<std::string> m_temps;
};

// Writes the recording open in `source` as a generic file pair that reads back through
// detection with the same metadata and samples:
//  - dataFile: the samples as delivered by source.ReadData (physical units, calibration
//    applied), little-endian 32-bit floats, slice after slice ("Float", "Slice_Mode");
//  - dataFile.orva_hdr: the header, every channel's scale 1 (the samples are already scaled),
//    with NumEpochs and EpochSlices added so that multi-epoch runs keep their epochs;
//  - dataFile.evt: the events (segment boundaries are rebuilt from the epochs on reading).
// Reads and writes in blocks of 5000 slices; with a progress object, one step per block.
// The files are written under temporary names beside their targets (target.part) and renamed
// into place only when all three are complete, so a cancel or an error leaves existing files
// as they were. Returns the number of slices written, or -1 when the progress object cancelled.
// Raises ecError when an output file cannot be written (or a read of the source fails).
FILELIB_API int WriteGenericCopy(CFilelib& source, const std::string& dataFile, ecProgressDlg* progress);
