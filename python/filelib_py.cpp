// The Python extension filelib._filelib: a recording opened through the facade, its samples as
// NumPy arrays. The pure-Python package (python/filelib) adds the conveniences on top.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "companion/Units.h"
#include "filelib/ReaderTable.h"
#include "filelib/Writers.h"
#include "filelib/filelib.h"

namespace py = pybind11;

namespace {

// Slices per ReadData call: the working matrix stays small whatever the recording's length.
constexpr long kBlock = 5000;

[[noreturn]] void Fail(const std::string& where, const std::string& text)
{
    throw ecError("[" + where + "] " + text);
}

// The facade opened on `path`: the reader `format` names, else the one detection finds.
void OpenFacade(CFilelib& f, const std::string& path, int format)
{
    try {
        OpenRecording(f, path, format);
    } catch (const ecOpenError& e) {
        Fail("filelib.open", e.what());
    }
}

// Channel type bits as words joined by '+' ("MEG+reference"); "other" when no bit is set.
std::string TypeText(int bits)
{
    static const std::pair<int, const char*> kWords[] = {{kChanEEG, "EEG"},         {kChanMEG, "MEG"},
                                                         {kChanTrigger, "trigger"}, {kChanReference, "reference"},
                                                         {kChanOff, "off"}};
    std::string text;
    for (const auto& [bit, word] : kWords)
        if (bits & bit)
            text += (text.empty() ? "" : "+") + std::string(word);
    return text.empty() ? "other" : text;
}

// (onset slice, duration in slices, code, name, kind) per event, in list order.
py::list EventTuples(const ecEventList& events)
{
    py::list out;
    for (int i = 0; i < events.GetEventCnt(true); ++i) {
        const ecEvent& e = events.GetEvent(i);
        out.append(py::make_tuple(e.GetBegin(), e.GetEnd() - e.GetBegin(), e.GetEventCode(), e.GetEventName(),
                                  e.GetKind()));
    }
    return out;
}

class Recording {
public:
    Recording(const std::string& path, int format) { OpenFacade(m_f, path, format); }

    void Close()
    {
        const auto lock = Lock();
        m_f.Free();
    }
    bool Closed()
    {
        const auto lock = Lock();
        return m_f.GetActiveFile() == nullptr;
    }

    py::dict Info()
    {
        const auto lock = Lock();
        ecFilebase& r = Reader("info");
        const ecReaderEntry* row = FindReader(static_cast<int>(m_f.GetFileSource()));
        const ecRecordingInfo& about = m_f.GetRecordingInfo();
        py::dict d;
        d["format"] = row ? row->format : "unknown";
        d["reader"] = row ? row->className : "unknown";
        d["code"] = m_f.GetFileSource();
        d["run_type"] = m_f.GetRunType();
        // The rate is kept as a single-precision period: its inverse is given to float precision
        // (250, not 249.99998474).
        char rate[32];
        std::snprintf(rate, sizeof rate, "%.7g", static_cast<double>(m_f.GetSampleRate()));
        d["sample_rate"] = std::stod(rate);
        d["slices"] = m_f.GetNumSlices();
        d["epochs"] = m_f.GetNumEpochs();
        d["epoch_slices"] = m_f.GetEpochSlices();
        d["prestim"] = m_f.GetPreStim();
        d["input_file"] = r.GetInputFileName();
        for (const auto& [key, text] : {std::pair{"date", &about.date}, {"time", &about.time},
                                        {"subject_id", &about.subjectId}, {"subject_name", &about.subjectName},
                                        {"subject_sex", &about.subjectSex}, {"subject_birth_date", &about.subjectBirthDate},
                                        {"description", &about.description}})
            d[key] = text->empty() ? py::none() : py::cast(*text);
        d["bad_channels"] = about.badChannels;
        return d;
    }

    // (name, type text, unit, scale, offset) per channel the facade counts.
    py::list Channels()
    {
        const auto lock = Lock();
        ecFilebase& r = Reader("channels");
        py::list out;
        for (int c = 0; c < m_f.GetNumChans(); ++c) {
            std::string name, unit;
            m_f.GetChanName(c, name);
            m_f.GetChanUnit(c, unit);
            out.append(py::make_tuple(name, TypeText(m_f.GetChanType(c)), unit, m_f.GetChanScale(c), r.GetChanOffset(c)));
        }
        return out;
    }

    py::array_t<float> Read(long start, std::optional<long> stop, std::optional<std::vector<int>> channels)
    {
        const auto lock = Lock();
        Reader("read");
        const long slices = m_f.GetNumSlices();
        const long end = stop.value_or(slices);
        if (start < 0 || end > slices || start > end)
            Fail("Recording::read", "slices " + std::to_string(start) + " to " + std::to_string(end) +
                                        " are not within the recording's 0 to " + std::to_string(slices) + ".");
        const std::vector<int> rows = Rows(channels);
        py::array_t<float> out({static_cast<py::ssize_t>(rows.size()), static_cast<py::ssize_t>(end - start)});
        float* dst = out.mutable_data();
        {
            py::gil_scoped_release unlocked;
            ReadInto(dst, rows, start, end);
        }
        return out;
    }

    py::list Events()
    {
        const auto lock = Lock();
        Reader("events");
        ecEventList events;
        m_f.InitialEventList(&events, nullptr);
        return EventTuples(events);
    }

    py::list FindTriggers(float threshold, int deadTime, bool digital, bool words, int mask)
    {
        const auto lock = Lock();
        ecFilebase& r = Reader("find_triggers");
        ecEventList events;
        {
            py::gil_scoped_release unlocked;
            if (words)
                r.FindAllTriggersDig(&events, 2, threshold, deadTime, false, mask, nullptr);
            else
                r.FindAllTriggers(&events, 0, threshold, deadTime, digital, nullptr);
        }
        return EventTuples(events);
    }

private:
    // The facade is not reentrant and reads run without the GIL, so every call holds the mutex.
    // It is waited for without the GIL: a thread holding it may be waiting for the GIL.
    std::unique_lock<std::mutex> Lock()
    {
        py::gil_scoped_release unlocked;
        return std::unique_lock<std::mutex>(m_mutex);
    }

    ecFilebase& Reader(const char* method)
    {
        if (ecFilebase* r = m_f.GetActiveFile())
            return *r;
        Fail(std::string("Recording::") + method, "The recording is closed.");
    }

    std::vector<int> Rows(const std::optional<std::vector<int>>& channels)
    {
        const int count = m_f.GetNumChans();
        std::vector<int> rows = channels.value_or(std::vector<int>());
        if (!channels)
            for (int c = 0; c < count; ++c)
                rows.push_back(c);
        for (int c : rows)
            if (c < 0 || c >= count)
                Fail("Recording::read", "channel " + std::to_string(c) + " is not within the recording's 0 to " +
                                            std::to_string(count - 1) + ".");
        return rows;
    }

    // Block after block into `dst` (rows x (end - start), row-major), voltages scaled to volts on
    // the way: the one copy from the reader's block into the caller's array.
    void ReadInto(float* dst, const std::vector<int>& rows, long start, long end)
    {
        const long width = end - start;
        std::vector<float> toVolts;
        for (int c : rows) {
            std::string unit;
            m_f.GetChanUnit(c, unit);
            const double volts = VoltsPerUnit(unit);
            toVolts.push_back(volts > 0 ? static_cast<float>(volts) : 1.0f);
        }
        ecLabeledMatrix<float> block;
        for (long first = start; first < end;) {
            const long want = std::min(kBlock, end - first);
            const int got = m_f.ReadData(block, static_cast<int>(first), static_cast<int>(want));
            if (got != want || block.nrow() < m_f.GetNumChans())
                Fail("Recording::read", "the reader delivered " + std::to_string(std::max(got, 0)) + " of " +
                                            std::to_string(want) + " slices from slice " + std::to_string(first) + ".");
            for (size_t i = 0; i < rows.size(); ++i) {
                const float* src = block[rows[i]];
                float* row = dst + i * width + (first - start);
                std::transform(src, src + want, row, [f = toVolts[i]](float v) { return v * f; });
            }
            first += want;
        }
    }

    CFilelib m_f;
    std::mutex m_mutex;
};

// (slices written, the writer's warnings).
py::tuple Convert(const std::string& source, const std::string& target, std::optional<ecOutputFormat> format,
                  const ecSelection& selection, int sourceFormat)
{
    const ecOutputFormat to = format.value_or(OutputFormatOf(target));
    // Nothing that exists is replaced: the outputs could be the source or files read with it.
    for (const std::string& file : OutputFilesOf(target, to))
        if (FILE* existing = std::fopen(file.c_str(), "rb")) {
            std::fclose(existing);
            Fail("filelib.convert", file + " exists; nothing written.");
        }
    CFilelib f;
    OpenFacade(f, source, sourceFormat);
    std::vector<std::string> warnings;
    int written;
    {
        py::gil_scoped_release unlocked;
        written = WriteCopy(f, target, to, selection, nullptr, &warnings);
    }
    return py::make_tuple(written, warnings);
}

}  // namespace

PYBIND11_MODULE(_filelib, m)
{
    m.doc() = "Recordings of every format filelib reads, as NumPy arrays.";
    static py::exception<ecError> error(m, "Error");
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown)
                std::rethrow_exception(thrown);
        } catch (const ecError& e) {
            error(e.what());
        } catch (const py::builtin_exception&) {
            throw;
        } catch (const std::runtime_error& e) {
            // The facade's own refusals ("[CFilelib::...] ...") are runtime errors.
            error(e.what());
        }
    });

    py::class_<Recording>(m, "_Recording")
        .def(py::init<const std::string&, int>(), py::arg("path"), py::arg("format") = 0)
        .def("close", &Recording::Close)
        .def_property_readonly("closed", &Recording::Closed)
        .def("_info", &Recording::Info)
        .def("_channels", &Recording::Channels)
        .def("_read", &Recording::Read, py::arg("start"), py::arg("stop"), py::arg("channels"))
        .def("_events", &Recording::Events)
        .def("_find_triggers", &Recording::FindTriggers, py::arg("threshold"), py::arg("dead_time"),
             py::arg("digital"), py::arg("words"), py::arg("mask"));
    py::enum_<ecOutputFormat>(m, "OutputFormat")
        .value("Generic", ecOutputFormat::Generic)
        .value("EDF", ecOutputFormat::EDF)
        .value("BDF", ecOutputFormat::BDF)
        .value("BrainVision", ecOutputFormat::BrainVision)
        .value("BrainVisionInt16", ecOutputFormat::BrainVisionInt16);
    m.def(
        "_convert",
        [](const std::string& source, const std::string& target, std::optional<ecOutputFormat> format, long start,
           std::optional<long> stop, std::vector<int> channels, int sourceFormat) {
            const ecSelection selection{start, stop ? *stop - start : -1, std::move(channels)};
            return Convert(source, target, format, selection, sourceFormat);
        },
        py::arg("source"), py::arg("target"), py::arg("format"), py::arg("start"), py::arg("stop"),
        py::arg("channels"), py::arg("source_format"));
}
