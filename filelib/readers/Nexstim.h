// ecNexstim: Nexstim eXimia TMS-compatible EEG (.nxe). The file holds no header: it is the
// samples alone, 64 channels of little-endian int16, multiplexed, at 1450 Hz, as the eXimia
// amplifier writes them. The layout, names and gains are those Nexstim gave FieldTrip's
// reader (read_nexstim_nxe, "based on functions provided by Nexstim") and MNE-Python follows:
//  - GateIn, Trig1, Trig2: trigger channels (type 0x8000), count x 10 x 10/65535 with no unit
//    (the amplifier's ±5 V trigger inputs, scaled as the vendor does), so a pulse reads ~10;
//  - EOG: count x 10/65535 V / 400 (EOG gain), typed non-EEG;
//  - 60 EEG channels (Fp1 ... Iz, the eXimia 60-electrode cap): count x 10/65535 V / 2000.
// MNE labels these EOG and EEG values volts but they are microvolts (its own test leaves the
// scaling unchecked); here they are delivered in volts. The extension is the only signature:
// a file named .nxe is claimed, and one that holds no whole slice is refused; a torn last slice
// is not read. No events: the trigger channels carry them.
#pragma once

#include "filelib/ecFilebase.h"

class ecNexstim : public ecFilebase {
public:
    explicit ecNexstim(const char* fileName);

    ecFilebase* GetpNewFilebase(const char* name) override { return new ecNexstim(name); }
    void Initialize(int arg) override;
    int ReadData(ecLabeledMatrix<float>& data, int first, int count) override;
    int InitialEventList(ecEventList* events, ecProgressDlg* progress) override;
};
