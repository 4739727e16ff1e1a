// ecADInst_CFWB: ADInstruments Chart / LabChart binary files ("CFWB" magic, little-endian), as
// LabChart's Translate Binary extension and other tools (BioSig's save2gdf) write them.
//
// Layout: a 68-byte file header (sample interval, trigger date, channel count, samples per
// channel, a time-column flag and the sample type: 1 double, 2 float, 3 int16), one 96-byte
// header per channel (title, unit text, scale, offset, range), then the samples interleaved
// slice by slice. A time column, when flagged, comes first in every slice and is skipped.
//
// Values: int16 samples are scale x (sample + offset), the vendor's definition. (BioSig writes
// and reads the offset as a value added after scaling; the two agree when the offset is 0, the
// common case, and differ by offset x (1 - scale) otherwise.) Floating-point samples are the
// values themselves: the vendor keeps scale and offset for 16-bit data only. Voltage units (V,
// mV, uV, nV) are delivered in volts; any other unit text is kept with the values in it.
// One continuous recording; the format carries no events.
#pragma once

#include <string>

#include "filelib/ecFilebase.h"

class ecADInst_CFWB : public ecFilebase {
public:
    explicit ecADInst_CFWB(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new ecADInst_CFWB(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList*, ecProgressDlg*) override { return 0; }

private:
    [[noreturn]] void Fail(const std::string& text);
};
