// INI / key=value header text as vendors write it: "[Section]" lines, "key=value" lines and
// ';' comments. Sections and keys match without regard to ASCII letter case, blanks around
// names and values are dropped, and the last of repeated keys wins. Text is held as UTF-8: a
// UTF-8 byte-order mark is dropped, and text that is not valid UTF-8 is taken as Latin-1
// (Windows "ANSI" exports) and re-encoded.
#pragma once

#include <cstddef>
#include <map>
#include <string>

class ecIniText {
public:
    using Section = std::map<std::string, std::string>;  // keys lower-cased

    // `freeTextSection` names a section whose lines are free text: parsing stops there.
    explicit ecIniText(const std::string& text = "", const std::string& freeTextSection = "");

    // Reads a file of at most `limitBytes`; false when it is missing, unreadable or larger.
    bool ReadFile(const std::string& path, size_t limitBytes, const std::string& freeTextSection = "");

    // The value, or "" when the section or key is absent.
    std::string Get(const std::string& section, const std::string& key) const;
    // The section's entries (keys lower-cased), or null when there is no such section.
    const Section* Find(const std::string& section) const;

private:
    void Parse(const std::string& text, const std::string& freeTextSection);

    std::map<std::string, Section> m_sections;  // names lower-cased
};

// The bytes of a file of at most `limitBytes`; false when it is missing, unreadable or larger.
bool ReadLimitedFile(const std::string& path, size_t limitBytes, std::string& bytes);
// Bytes as UTF-8 text: the byte-order mark dropped, Latin-1 re-encoded unless valid UTF-8.
std::string TextAsUtf8(std::string bytes);
// ASCII letters lower-cased.
std::string LowerAscii(std::string s);
