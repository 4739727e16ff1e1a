// The one table of readers: detection probes it in probe order, the factory looks a code up in
// it. Adding a reader is one row in ReaderTable.cpp.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

class CFilelib;
class ecFilebase;

struct ecReaderEntry {
    int code;              // manufacturer code (file source)
    const char* className;
    const char* format;    // what users call the format
    int probePosition;     // order in detection; 0 = never probed (reached only by SetFileSource)
    int initializeArg;     // argument the factory passes to Initialize
    ecFilebase* (*create)(const char* fileName);
    // Checked before Initialize while probing (the generic format's header must parse).
    bool (*passesPreCheck)(ecFilebase& reader);
};

// Rows ordered by probe position (unprobed rows last).
const std::vector<ecReaderEntry>& ReaderTable();
const ecReaderEntry* FindReader(int code);
// The never-probed reader that files of this name's extension are read with (Persyst for .lay),
// or 0. The facade's detection does not use it; the program falls back on it when detection
// finds nothing.
int UnprobedReaderByExtension(const std::string& fileName);
// The reader code for the file at `path`: the facade's detection first (which makes `path` the
// facade's input file), then the never-probed reader of its extension; 0 when neither knows it.
int DetectReader(CFilelib& f, const std::string& path);
// Why OpenRecording refused a file; what() is the sentence to show the user.
class ecOpenError : public std::runtime_error {
public:
    enum Kind { kNotReadable, kUnknownFormat, kNotRecognised };
    ecOpenError(Kind kind, const std::string& text) : std::runtime_error(text), m_kind(kind) {}
    Kind GetKind() const { return m_kind; }

private:
    Kind m_kind;
};
// How callers open a recording by name (the program, the Python module, the metafile's members):
// the reader `format` names, or with 0 detection and then the never-probed reader of the file's
// extension; then the facade's factory, so that every caller gets a fresh, calibrated reader.
// Returns the reader's code. Refusals are ecOpenError; a reader's own failure is its ecError.
int OpenRecording(CFilelib& f, const std::string& path, int format = 0);
// "Neuroscan (4), ..." for messages that list what is supported.
std::string SupportedFormatsText();
