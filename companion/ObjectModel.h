// Root object model: ecBase (serialisable state words), ecLabeledState (one channel's label)
// and ecError, the one exception type the library raises.
#pragma once

#include "companion/Export.h"

#include <exception>
#include <ostream>
#include <string>

class ecXml;

enum instanceType : long { itUnknown = 0 };

class FILELIB_API ecBase {
public:
    ecBase() = default;
    explicit ecBase(long instanceType) : m_lInstanceType(instanceType) {}
    ecBase(const ecBase& other) { *this = other; }
    virtual ~ecBase() = default;

    virtual void SetState(long value) { m_lState = value; }
    virtual void SetOption(long value) { m_lOption = value; }
    virtual void SetInstanceType(long value) { m_lInstanceType = value; }
    virtual void SetStateFlag(long bits) { m_lState |= bits; }
    virtual void SetOptionFlag(long bits) { m_lOption |= bits; }
    virtual void ClearStateFlag(long bits) { m_lState &= ~bits; }
    virtual void ClearOptionFlag(long bits) { m_lOption &= ~bits; }
    virtual long GetState() const { return m_lState; }
    virtual long GetOption() const { return m_lOption; }
    virtual long GetInstanceType() const { return m_lInstanceType; }
    virtual void SetDirty(bool dirty) { m_bDirtyFlag = dirty; }
    virtual bool IsDirty() const { return m_bDirtyFlag; }
    virtual long GetErrorCode() const { return m_lErrorCode; }
    // Copies every field through the source's virtual getters; returns 1.
    virtual int operator=(const ecBase& other);
    // Equality ignores the error code and the dirty flag on purpose.
    virtual int operator==(const ecBase& other);

    bool WriteXml(std::ostream& out) const;
    bool ReadXml(ecXml& xml);

private:
    long m_lState = 0;
    long m_lOption = 0;
    long m_lErrorCode = 0;
    long m_lInstanceType = 0;
    bool m_bDirtyFlag = false;
};

class FILELIB_API ecLabeledState : public ecBase {
public:
    ecLabeledState() = default;
    ecLabeledState(const ecLabeledState& other) : ecBase(other) { CopyLabel(other); }
    ecLabeledState(const std::string& label, const std::string& unit) : m_sLabel(label), m_sDataUnit(unit) {}

    virtual void SetLabel(std::string label) { m_sLabel = std::move(label); }
    virtual std::string GetLabel() { return m_sLabel; }
    virtual void SetDataUnit(std::string unit) { m_sDataUnit = std::move(unit); }
    virtual std::string GetDataUnit() { return m_sDataUnit; }
    virtual void SetUseDataUnit(bool use) { m_bUseDataUnit = use; }
    virtual bool UseDataUnit() const { return m_bUseDataUnit; }
    virtual void SetUseSIPrefix(bool use) { m_bUseSIPrefix = use; }
    virtual bool UseSIPrefix() const { return m_bUseSIPrefix; }
    virtual int operator=(const ecLabeledState& other);
    virtual int operator==(ecLabeledState& other);

    // Non-virtual read access for const callers (matrix labels are often inspected through const refs).
    const std::string& Label() const { return m_sLabel; }
    const std::string& DataUnit() const { return m_sDataUnit; }

    bool WriteXml(std::ostream& out) const;
    bool ReadXml(ecXml& xml);

private:
    void CopyLabel(const ecLabeledState& other);

    std::string m_sLabel;
    std::string m_sDataUnit;
    bool m_bUseDataUnit = false;
    bool m_bUseSIPrefix = false;
};

class FILELIB_API ecError : public std::exception {
public:
    ecError(const char* message, int kind, int code, int i1, int i2)
        : m_iCode(code), m_i1(i1), m_i2(i2), m_iKind(kind), m_sMessage(message ? message : "") {}
    explicit ecError(const std::string& message, int kind = 1, int code = 0, int i1 = -1, int i2 = -1)
        : ecError(message.c_str(), kind, code, i1, i2) {}

    const char* what() const noexcept override { return m_sMessage.c_str(); }
    int GetKind() const { return m_iKind; }
    int GetCode() const { return m_iCode; }
    int GetInt1() const { return m_i1; }
    int GetInt2() const { return m_i2; }

private:
    int m_iCode;
    int m_i1;
    int m_i2;
    int m_iKind;
    std::string m_sMessage;
};
