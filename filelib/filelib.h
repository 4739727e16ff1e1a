// CFilelib: the one object callers hold. It detects a file's format, creates its reader and
// forwards every question to it.
#pragma once

#include "companion/Export.h"

#include <memory>
#include <string>
#include <vector>

#include "companion/Events.h"
#include "companion/Matrix.h"
#include "companion/ProgressDlg.h"
#include "filelib/Calibration.h"
#include "filelib/ecBase.h"
#include "filelib/ecFilebase.h"

class CGeneric;
class ecORVA_MetaFile;

class FILELIB_API CFilelib {
public:
    CFilelib() = default;
    // Copies share the active reader: it is deleted when the last facade holding it lets go,
    // so two facades can never both free it.
    CFilelib(const CFilelib& other) = default;
    CFilelib& operator=(const CFilelib& other) = default;
    ~CFilelib() { Free(); }

    void Free() { m_activeFile.reset(); }
    void SetInputFileName(const char* name);
    std::string GetInputFileName();

    // Detection: the manufacturer code of the file (0 when no reader recognises it). A non-empty
    // fileName becomes the facade's input file name before the readers are probed.
    int GuessFileMFR(std::string& fileName);
    int GuessFileType(std::string& fileName);
    // The factory: a fresh reader for the file source, initialised and calibrated.
    void Initialize(int ignored);
    void SetFileSource(int code) { m_iFileSource = code; }
    unsigned int GetFileSource();
    ecFilebase* GetActiveFile() { return m_activeFile.get(); }

    unsigned int GetRunType();
    void SetRunType(int runType);
    void GetChanName(int chan, std::string& out);
    void SetChanName(int chan, std::string& name);
    int GetChanType(int chan);
    void SetChanType(int chan, int type);
    float GetChanScale(int chan);
    void SetChanScale(int chan, float scale);
    void GetChanUnit(int chan, std::string& out);
    void SetChanUnit(int chan, std::string& unit);
    bool UseChanUnit(int chan);
    void SetUseChanUnit(int chan, bool use);
    bool UseChanUnitPrefix(int chan);
    void SetUseChanUnitPrefix(int chan, bool use);
    float GetSampleRate();
    void SetSampleRate(float value, unsigned int isPeriod);
    float GetPreStim();
    void SetPreStim(float preStim);
    void SetReferenceType(unsigned int type);
    unsigned int GetReferenceType();
    void SetReferenceChannel(int chan);
    int GetReferenceChannel();
    void SetNumChans(int n);
    void SetNumSlices(int n);
    void SetNumEpochs(int n);
    void SetValidEpochCnt(int n);
    int GetNumSlices();
    int GetEpochSlices();
    int GetNumEpochs();
    int GetValidEpochCnt();
    void SetEpochReviewMode(bool on);
    bool IsEpochReviewMode();

    int GetNumChans();
    int GetNumChans(int typeMask);
    int GetOnChannelCount();
    int GetOnChannelCount(int typeMask);
    int GetEEGChannelCount();
    int GetMEGChannelCount();
    float GetDuration();
    // Date, subject and per-channel descriptions where the format stores them.
    const ecRecordingInfo& GetRecordingInfo();

    // Samples in physical units, with derived calibration factors applied per labelled row.
    int ReadData(ecLabeledMatrix<float>& data, int firstSlice, int numSlices);
    int InitialEventList(ecEventList* events, ecProgressDlg* progress);
    bool ReadOneRawSlice(std::vector<float>& values, int slice);

    // Generic format only (file source 2 and a CGeneric reader).
    int GetDomain();
    void SetDomain(int domain);
    int GetDataFormat();
    void SetDataFormat(int format);
    bool GetDataMatrixOrientation();
    void SetDataMatrixOrientation(bool sliceMode);
    void SetLatencyFormat(int format);
    int GetProbabilityType();
    void SetProbabilityType(int type);
    int GetDataType();
    void SetDataType(int type);
    void SetVarianceFileName(const char* name);
    std::string GetSID();
    std::string GetCID();
    void SetSID(std::string sid);
    void SetCID(std::string cid);
    bool WriteHeader();

    bool DoesVarianceExist();
    std::string GetCurrentFileName(int index);
    int GetCurrentFilePPMOption(int index);

private:
    CGeneric* ActiveGeneric();
    ecORVA_MetaFile* ActiveMetaFile();
    ecFilebase& Require(const char* message);
    // Forwards a setter to the active reader; does nothing without one.
    template <typename... Params, typename... Args>
    void Quietly(void (ecFilebase::*setter)(Params...), Args&&... args)
    {
        if (m_activeFile)
            ((*m_activeFile).*setter)(std::forward<Args>(args)...);
    }

    std::string m_sInputFileName;
    int m_iFileSource = 0;
    int m_iRunType = 0;
    std::shared_ptr<ecFilebase> m_activeFile;
};

// A channel's name and unit as values, for callers that read them once.
inline std::string ChannelName(CFilelib& f, int chan)
{
    std::string s;
    f.GetChanName(chan, s);
    return s;
}

inline std::string ChannelUnit(CFilelib& f, int chan)
{
    std::string s;
    f.GetChanUnit(chan, s);
    return s;
}
