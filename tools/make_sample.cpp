// Writes the sample recording of the README into the current directory: demo.dat (16-bit,
// slice after slice), demo.dat.orva_hdr and demo.dat.evt. 20 s at 250 Hz of four EEG channels
// with alpha and theta rhythms, noise, two blinks and an evoked response after every stimulus,
// plus a trigger channel carrying the stimulus codes (1 standard, 2 target) for 40 ms.
// Deterministic: the same bytes on every machine.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "companion/Events.h"
#include "filelib/readers/Generic.h"

namespace {

constexpr int kRate = 250;
constexpr int kSlices = 20 * kRate;
constexpr float kVoltsPerCount = 1e-7f;  // 0.1 uV per stored count
const char* const kNames[] = {"Fz", "Cz", "Pz", "Oz", "STIM"};
constexpr int kChannels = 5;

// A small linear congruential generator: portable and repeatable.
struct Noise {
    uint32_t state = 12345u;
    double Next()
    {
        state = state * 1664525u + 1013904223u;
        return (state >> 8) / 16777216.0 - 0.5;
    }
};

}  // namespace

int main()
{
    const double pi = 3.14159265358979323846;
    std::vector<long> onsets;
    std::vector<int> codes;
    for (int k = 0; k < 12; ++k) {
        onsets.push_back(static_cast<long>((1.0 + 1.5 * k) * kRate));
        codes.push_back(k % 3 == 2 ? 2 : 1);
    }
    Noise noise;
    std::vector<int16_t> samples(static_cast<size_t>(kSlices) * kChannels);
    for (int t = 0; t < kSlices; ++t) {
        const double s = static_cast<double>(t) / kRate;
        const double alpha = std::sin(2 * pi * 10 * s) * (0.6 + 0.4 * std::sin(2 * pi * 0.1 * s));
        const double theta = std::sin(2 * pi * 6 * s + 1.0);
        const double blink = 80 * (std::exp(-std::pow((s - 4.3) / 0.12, 2)) + std::exp(-std::pow((s - 13.7) / 0.12, 2)));
        double evoked = 0;
        int trigger = 0;
        for (size_t k = 0; k < onsets.size(); ++k) {
            const double after = s - static_cast<double>(onsets[k]) / kRate;
            if (after >= 0 && after < 0.8)
                evoked += (codes[k] == 2 ? 12.0 : 4.0) * std::exp(-std::pow((after - 0.3) / 0.08, 2));
            if (t >= onsets[k] && t < onsets[k] + kRate / 25)
                trigger = codes[k];
        }
        const double microvolts[kChannels - 1] = {
            8 * theta + 4 * alpha + blink + 0.4 * evoked + 3 * noise.Next(),
            6 * theta + 6 * alpha + 0.5 * blink + 0.7 * evoked + 3 * noise.Next(),
            3 * theta + 12 * alpha + 0.2 * blink + evoked + 3 * noise.Next(),
            2 * theta + 18 * alpha + 0.1 * blink + 0.6 * evoked + 3 * noise.Next(),
        };
        int16_t* slice = &samples[static_cast<size_t>(t) * kChannels];
        for (int c = 0; c < kChannels - 1; ++c)
            slice[c] = static_cast<int16_t>(std::lround(microvolts[c] * 1e-6 / kVoltsPerCount));
        slice[kChannels - 1] = static_cast<int16_t>(trigger);
    }

    FILE* out = std::fopen("demo.dat", "wb");
    if (!out)
        return 1;
    for (int16_t v : samples) {
        const uint16_t u = static_cast<uint16_t>(v);
        const unsigned char bytes[2] = {static_cast<unsigned char>(u & 0xFF), static_cast<unsigned char>(u >> 8)};
        std::fwrite(bytes, 1, 2, out);
    }
    std::fclose(out);

    CGeneric header("demo.dat");
    header.SetNumChans(kChannels);
    for (int c = 0; c < kChannels; ++c) {
        std::string name = kNames[c], unit = c < kChannels - 1 ? "V" : "";
        header.SetChanName(c, name);
        header.SetChanUnit(c, unit);
        header.SetChanScale(c, c < kChannels - 1 ? kVoltsPerCount : 1.0f);
        header.SetUseChanUnit(c, c < kChannels - 1);
    }
    header.SetChanType(kChannels - 1, 0x8000);
    header.SetRunType(4);
    header.SetSampleRate(kRate, 0);
    header.SetNumSlices(kSlices);
    header.SetDataFormat(kFmtShort);
    header.SetSID("demo");
    header.SetCID("sample recording");
    if (!header.WriteHeader())
        return 1;

    ecEventList events;
    for (size_t k = 0; k < onsets.size(); ++k) {
        ecEvent e;
        e.SetEventName(codes[k] == 2 ? "target" : "standard");
        e.SetEventCode(codes[k]);
        e.SetBegin(onsets[k]);
        e.SetEnd(onsets[k]);
        e.SetKind(2);
        events.AppendOneEvent(e);
    }
    return WriteEventFile(events, "demo.dat.evt") ? 0 : 1;
}
