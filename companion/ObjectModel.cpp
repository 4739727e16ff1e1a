#include "companion/ObjectModel.h"

#include "companion/Xml.h"

int ecBase::operator=(const ecBase& other)
{
    m_lState = other.GetState();
    m_lOption = other.GetOption();
    m_lInstanceType = other.GetInstanceType();
    m_lErrorCode = other.GetErrorCode();
    m_bDirtyFlag = other.IsDirty();
    return 1;
}

int ecBase::operator==(const ecBase& other)
{
    return GetState() == other.GetState() && GetOption() == other.GetOption() &&
                   GetInstanceType() == other.GetInstanceType()
               ? 1
               : 0;
}

bool ecBase::WriteXml(std::ostream& out) const
{
    out << "<state>" << m_lState << "</state>"
        << "<option>" << m_lOption << "</option>"
        << "<ErrorCode>" << m_lErrorCode << "</ErrorCode>"
        << "<InstanceType>" << m_lInstanceType << "</InstanceType>"
        << "<bDirtyFlag>" << (m_bDirtyFlag ? 1 : 0) << "</bDirtyFlag>";
    return true;
}

bool ecBase::ReadXml(ecXml& xml)
{
    m_lState = xml.GetInt("state");
    m_lOption = xml.GetInt("option");
    m_lErrorCode = xml.GetInt("ErrorCode");
    if (xml.TagExists("InstanceType"))
        m_lInstanceType = xml.GetInt("InstanceType");
    if (xml.TagExists("bDirtyFlag"))
        m_bDirtyFlag = xml.GetBool("bDirtyFlag");
    return true;
}

void ecLabeledState::CopyLabel(const ecLabeledState& other)
{
    m_sLabel = other.m_sLabel;
    m_sDataUnit = other.m_sDataUnit;
    m_bUseDataUnit = other.m_bUseDataUnit;
    m_bUseSIPrefix = other.m_bUseSIPrefix;
}

int ecLabeledState::operator=(const ecLabeledState& other)
{
    ecBase::operator=(other);
    CopyLabel(other);
    return 1;
}

int ecLabeledState::operator==(ecLabeledState& other)
{
    return GetState() == other.GetState() && GetOption() == other.GetOption() &&
                   m_sLabel == other.m_sLabel && m_sDataUnit == other.m_sDataUnit &&
                   m_bUseDataUnit == other.m_bUseDataUnit && m_bUseSIPrefix == other.m_bUseSIPrefix
               ? 1
               : 0;
}

bool ecLabeledState::WriteXml(std::ostream& out) const
{
    out << "<item>"
        << "<l>" << m_sLabel << "</l>"
        << "<s>" << GetState() << "</s>"
        << "<DataUnit>" << m_sDataUnit << "</DataUnit>"
        << "<UseDataUnit>" << (m_bUseDataUnit ? 1 : 0) << "</UseDataUnit>"
        << "<UseSIPrefix>" << (m_bUseSIPrefix ? 1 : 0) << "</UseSIPrefix>"
        << "</item>";
    return true;
}

bool ecLabeledState::ReadXml(ecXml& xml)
{
    ecXml item = xml.Sub("item");
    m_sLabel = item.GetString("l");
    SetState(item.GetInt("s"));
    if (item.TagExists("DataUnit"))
        m_sDataUnit = item.GetString("DataUnit");
    if (item.TagExists("UseDataUnit"))
        m_bUseDataUnit = item.GetBool("UseDataUnit");
    if (item.TagExists("UseSIPrefix"))
        m_bUseSIPrefix = item.GetBool("UseSIPrefix");
    item.Free();
    return true;
}
