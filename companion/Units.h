// Physical units as headers spell them.
#pragma once

#include <string>

// Volts per one of `unit`: 1e-9 for nV, 1e-6 for µV (micro sign, Greek mu, Latin-1 byte or
// "uV"), 1e-3 for mV, 1 for V. 0 for anything else, a unit that is not a voltage (µS, C, ...)
// or an empty text: the caller decides what those mean. Case matters ("MV" is not "mV").
double VoltsPerUnit(const std::string& unit);
