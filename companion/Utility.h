// String, file-name, text-line and byte-order helpers.
#pragma once

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

// Splits a line at any of the separator characters; empty fields between adjacent separators
// are dropped. Returns the number of fields.
int SplitFields(std::string& line, std::vector<std::string>& fields, const std::string& separators);
// Substrings that clamp their ranges instead of throwing.
std::string MidString(std::string s, int start, int count);
std::string LeftString(std::string s, int count);
std::string RightString(std::string s, int count);
// Text without leading and trailing blanks (spaces, tabs, line ends).
std::string TrimBlanks(const std::string& s);
// Whole-field numbers, as header fields hold them: the trimmed text must be one number and
// nothing else. False otherwise, and for integers out of range and reals that are not finite.
bool ParseInteger(const std::string& text, long long& out);
bool ParseReal(const std::string& text, double& out);
// "YYYY-MM-DD" of a calendar date as headers write it in pieces ("29-Apr-2013", "01/03/18");
// empty when the pieces make no date (month 1..12, day 1..31). A month given by name is the
// English three-letter abbreviation; a two-digit year below 69 is of the 2000s, as strptime reads
// it, and a three-digit year (a field cut short) makes no date.
std::string IsoDate(long long year, const std::string& month, long long day);
// "hh:mm:ss" of a time of day ("hh:mm:ss.ffffff" when the seconds have a fraction); empty when
// the pieces make no time of day.
std::string ClockTime(long long hour, long long minute, double second);
// "YYYY-MM-DD" and "hh:mm:ss" of a time in seconds since 1970 (UTC); both empty when the time
// has no calendar date.
std::pair<std::string, std::string> UtcDateAndTime(long long seconds);
// A channel's filter settings as "HP:0.1Hz LP:70Hz N:50Hz"; a cut-off that is not positive (or not
// finite) is left out, and none at all gives "".
std::string FilterText(double highPass, double lowPass, double notch = 0);
// Upper-cases ASCII letters in place; returns the length.
int ToUpper(std::string& s);
// caseSensitive false compares ASCII letters without regard to case.
bool IsEqual(const std::string& a, const std::string& b, bool caseSensitive);
// Reads one line (without its line end, CR LF or LF) into buffer (size bytes, always
// terminated; a longer line is cut and its rest skipped). Returns the length, -1 at end of file.
int GetLineFromFile(FILE* fp, char* buffer, int size);
// Path pieces: directory with its trailing separator ("" when none), extension without the dot
// ("" when none), and the path without its extension.
std::string GetFileNameDirectory(const std::string& path);
std::string GetFileNameExtension(const std::string& path);
std::string GetFileNameNoExtension(const std::string& path);

// Byte reversal: *out receives the byte-reversed value of *in.
void swaf(float* in, float* out);
void swad(double* in, double* out);
void swal(long* in, long* out);
// An IEEE big-endian 64-bit double to the host's double, whatever the host's byte order.
void swad_ieeebi64(double* in, double* out);

bool HostIsLittleEndian();

// The allocation guard of the readers: raises a clear ecError (prefixed by `who`) when a size
// taken from a header is negative or larger than `perFileByte` bytes for every byte of a file of
// `fileSize` bytes could justify. Call it before allocating from any header-derived size.
void CheckHeaderSize(long long bytes, long long fileSize, long long perFileByte, const std::string& who);

// 64-bit file positioning for data paths that pass 2 GiB.
// Length of an open file (the position is left at the start); -1 when unknown.
long long FileLength(FILE* fp);
bool SeekTo(FILE* fp, long long offset);
// Reads up to `bytes` at `offset`; returns the bytes read (0 when the seek fails).
size_t ReadAt(FILE* fp, long long offset, void* buffer, size_t bytes);
