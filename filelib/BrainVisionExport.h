// Writing a recording, or a window and channels of it, as BrainVision: header (.vhdr), markers
// (.vmrk) and multiplexed little-endian samples (.eeg), the header naming the other two by their
// names alone (they lie beside it).
//
// Samples. IEEE_FLOAT_32 (the default): every sample exactly as the reader delivers it, with
// resolution 1 in the delivered unit; voltages are delivered in volts and so written with unit
// "V", which BrainVision readers (this library's, MNE-Python's) scale by 1, so the float32
// values read back bit for bit. INT_16 (on request): voltages in uV; a channel whose samples all
// lie on the reader's grid, with no offset and within 16 bits, gets the reader's scale as its
// resolution (stored counts are the source's own); any other gets the finest resolution that
// covers its largest magnitude, reported as a warning.
// Channels without a unit are written with unit "n/a" (a BrainVision channel without a unit is
// read as uV).
//
// Markers. "Mk1=New Segment,,1,1,0,<yyyymmddhhmmssuuuuuu>" opens the file where the recording
// states its date and time; every epoch start of a multi-epoch source and every segment boundary
// is a "New Segment" marker; every other event "Type,Description,position,size,0" with the
// name split at its first '/' (a name without one is all type, as this library reads "Type"
// back), position counted from 1, size = the event's length in slices or 1 for an instant.
// Commas in names are written "\1".
#pragma once

#include <string>
#include <vector>

#include "filelib/Selection.h"
#include "filelib/filelib.h"

// The header, marker and data files written for `header` (the header first).
std::vector<std::string> BrainVisionFilesOf(const std::string& header);
// Returns, raises and stages its files as WriteCopy (Writers.h).
int WriteBrainVisionCopy(CFilelib& source, const std::string& header, bool int16, const ecSelection& selection,
                         ecProgressDlg* progress, std::vector<std::string>& warnings);
