// A small DOM XML reader: elements, character data, the predefined and numeric entities,
// comments, CDATA, the XML declaration and DOCTYPE. Attributes are kept by name (values with their
// entities resolved).
// Malformed input makes Read return false; nothing is ever read past the text.
#pragma once

#include "companion/Export.h"

#include <map>
#include <memory>
#include <string>
#include <vector>

struct ecXmlNode {
    std::string name;
    std::string text;  // concatenated character data directly inside the element
    std::vector<std::shared_ptr<ecXmlNode>> children;
    std::vector<std::pair<std::string, std::string>> attributes;  // name, value, in document order
};

class FILELIB_API ecXml {
public:
    ecXml() = default;

    // A path, or XML text when the string starts with '<' after blanks. False on any error.
    bool Read(const std::string& pathOrText);
    void Free();
    bool IsValid() const { return static_cast<bool>(m_node); }
    std::string GetName() const;

    // Lookups search the direct children first, then the descendants depth-first.
    ecXml Sub(const std::string& tag) const;
    bool TagExists(const std::string& tag) const;
    // Missing tags or unparsable text give 0 / false / 0.0 / "".
    int GetInt(const std::string& tag) const;
    bool GetBool(const std::string& tag) const;
    float GetFloat(const std::string& tag) const;
    std::string GetString(const std::string& tag) const;
    // The element's own character data. After Read the object stands on the document: its name,
    // character data, children and sequential readers are those of the root element, and
    // Sub(<root name>) gives the root itself.
    std::string CharacterData() const;
    // The value of the element's attribute `name`; "" when it has none of that name.
    std::string Attribute(const std::string& name) const;
    // Every direct child element with that tag, in document order.
    std::vector<ecXml> Children(const std::string& tag) const;

    // Sequential readers over repeated direct children: each call takes the next occurrence of
    // the tag (one cursor per tag name, kept in this object).
    // Next occurrence's value; 0 when there is none left.
    unsigned int GetUnsignedIntNext(const std::string& tag);
    // Copies the next occurrence's character data into out (at most size-1 bytes, always
    // terminated); restart != 0 rewinds the cursor first. Returns the length copied, -1 when
    // there is none left.
    int CharacterDataNext(char* out, const std::string& tag, int size, int restart);
    // Next occurrence of an element holding <Begin>, <End> and <Name> children (as the
    // product's event sections do): fills begin, end and name (size as above). restart as above.
    bool GetBeginEnd(int& begin, int& end, const std::string& tag, char* name, int size, int restart);

private:
    explicit ecXml(std::shared_ptr<ecXmlNode> node) : m_node(std::move(node)) {}
    std::shared_ptr<ecXmlNode> Find(const std::string& tag) const;
    const ecXmlNode* Element() const;
    const ecXmlNode* NextOccurrence(const std::string& tag, bool restart);

    std::shared_ptr<ecXmlNode> m_node;
    std::map<std::string, size_t> m_cursors;
};

// Parses XML text into a tree; returns null on malformed input. Exposed for tests and fuzzing.
FILELIB_API std::shared_ptr<ecXmlNode> ParseXmlText(const std::string& text);

// Text made safe for element content and attribute values (the parser reads it back).
FILELIB_API std::string XmlEscaped(const std::string& text);
