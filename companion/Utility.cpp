#include "companion/Utility.h"

#include "companion/ObjectModel.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <utility>

int SplitFields(std::string& line, std::vector<std::string>& fields, const std::string& separators)
{
    fields.clear();
    size_t pos = 0;
    while (pos < line.size()) {
        size_t start = line.find_first_not_of(separators, pos);
        if (start == std::string::npos)
            break;
        size_t end = line.find_first_of(separators, start);
        if (end == std::string::npos)
            end = line.size();
        fields.push_back(line.substr(start, end - start));
        pos = end;
    }
    return static_cast<int>(fields.size());
}

std::string MidString(std::string s, int start, int count)
{
    if (start < 0 || count <= 0 || static_cast<size_t>(start) >= s.size())
        return std::string();
    return s.substr(static_cast<size_t>(start), static_cast<size_t>(count));
}

std::string LeftString(std::string s, int count) { return MidString(std::move(s), 0, count); }

std::string RightString(std::string s, int count)
{
    if (count <= 0)
        return std::string();
    size_t n = std::min(s.size(), static_cast<size_t>(count));
    return s.substr(s.size() - n);
}

std::string TrimBlanks(const std::string& s)
{
    const size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos)
        return std::string();
    return s.substr(b, s.find_last_not_of(" \t\r\n") - b + 1);
}

std::string IsoDate(long long year, const std::string& month, long long day)
{
    static const char* names[] = {"jan", "feb", "mar", "apr", "may", "jun", "jul", "aug", "sep", "oct", "nov", "dec"};
    long long m = 0;
    if (!ParseInteger(month, m))
        for (int i = 0; i < 12; ++i)
            if (IsEqual(month, names[i], false))
                m = i + 1;
    if (m < 1 || m > 12 || day < 1 || day > 31 || year < 0 || (year >= 100 && year < 1000) || year > 9999)
        return "";
    if (year < 100)
        year += year < 69 ? 2000 : 1900;
    char text[16];
    std::snprintf(text, sizeof text, "%04lld-%02lld-%02lld", year, m, day);
    return text;
}

std::string ClockTime(long long hour, long long minute, double second)
{
    if (hour < 0 || hour > 23 || minute < 0 || minute > 59 || !(second >= 0 && second < 61))
        return "";
    char text[32];
    if (second == std::floor(second))
        std::snprintf(text, sizeof text, "%02lld:%02lld:%02d", hour, minute, static_cast<int>(second));
    else
        std::snprintf(text, sizeof text, "%02lld:%02lld:%09.6f", hour, minute, second);
    return text;
}

std::pair<std::string, std::string> UtcDateAndTime(long long seconds)
{
    const std::time_t t = static_cast<std::time_t>(seconds);
    std::tm tm{};
    char date[32] = "", time[32] = "";
    if (gmtime_r(&t, &tm)) {
        std::strftime(date, sizeof date, "%Y-%m-%d", &tm);
        std::strftime(time, sizeof time, "%H:%M:%S", &tm);
    }
    return {date, time};
}

std::string FilterText(double highPass, double lowPass, double notch)
{
    std::string text;
    const std::pair<const char*, double> parts[] = {{"HP:", highPass}, {"LP:", lowPass}, {"N:", notch}};
    for (const auto& [label, hertz] : parts) {
        if (!(hertz > 0 && std::isfinite(hertz)))
            continue;
        char value[32];
        std::snprintf(value, sizeof value, "%gHz", hertz);
        text += (text.empty() ? "" : " ") + std::string(label) + value;
    }
    return text;
}

bool ParseInteger(const std::string& text, long long& out)
{
    const std::string t = TrimBlanks(text);
    if (t.empty())
        return false;
    errno = 0;
    char* stop = nullptr;
    out = std::strtoll(t.c_str(), &stop, 10);
    return errno == 0 && *stop == '\0';
}

bool ParseReal(const std::string& text, double& out)
{
    const std::string t = TrimBlanks(text);
    if (t.empty())
        return false;
    char* stop = nullptr;
    out = std::strtod(t.c_str(), &stop);
    return *stop == '\0' && std::isfinite(out);
}

int ToUpper(std::string& s)
{
    for (char& c : s)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return static_cast<int>(s.size());
}

bool IsEqual(const std::string& a, const std::string& b, bool caseSensitive)
{
    if (caseSensitive)
        return a == b;
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

int GetLineFromFile(FILE* fp, char* buffer, int size)
{
    if (!fp || !buffer || size <= 0)
        return -1;
    int len = 0;
    int c = 0;
    bool any = false;
    while ((c = std::fgetc(fp)) != EOF) {
        any = true;
        if (c == '\n')
            break;
        if (len < size - 1)
            buffer[len++] = static_cast<char>(c);
    }
    if (len > 0 && buffer[len - 1] == '\r')
        --len;
    buffer[len] = '\0';
    return any ? len : -1;
}

namespace {
size_t LastSeparator(const std::string& path)
{
    return path.find_last_of("/\\");
}
}  // namespace

std::string GetFileNameDirectory(const std::string& path)
{
    size_t sep = LastSeparator(path);
    return sep == std::string::npos ? std::string() : path.substr(0, sep + 1);
}

std::string GetFileNameExtension(const std::string& path)
{
    size_t sep = LastSeparator(path);
    size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (sep != std::string::npos && dot < sep))
        return std::string();
    return path.substr(dot + 1);
}

std::string GetFileNameNoExtension(const std::string& path)
{
    size_t sep = LastSeparator(path);
    size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (sep != std::string::npos && dot < sep))
        return path;
    return path.substr(0, dot);
}

namespace {
template <typename T>
void Reverse(const T* in, T* out)
{
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, in, sizeof(T));
    std::reverse(bytes, bytes + sizeof(T));
    std::memcpy(out, bytes, sizeof(T));
}
}  // namespace

void swaf(float* in, float* out) { Reverse(in, out); }
void swad(double* in, double* out) { Reverse(in, out); }
void swal(long* in, long* out) { Reverse(in, out); }

bool HostIsLittleEndian()
{
    const uint16_t probe = 1;
    unsigned char first = 0;
    std::memcpy(&first, &probe, 1);
    return first == 1;
}

void swad_ieeebi64(double* in, double* out)
{
    if (HostIsLittleEndian())
        Reverse(in, out);
    else
        std::memcpy(out, in, sizeof(double));
}

long long FileLength(FILE* fp)
{
    if (!fp || fseeko(fp, 0, SEEK_END) != 0)
        return -1;
    const long long size = ftello(fp);
    return fseeko(fp, 0, SEEK_SET) == 0 ? size : -1;
}

bool SeekTo(FILE* fp, long long offset)
{
    return fp && offset >= 0 && fseeko(fp, static_cast<off_t>(offset), SEEK_SET) == 0;
}

size_t ReadAt(FILE* fp, long long offset, void* buffer, size_t bytes)
{
    if (!SeekTo(fp, offset))
        return 0;
    return std::fread(buffer, 1, bytes, fp);
}

void CheckHeaderSize(long long bytes, long long fileSize, long long perFileByte, const std::string& who)
{
    if (bytes >= 0 && fileSize >= 0 && bytes / std::max(1LL, perFileByte) <= fileSize)
        return;
    throw ecError(who + " The header asks for " + std::to_string(bytes) + " bytes, more than a file of " +
                  std::to_string(fileSize) + " bytes can hold.");
}
