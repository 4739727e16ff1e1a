#include "filelib/filelib.h"

#include <stdexcept>

#include "filelib/ReaderTable.h"
#include "filelib/readers/Generic.h"
#include "filelib/readers/ORVA_MetaFile.h"

namespace {
const char* const kNoReader = ": The time series file is not set properly (pActiveFile=0).";

std::string NoReaderText(const char* method) { return std::string("[CFilelib::") + method + "]" + kNoReader; }

// The facade shows the rows of the channels it counts: an EDF+ annotation signal, the reader's
// last channel, is neither counted nor delivered.
void DropHiddenRow(ecFilebase& reader, ecLabeledMatrix<float>& data)
{
    if (reader.GetFacadeHiddenChannels() > 0) {
        std::string label;
        reader.GetChanName(reader.GetNumChans() - 1, label);
        data.DeleteLabeledRow(label);
    }
}
}  // namespace

ecFilebase& CFilelib::Require(const char* method)
{
    if (!m_activeFile)
        throw std::runtime_error(NoReaderText(method));
    return *m_activeFile;
}

CGeneric* CFilelib::ActiveGeneric()
{
    return m_iFileSource == kMfrGeneric ? dynamic_cast<CGeneric*>(m_activeFile.get()) : nullptr;
}

void CFilelib::SetInputFileName(const char* name)
{
    if (name)
        m_sInputFileName = name;
}

std::string CFilelib::GetInputFileName()
{
    return m_activeFile ? m_activeFile->GetInputFileName() : m_sInputFileName;
}

unsigned int CFilelib::GetFileSource()
{
    if (m_iFileSource == kMfrMetaFile || !m_activeFile)
        return static_cast<unsigned int>(m_iFileSource);
    return static_cast<unsigned int>(m_activeFile->GetFileMFR());
}

int CFilelib::GuessFileMFR(std::string& fileName)
{
    if (m_iFileSource != 0 && m_iRunType != 0)
        return m_iFileSource;
    if (!fileName.empty())
        m_sInputFileName = fileName;
    for (const ecReaderEntry& row : ReaderTable()) {
        if (row.probePosition <= 0)
            continue;
        std::unique_ptr<ecFilebase> reader(row.create(m_sInputFileName.c_str()));
        if (row.passesPreCheck && !row.passesPreCheck(*reader))
            continue;
        try {
            reader->Initialize(0);
        } catch (const ecError& e) {
            // A reader that claimed the file and then failed: the file is damaged, not foreign.
            if (reader->GetFileMFR() == row.code)
                throw ecError(e);
            continue;
        } catch (const std::exception& e) {
            if (reader->GetFileMFR() == row.code)
                throw ecError(e.what(), 1, 0, -1, -1);
            continue;
        } catch (...) {
            continue;
        }
        if (reader->GetFileMFR() != row.code)
            continue;
        m_iRunType = static_cast<int>(reader->GetRunType());
        m_activeFile.reset(reader.release());
        m_iFileSource = row.code;
        return row.code;
    }
    return 0;
}

int CFilelib::GuessFileType(std::string& fileName)
{
    return GuessFileMFR(fileName) != 0 ? m_iRunType : 0;
}

void CFilelib::Initialize(int)
{
    if (m_sInputFileName.empty() && m_iFileSource != kMfrPersyst)
        throw std::runtime_error("[CFilelib::Initialize]: ORVA error - Input file name is null.");
    m_activeFile.reset();
    const ecReaderEntry* row = FindReader(m_iFileSource);
    if (!row)
        return;
    m_activeFile.reset(row->create(m_sInputFileName.c_str()));
    m_activeFile->Initialize(row->initializeArg);
    if (!m_activeFile->GetCalibration().GetSkipCalib())
        m_activeFile->Calibrate();
    m_activeFile->ResolveCalibration();
}

unsigned int CFilelib::GetRunType() { return Require("GetRunType").GetRunType(); }
void CFilelib::GetChanName(int chan, std::string& out) { Require("GetChanName").GetChanName(chan, out); }
// The type getter reports with the name getter's text, and GetPreStim with GetSampleRate's.
int CFilelib::GetChanType(int chan) { return Require("GetChanName").GetChanType(chan); }
float CFilelib::GetChanScale(int chan) { return Require("GetChanScale").GetChanScale(chan); }
void CFilelib::GetChanUnit(int chan, std::string& out) { Require("GetChanUnit").GetChanUnit(chan, out); }
bool CFilelib::UseChanUnit(int chan) { return Require("UseChanUnit").UseChanUnit(chan); }
bool CFilelib::UseChanUnitPrefix(int chan) { return Require("UseChanUnitPrefix").UseChanUnitPrefix(chan); }
float CFilelib::GetSampleRate() { return Require("GetSampleRate").GetSampleRate(); }
float CFilelib::GetPreStim() { return Require("GetSampleRate").GetPreStim(); }

// Quiet forwards: without a reader setters do nothing and getters answer a neutral value.
void CFilelib::SetRunType(int runType) { Quietly(&ecFilebase::SetRunType, static_cast<unsigned int>(runType)); }
void CFilelib::SetChanName(int chan, std::string& name) { Quietly(&ecFilebase::SetChanName, chan, name); }
void CFilelib::SetChanType(int chan, int type) { Quietly(&ecFilebase::SetChanType, chan, type); }
void CFilelib::SetChanScale(int chan, float scale) { Quietly(&ecFilebase::SetChanScale, chan, scale); }
void CFilelib::SetChanUnit(int chan, std::string& unit) { Quietly(&ecFilebase::SetChanUnit, chan, unit); }
void CFilelib::SetUseChanUnit(int chan, bool use) { Quietly(&ecFilebase::SetUseChanUnit, chan, use); }
void CFilelib::SetUseChanUnitPrefix(int chan, bool use) { Quietly(&ecFilebase::SetUseChanUnitPrefix, chan, use); }
void CFilelib::SetSampleRate(float value, unsigned int isPeriod) { Quietly(&ecFilebase::SetSampleRate, value, isPeriod); }
void CFilelib::SetPreStim(float preStim) { Quietly(&ecFilebase::SetPreStim, preStim); }
void CFilelib::SetReferenceType(unsigned int type) { Quietly(&ecFilebase::SetReferenceType, type); }
unsigned int CFilelib::GetReferenceType() { return m_activeFile ? m_activeFile->GetReferenceType() : 0; }
void CFilelib::SetReferenceChannel(int chan) { Quietly(&ecFilebase::SetReferenceChannel, chan); }
int CFilelib::GetReferenceChannel() { return m_activeFile ? m_activeFile->GetReferenceChannel() : -1; }
void CFilelib::SetNumChans(int n) { Quietly(&ecFilebase::SetNumChans, n); }
void CFilelib::SetNumSlices(int n) { Quietly(&ecFilebase::SetNumSlices, n); }
void CFilelib::SetNumEpochs(int n) { Quietly(&ecFilebase::SetNumEpochs, n); }
void CFilelib::SetValidEpochCnt(int n) { Quietly(&ecFilebase::SetValidEpochCnt, n); }
int CFilelib::GetNumSlices() { return m_activeFile ? m_activeFile->GetNumSlices() : 0; }
int CFilelib::GetEpochSlices() { return m_activeFile ? m_activeFile->GetEpochSlices() : 0; }
int CFilelib::GetNumEpochs() { return m_activeFile ? m_activeFile->GetNumEpochs() : 0; }
int CFilelib::GetValidEpochCnt() { return m_activeFile ? m_activeFile->GetValidEpochCnt() : 0; }
void CFilelib::SetEpochReviewMode(bool on) { Quietly(&ecFilebase::SetEpochReviewMode, on); }
bool CFilelib::IsEpochReviewMode() { return m_activeFile && m_activeFile->IsEpochReviewMode(); }

int CFilelib::GetNumChans()
{
    if (!m_activeFile)
        return 0;
    return m_activeFile->GetNumChans() - m_activeFile->GetFacadeHiddenChannels();
}

int CFilelib::GetNumChans(int typeMask)
{
    int count = 0;
    for (int c = 0; m_activeFile && c < m_activeFile->GetNumChans(); ++c)
        count += (m_activeFile->GetChanType(c) & typeMask) != 0;
    return count;
}

int CFilelib::GetOnChannelCount()
{
    int count = 0;
    for (int c = 0; m_activeFile && c < m_activeFile->GetNumChans(); ++c)
        count += (m_activeFile->GetChanType(c) & kChanOff) == 0;
    return count;
}

int CFilelib::GetOnChannelCount(int typeMask)
{
    int count = 0;
    for (int c = 0; m_activeFile && c < m_activeFile->GetNumChans(); ++c) {
        const int type = m_activeFile->GetChanType(c);
        count += (type & kChanOff) == 0 && (type & typeMask) != 0;
    }
    return count;
}

int CFilelib::GetEEGChannelCount()
{
    int count = 0;
    for (int c = 0; c < GetNumChans(); ++c)
        count += (GetChanType(c) & kChanEEG) != 0;
    return count;
}

int CFilelib::GetMEGChannelCount()
{
    int count = 0;
    for (int c = 0; c < GetNumChans(); ++c)
        count += (GetChanType(c) & kChanMEG) != 0;
    return count;
}

const ecRecordingInfo& CFilelib::GetRecordingInfo() { return Require("GetRecordingInfo").GetRecordingInfo(); }

float CFilelib::GetDuration()
{
    const double period = 1.0 / GetSampleRate();
    return static_cast<float>(GetNumSlices() * period);
}

int CFilelib::ReadData(ecLabeledMatrix<float>& data, int firstSlice, int numSlices)
{
    if (!m_activeFile)
        return 0;
    const int read = m_activeFile->ReadCalibrated(data, firstSlice, numSlices);
    DropHiddenRow(*m_activeFile, data);
    return read;
}

int CFilelib::InitialEventList(ecEventList* events, ecProgressDlg* progress)
{
    return m_activeFile ? m_activeFile->InitialEventList(events, progress) : 0;
}

bool CFilelib::ReadOneRawSlice(std::vector<float>& values, int slice)
{
    if (!m_activeFile)
        return false;
    ecLabeledMatrix<float> one;
    if (m_activeFile->ReadData(one, slice, 1) != 1)
        return false;
    DropHiddenRow(*m_activeFile, one);
    values.resize(static_cast<size_t>(one.nrow()));
    for (long r = 0; r < one.nrow(); ++r)
        values[static_cast<size_t>(r)] = one[r][0];
    return true;
}

int CFilelib::GetDomain()
{
    CGeneric* g = ActiveGeneric();
    return g ? g->GetDomain() : 1;
}
void CFilelib::SetDomain(int domain)
{
    if (CGeneric* g = ActiveGeneric())
        g->SetDomain(domain);
}
int CFilelib::GetDataFormat()
{
    CGeneric* g = ActiveGeneric();
    return g ? g->GetDataFormat() : -1;
}
void CFilelib::SetDataFormat(int format)
{
    if (CGeneric* g = ActiveGeneric())
        g->SetDataFormat(format);
}
bool CFilelib::GetDataMatrixOrientation()
{
    CGeneric* g = ActiveGeneric();
    return g ? g->GetDataMatrixOrientation() : true;
}
void CFilelib::SetDataMatrixOrientation(bool sliceMode)
{
    if (CGeneric* g = ActiveGeneric())
        g->SetDataMatrixOrientation(sliceMode);
}
void CFilelib::SetLatencyFormat(int format)
{
    if (CGeneric* g = ActiveGeneric())
        g->SetLatencyFormat(format);
}
int CFilelib::GetProbabilityType()
{
    CGeneric* g = ActiveGeneric();
    return g ? g->GetProbabilityType() : 0;
}
void CFilelib::SetProbabilityType(int type)
{
    if (CGeneric* g = ActiveGeneric())
        g->SetProbabilityType(type);
}
int CFilelib::GetDataType()
{
    CGeneric* g = ActiveGeneric();
    return g ? g->GetDataType() : -1;
}
void CFilelib::SetDataType(int type)
{
    if (CGeneric* g = ActiveGeneric())
        g->SetDataType(type);
}
void CFilelib::SetVarianceFileName(const char* name)
{
    if (CGeneric* g = ActiveGeneric())
        g->SetVarianceFileName(name ? name : "");
}
std::string CFilelib::GetSID()
{
    CGeneric* g = ActiveGeneric();
    return g ? g->GetSID() : std::string();
}
std::string CFilelib::GetCID()
{
    CGeneric* g = ActiveGeneric();
    return g ? g->GetCID() : std::string();
}
void CFilelib::SetSID(std::string sid)
{
    if (CGeneric* g = ActiveGeneric())
        g->SetSID(std::move(sid));
}
void CFilelib::SetCID(std::string cid)
{
    if (CGeneric* g = ActiveGeneric())
        g->SetCID(std::move(cid));
}
bool CFilelib::WriteHeader()
{
    CGeneric* g = ActiveGeneric();
    return g && g->WriteHeader();
}

bool CFilelib::DoesVarianceExist()
{
    return m_activeFile && m_activeFile->DoesVarianceExist();
}
ecORVA_MetaFile* CFilelib::ActiveMetaFile()
{
    return m_iFileSource == kMfrMetaFile ? dynamic_cast<ecORVA_MetaFile*>(m_activeFile.get()) : nullptr;
}

std::string CFilelib::GetCurrentFileName(int index)
{
    ecORVA_MetaFile* meta = ActiveMetaFile();
    return meta ? meta->GetCurrentFileName(index) : std::string();
}

int CFilelib::GetCurrentFilePPMOption(int index)
{
    ecORVA_MetaFile* meta = ActiveMetaFile();
    return meta ? meta->GetCurrentFilePPMOption(index) : 1;
}
