// Writing a recording, or a window and channels of it, as EDF+ (16-bit samples) or BDF+ (24-bit).
//
// Digital and physical ranges. Each channel is stored as digital values d with
// physical = (d - dmin) x (pmax - pmin) / (dmax - dmin) + pmin, all four fields printed in 8
// characters. A first pass over the written window decides the rule per channel:
//  - integer sources: when every sample lies on the reader's grid (value = n x scale + offset,
//    n whole) and the grid values of the window fit the sample width, the step is the reader's
//    scale and the stored digital value is n (shifted by a whole number where the range would
//    not fit the width otherwise). dmin and dmax are the width's ends when 8 characters print
//    their physical values to a hundredth of a step (exactly for a short decimal step such as
//    0.1 uV; a source that used the whole width had these very fields in its own header), else
//    the digital values near the width's ends or the window's own ends whose physical values
//    print closest (exactly where any do). So the file's step is the source's own and the
//    samples read back as the source delivered them;
//  - any other channel (float samples, calibrated values, integer ranges too wide for 16 bits)
//    gets the finest step that covers its range over the window: dmin and dmax the width's
//    ends, pmin and pmax the window's minimum and maximum (a constant channel gets pmax =
//    pmin + 1).
// An integer channel is written in the first unit (uV, mV, V for voltages; fT ... T for magnetic
// fields) whose ends print exactly, else the one printing them closest if that is within a
// hundredth of a step, else it gets the covering step, in the unit that keeps its largest value
// below 1e5; other units as the source states them.
//
// Records. Channels whose stored rate (ecRecordingInfo::channelRates) is the recording's rate
// divided by a whole number k are written at that rate, every k-th slice of the window; the
// record holds a whole number of samples of every channel, and its duration prints exactly in 8
// characters, divides the window where that allows a record of at least 0.1 s, and is otherwise
// as near one second as it can be. A window that fills no whole number of records has its last
// record completed with zeros (reported as a warning).
//
// Header: version "0", the EDF+ patient field "code sex birthdate name" and recording field
// "Startdate dd-MMM-yyyy X X X description" (X for what the source does not state), start date
// and time (01.01.85 00.00.00 when unknown), "EDF+C" / "BDF+C". Text that does not fit its field
// or is not printable ASCII is shortened or replaced with '_' and reported as a warning.
//
// Annotations: an "EDF Annotations" ("BDF Annotations") signal holding, per record, the
// time-keeping TAL and then one TAL per event with its onset in the record (onset and duration in
// seconds from the window's start, the event's name as text), sized for the densest record. The
// epochs of a multi-epoch source are written one after the other, each start marked with an
// "Epoch start" annotation; segment boundaries are annotations like any other event.
#pragma once

#include <string>
#include <vector>

#include "filelib/Selection.h"
#include "filelib/filelib.h"

// bytesPerSample 2: EDF+, 3: BDF+. Returns, raises and stages its file as WriteCopy (Writers.h).
int WriteEdfCopy(CFilelib& source, const std::string& target, int bytesPerSample, const ecSelection& selection,
                 ecProgressDlg* progress, std::vector<std::string>& warnings);
