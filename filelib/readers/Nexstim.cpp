#include "filelib/readers/Nexstim.h"

#include <climits>

#include "companion/Utility.h"

namespace {

constexpr int kChannels = 64;
constexpr double kRate = 1450;
constexpr double kVoltsPerCount = 10.0 / 65535;  // ±5 V over the 16-bit converter
const char* const kNames[kChannels] = {
    "GateIn", "Trig1", "Trig2", "EOG",  "Fp1", "Fpz", "Fp2", "AF1", "AFz",  "AF2", "F7",  "F3",  "F1",
    "Fz",     "F2",    "F4",    "F8",   "FT9", "FT7", "FC5", "FC3", "FC1",  "FCz", "FC2", "FC4", "FC6",
    "FT8",    "FT10",  "T7",    "C5",   "C3",  "C1",  "Cz",  "C2",  "C4",   "C6",  "T8",  "TP9", "TP7",
    "CP5",    "CP3",   "CP1",   "CPz",  "CP2", "CP4", "CP6", "TP8", "TP10", "P9",  "P7",  "P3",  "P1",
    "Pz",     "P2",    "P4",    "P8",   "P10", "PO3", "POz", "PO4", "O1",   "Oz",  "O2",  "Iz"};

}  // namespace

ecNexstim::ecNexstim(const char* fileName) { SetInputFileName(fileName ? fileName : ""); }

void ecNexstim::Initialize(int)
{
    const std::string name = GetInputFileName();
    if (!IsEqual(GetFileNameExtension(name), "nxe", false))
        FailClosing("ecNexstim::Initialize", "Not a Nexstim eXimia file (.nxe): " + name);
    SetFileMFR(kMfrNexstim);
    FILE* fp = OpenInputFile(name);
    if (!fp)
        FailClosing("ecNexstim::Initialize", "Cannot open file: " + name);
    const long long slices = FileLength(fp) / (2LL * kChannels);
    if (slices < 1)
        FailClosing("ecNexstim::Initialize", "The file holds no whole slice of 64 channels: " + name);
    if (slices > INT_MAX)
        FailClosing("ecNexstim::Initialize", "The recording holds more than 2147483647 slices.");
    SetNumChans(kChannels);
    ecDataLayout layout = ecDataLayout::Multiplexed(ecSampleType::Int16, false, kChannels, kChannels, 0, slices);
    for (int c = 0; c < kChannels; ++c) {
        const bool trigger = c < 3, eog = c == 3;
        const double gain = trigger ? 10 * kVoltsPerCount : kVoltsPerCount / (eog ? 400 : 2000);
        DescribeChannel(c, kNames[c], trigger ? kChanTrigger : eog ? 0 : kChanEEG, trigger ? "" : "V",
                        static_cast<float>(gain));
        layout.SetConversion(c, gain, 0);
    }
    SetContinuousTimeBase(kRate, slices);
    Engine().SetLayout(std::move(layout));
}

int ecNexstim::ReadData(ecLabeledMatrix<float>& data, int first, int count)
{
    const long long n = PrepareBlock(data, first, count, "ecNexstim");
    if (ReadRows(data, first, n) != n)
        throw ecError("[ecNexstim::ReadData] Error in reading the data file.", 1, 0, -1, -1);
    return static_cast<int>(n);
}

int ecNexstim::InitialEventList(ecEventList*, ecProgressDlg*) { return 0; }
