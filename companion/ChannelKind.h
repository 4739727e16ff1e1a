// Channel kinds named by labels. Most formats store no channel kind beyond EEG, so the kind of
// such a channel is read from its label the way EDF+ ("EOG Left") and MNE-Python ("STI 014",
// "EKG") name channels.
#pragma once

#include <string>

#include "companion/Export.h"

// The kind a label's prefix names: "EOG", "ECG" (ECG and EKG), "EMG", "resp", "trigger" (STI and
// TRIG) or "EEG"; empty when the label names none. Case and leading blanks do not matter.
FILELIB_API std::string InferChannelType(const std::string& label);
