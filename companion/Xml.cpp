#include "companion/Xml.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace {

constexpr int kMaxDepth = 512;
constexpr size_t kMaxXmlFileBytes = 64u << 20;

bool IsNameChar(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == ':' || c == '-' || c == '.' ||
           static_cast<unsigned char>(c) >= 0x80;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

void AppendUtf8(std::string& out, unsigned long cp)
{
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

class Parser {
public:
    explicit Parser(const std::string& text) : s_(text) {}

    std::shared_ptr<ecXmlNode> Document()
    {
        if (!SkipMisc())
            return nullptr;
        if (!Peek('<'))
            return nullptr;
        auto root = Element(0);
        if (!root || !SkipMisc() || pos_ != s_.size())
            return nullptr;
        return root;
    }

private:
    bool Peek(char c) const { return pos_ < s_.size() && s_[pos_] == c; }
    bool StartsWith(const char* lit) const { return s_.compare(pos_, std::strlen(lit), lit) == 0; }
    void SkipBlanks()
    {
        while (pos_ < s_.size() && IsBlank(s_[pos_]))
            ++pos_;
    }
    bool SkipPast(const char* terminator)
    {
        size_t at = s_.find(terminator, pos_);
        if (at == std::string::npos)
            return false;
        pos_ = at + std::strlen(terminator);
        return true;
    }

    // Blanks, comments, processing instructions and a DOCTYPE outside the root element.
    bool SkipMisc()
    {
        for (;;) {
            SkipBlanks();
            if (StartsWith("<?")) {
                if (!SkipPast("?>"))
                    return false;
            } else if (StartsWith("<!--")) {
                if (!SkipPast("-->"))
                    return false;
            } else if (StartsWith("<!DOCTYPE")) {
                if (!SkipDoctype())
                    return false;
            } else {
                return true;
            }
        }
    }

    bool SkipDoctype()
    {
        int bracket = 0;
        for (; pos_ < s_.size(); ++pos_) {
            char c = s_[pos_];
            if (c == '[')
                ++bracket;
            else if (c == ']')
                --bracket;
            else if (c == '>' && bracket <= 0) {
                ++pos_;
                return true;
            }
        }
        return false;
    }

    bool Name(std::string& out)
    {
        size_t start = pos_;
        while (pos_ < s_.size() && IsNameChar(s_[pos_]))
            ++pos_;
        if (pos_ == start)
            return false;
        out.assign(s_, start, pos_ - start);
        return true;
    }

    bool Attributes(ecXmlNode& node)
    {
        for (;;) {
            SkipBlanks();
            if (Peek('>') || Peek('/'))
                return true;
            std::string name, value;
            if (!Name(name))
                return false;
            SkipBlanks();
            if (!Peek('='))
                return false;
            ++pos_;
            SkipBlanks();
            if (!Peek('"') && !Peek('\''))
                return false;
            const char quote = s_[pos_++];
            while (pos_ < s_.size() && s_[pos_] != quote) {
                if (s_[pos_] == '&') {
                    if (!Entity(value))
                        return false;
                } else {
                    value += s_[pos_++];
                }
            }
            if (pos_ == s_.size())
                return false;
            ++pos_;
            node.attributes.emplace_back(std::move(name), std::move(value));
        }
    }

    bool Entity(std::string& out)
    {
        size_t end = s_.find(';', pos_);
        if (end == std::string::npos || end - pos_ > 12)
            return false;
        std::string ent = s_.substr(pos_ + 1, end - pos_ - 1);
        pos_ = end + 1;
        if (ent == "lt") out += '<';
        else if (ent == "gt") out += '>';
        else if (ent == "amp") out += '&';
        else if (ent == "quot") out += '"';
        else if (ent == "apos") out += '\'';
        else if (ent.size() > 1 && ent[0] == '#') {
            bool hex = ent[1] == 'x' || ent[1] == 'X';
            const char* digits = ent.c_str() + (hex ? 2 : 1);
            if (*digits == '\0')
                return false;
            char* stop = nullptr;
            unsigned long cp = std::strtoul(digits, &stop, hex ? 16 : 10);
            if (*stop != '\0' || cp == 0 || cp > 0x10FFFF)
                return false;
            AppendUtf8(out, cp);
        } else {
            return false;
        }
        return true;
    }

    std::shared_ptr<ecXmlNode> Element(int depth)
    {
        if (depth > kMaxDepth)
            return nullptr;
        ++pos_;  // '<'
        auto node = std::make_shared<ecXmlNode>();
        if (!Name(node->name) || !Attributes(*node))
            return nullptr;
        if (StartsWith("/>")) {
            pos_ += 2;
            return node;
        }
        ++pos_;  // '>'
        return Content(*node, depth) ? node : nullptr;
    }

    bool Content(ecXmlNode& node, int depth)
    {
        while (pos_ < s_.size()) {
            char c = s_[pos_];
            if (c == '&') {
                if (!Entity(node.text))
                    return false;
            } else if (c != '<') {
                node.text += c;
                ++pos_;
            } else if (StartsWith("</")) {
                pos_ += 2;
                std::string closing;
                if (!Name(closing) || closing != node.name)
                    return false;
                SkipBlanks();
                if (!Peek('>'))
                    return false;
                ++pos_;
                return true;
            } else if (StartsWith("<!--")) {
                if (!SkipPast("-->"))
                    return false;
            } else if (StartsWith("<![CDATA[")) {
                size_t start = pos_ + 9;
                size_t end = s_.find("]]>", start);
                if (end == std::string::npos)
                    return false;
                node.text.append(s_, start, end - start);
                pos_ = end + 3;
            } else if (StartsWith("<?")) {
                if (!SkipPast("?>"))
                    return false;
            } else {
                auto child = Element(depth + 1);
                if (!child)
                    return false;
                node.children.push_back(std::move(child));
            }
        }
        return false;
    }

    const std::string& s_;
    size_t pos_ = 0;
};

std::string Trimmed(const std::string& s)
{
    size_t b = 0, e = s.size();
    while (b < e && IsBlank(s[b]))
        ++b;
    while (e > b && IsBlank(s[e - 1]))
        --e;
    return s.substr(b, e - b);
}

bool LooksLikeText(const std::string& s)
{
    const size_t start = s.compare(0, 3, "\xEF\xBB\xBF") == 0 ? 3 : 0;
    for (char c : s.substr(start)) {
        if (IsBlank(c))
            continue;
        return c == '<';
    }
    return false;
}

bool ReadWholeFile(const std::string& path, std::string& out)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        return false;
    in.seekg(0, std::ios::end);
    std::streamoff size = in.tellg();
    if (size < 0 || static_cast<unsigned long long>(size) > kMaxXmlFileBytes)
        return false;
    in.seekg(0);
    out.resize(static_cast<size_t>(size));
    return size == 0 || static_cast<bool>(in.read(&out[0], size));
}

void CopyOut(char* out, int size, const std::string& text)
{
    if (!out || size <= 0)
        return;
    size_t n = std::min(text.size(), static_cast<size_t>(size - 1));
    std::memcpy(out, text.data(), n);
    out[n] = '\0';
}

}  // namespace

std::shared_ptr<ecXmlNode> ParseXmlText(const std::string& text)
{
    // Strip a UTF-8 byte-order mark.
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0)
        return Parser(text.substr(3)).Document();
    return Parser(text).Document();
}

bool ecXml::Read(const std::string& pathOrText)
{
    Free();
    std::string text;
    if (LooksLikeText(pathOrText))
        text = pathOrText;
    else if (!ReadWholeFile(pathOrText, text))
        return false;
    auto root = ParseXmlText(text);
    if (!root)
        return false;
    // A document node above the root, so that Sub(<root name>) finds the root itself.
    m_node = std::make_shared<ecXmlNode>();
    m_node->children.push_back(std::move(root));
    return true;
}

void ecXml::Free()
{
    m_node.reset();
    m_cursors.clear();
}

const ecXmlNode* ecXml::Element() const
{
    if (m_node && m_node->name.empty() && m_node->children.size() == 1)
        return m_node->children.front().get();
    return m_node.get();
}

std::string ecXml::GetName() const { return m_node ? Element()->name : std::string(); }

std::shared_ptr<ecXmlNode> ecXml::Find(const std::string& tag) const
{
    if (!m_node)
        return nullptr;
    for (const auto& child : m_node->children)
        if (child->name == tag)
            return child;
    std::vector<std::shared_ptr<ecXmlNode>> stack(m_node->children.rbegin(), m_node->children.rend());
    while (!stack.empty()) {
        auto n = stack.back();
        stack.pop_back();
        if (n->name == tag)
            return n;
        stack.insert(stack.end(), n->children.rbegin(), n->children.rend());
    }
    return nullptr;
}

ecXml ecXml::Sub(const std::string& tag) const { return ecXml(Find(tag)); }

bool ecXml::TagExists(const std::string& tag) const { return Find(tag) != nullptr; }

std::string ecXml::GetString(const std::string& tag) const
{
    auto n = Find(tag);
    return n ? n->text : std::string();
}

std::string ecXml::CharacterData() const { return m_node ? Element()->text : std::string(); }

std::string ecXml::Attribute(const std::string& name) const
{
    if (m_node)
        for (const auto& [key, value] : Element()->attributes)
            if (key == name)
                return value;
    return std::string();
}

int ecXml::GetInt(const std::string& tag) const
{
    std::string t = Trimmed(GetString(tag));
    long long v = std::strtoll(t.c_str(), nullptr, 10);
    if (v > 2147483647LL || v < -2147483648LL)
        return 0;
    return static_cast<int>(v);
}

bool ecXml::GetBool(const std::string& tag) const
{
    std::string t = Trimmed(GetString(tag));
    return t == "1" || t == "true" || t == "TRUE" || t == "True" || t == "yes";
}

float ecXml::GetFloat(const std::string& tag) const
{
    std::string t = Trimmed(GetString(tag));
    return std::strtof(t.c_str(), nullptr);
}

std::vector<ecXml> ecXml::Children(const std::string& tag) const
{
    std::vector<ecXml> out;
    if (m_node)
        for (const auto& child : Element()->children)
            if (child->name == tag)
                out.push_back(ecXml(child));
    return out;
}

const ecXmlNode* ecXml::NextOccurrence(const std::string& tag, bool restart)
{
    if (!m_node)
        return nullptr;
    size_t& cursor = m_cursors[tag];
    if (restart)
        cursor = 0;
    size_t seen = 0;
    for (const auto& child : Element()->children) {
        if (child->name != tag)
            continue;
        if (seen++ == cursor) {
            ++cursor;
            return child.get();
        }
    }
    return nullptr;
}

unsigned int ecXml::GetUnsignedIntNext(const std::string& tag)
{
    const ecXmlNode* n = NextOccurrence(tag, false);
    if (!n)
        return 0;
    return static_cast<unsigned int>(std::strtoul(Trimmed(n->text).c_str(), nullptr, 10));
}

int ecXml::CharacterDataNext(char* out, const std::string& tag, int size, int restart)
{
    const ecXmlNode* n = NextOccurrence(tag, restart != 0);
    if (!n)
        return -1;
    CopyOut(out, size, n->text);
    return out && size > 0 ? static_cast<int>(std::strlen(out)) : 0;
}

bool ecXml::GetBeginEnd(int& begin, int& end, const std::string& tag, char* name, int size, int restart)
{
    const ecXmlNode* n = NextOccurrence(tag, restart != 0);
    if (!n)
        return false;
    ecXml view;
    view.m_node = std::make_shared<ecXmlNode>(*n);
    begin = view.GetInt("Begin");
    end = view.GetInt("End");
    CopyOut(name, size, view.GetString("Name"));
    return true;
}

std::string XmlEscaped(const std::string& text)
{
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '&') out += "&amp;";
        else if (c == '<') out += "&lt;";
        else if (c == '>') out += "&gt;";
        else if (c == '"') out += "&quot;";
        else out += c;
    }
    return out;
}
