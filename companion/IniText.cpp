#include "companion/IniText.h"

#include <fstream>
#include <sstream>

#include "companion/Utility.h"

namespace {
bool ValidUtf8(const std::string& s)
{
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        if (len == 0 || i + len > s.size())
            return false;
        for (size_t k = 1; k < len; ++k)
            if ((static_cast<unsigned char>(s[i + k]) >> 6) != 2)
                return false;
        i += len;
    }
    return true;
}

std::string Latin1ToUtf8(const std::string& s)
{
    std::string out;
    out.reserve(s.size() + s.size() / 8);
    for (unsigned char c : s) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}
}  // namespace

std::string TextAsUtf8(std::string bytes)
{
    if (bytes.compare(0, 3, "\xEF\xBB\xBF") == 0)
        bytes.erase(0, 3);
    return ValidUtf8(bytes) ? bytes : Latin1ToUtf8(bytes);
}

std::string LowerAscii(std::string s)
{
    for (char& c : s)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    return s;
}

ecIniText::ecIniText(const std::string& text, const std::string& freeTextSection) { Parse(text, freeTextSection); }

bool ReadLimitedFile(const std::string& path, size_t limitBytes, std::string& bytes)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    in.seekg(0, std::ios::end);
    const std::streamoff size = in.tellg();
    if (size < 0 || static_cast<unsigned long long>(size) > limitBytes)
        return false;
    in.seekg(0);
    bytes.assign(static_cast<size_t>(size), '\0');
    return size == 0 || static_cast<bool>(in.read(&bytes[0], size));
}

bool ecIniText::ReadFile(const std::string& path, size_t limitBytes, const std::string& freeTextSection)
{
    std::string bytes;
    if (!ReadLimitedFile(path, limitBytes, bytes))
        return false;
    Parse(bytes, freeTextSection);
    return true;
}

void ecIniText::Parse(const std::string& text, const std::string& freeTextSection)
{
    m_sections.clear();
    const std::string stop = LowerAscii(freeTextSection);
    std::istringstream in(TextAsUtf8(text));
    std::string section;
    for (std::string line; std::getline(in, line);) {
        line = TrimBlanks(line);
        if (line.empty() || line[0] == ';')
            continue;
        if (line[0] == '[') {
            section = LowerAscii(TrimBlanks(line.substr(1, line.find(']') - 1)));
            if (!stop.empty() && section == stop)
                break;
            continue;
        }
        const size_t eq = line.find('=');
        if (eq != std::string::npos && !section.empty())
            m_sections[section][LowerAscii(TrimBlanks(line.substr(0, eq)))] = TrimBlanks(line.substr(eq + 1));
    }
}

const ecIniText::Section* ecIniText::Find(const std::string& section) const
{
    const auto s = m_sections.find(LowerAscii(section));
    return s == m_sections.end() ? nullptr : &s->second;
}

std::string ecIniText::Get(const std::string& section, const std::string& key) const
{
    const Section* s = Find(section);
    if (!s)
        return std::string();
    const auto k = s->find(LowerAscii(key));
    return k == s->end() ? std::string() : k->second;
}
