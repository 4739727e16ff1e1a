#include <algorithm>
#include <climits>
#include <cmath>
#include <string>

#include "filelib/ecFilebase.h"

namespace {

constexpr int kTriggerBlock = 5000;

// Analogue rule: arm below the threshold, fire at or above it once armed.
inline bool AnalogueFires(bool& armed, float value, float threshold)
{
    if (!armed) {
        armed = value < threshold;
        return false;
    }
    if (value < threshold)
        return false;
    armed = false;
    return true;
}

// Digital rule: fire at or above the threshold when the previous value was exactly zero.
inline bool DigitalFires(float& previous, float value, float threshold)
{
    const bool fires = previous == 0.0f && value >= threshold;
    previous = value;
    return fires;
}

struct ChannelScan {
    int chan;
    long nextExamined = 0;
    bool armed = false;
    float previous = -1.0f;
    long word = -1;  // digital words: -1 until the first slice is seen
};

ecEvent TriggerEvent(const std::string& name, int code, int kind, long slice)
{
    ecEvent e;
    e.SetEventName(name);
    e.SetEventCode(code);
    e.SetKind(kind);
    e.SetBegin(slice);
    e.SetEnd(slice);
    return e;
}

}  // namespace

template <typename OnBlock>
void ecFilebase::ScanBlocks(int start, ecProgressDlg* progress, OnBlock onBlock)
{
    if (progress) {
        progress->SetRange(0, GetNumSlices() / kTriggerBlock + 1);
        progress->SetStep(1);
    }
    // One block of all channels, never wider than the recording itself.
    ecLabeledMatrix<float> block;
    block.resize(GetNumChans(), std::clamp(GetNumSlices() - start, 1, kTriggerBlock), 0, 0);
    // Never a request past the end: some formats answer one with an error, not a short block.
    for (long first = start; first < GetNumSlices(); first += kTriggerBlock) {
        const int want = static_cast<int>(std::min<long>(kTriggerBlock, GetNumSlices() - first));
        const int n = ReadData(block, static_cast<int>(first), want);
        if (n < 1 || !onBlock(block, first, std::min<long>(n, block.ncol())))
            return;
        if (progress) {
            progress->StepIt();
            if (progress->CheckCancelButton())
                return;
        }
    }
}

std::vector<int> ecFilebase::TriggerChannels()
{
    std::vector<int> channels;
    for (int c = 0; c < GetNumChans(); ++c)
        if (GetChanType(c) & kChanTrigger)
            channels.push_back(c);
    return channels;
}

int ecFilebase::FindNextTrigger(int chan, int start, float threshold, bool fromZero)
{
    if (chan < 0 || chan >= GetNumChans())
        throw ecError("[ecFileBase::FindNextTrigger] Invalid channel index", 1, 0, -1, -1);
    if (start >= GetNumSlices())
        return -1;
    long found = -1;
    bool armed = false;
    float previous = -1.0f;
    ScanBlocks(start, nullptr, [&](ecLabeledMatrix<float>& block, long first, long n) {
        if (chan >= block.nrow())
            return false;
        const float* row = block[chan];
        for (long i = 0; i < n; ++i) {
            if (fromZero ? DigitalFires(previous, row[i], threshold) : AnalogueFires(armed, row[i], threshold)) {
                found = first + i;
                return false;
            }
        }
        return true;
    });
    return static_cast<int>(found);
}

// Scans every trigger channel block by block; `fires` decides for one value whether it makes
// an event (and fills it). After an event the channel skips deadTime slices.
template <typename Fires>
int ecFilebase::ScanTriggerChannels(ecEventList* events, int deadTime, ecProgressDlg* progress, Fires fires)
{
    std::vector<ChannelScan> scans;
    for (int chan : TriggerChannels())
        scans.push_back(ChannelScan{chan});
    if (scans.empty() || !events)
        return 0;
    const long skip = static_cast<long>(std::max(deadTime, 0)) + 1;
    int appended = 0;
    ScanBlocks(0, progress, [&](ecLabeledMatrix<float>& block, long first, long n) {
        for (size_t k = 0; k < scans.size(); ++k) {
            ChannelScan& scan = scans[k];
            if (scan.chan >= block.nrow())
                continue;
            const float* row = block[scan.chan];
            for (long i = std::max(0L, scan.nextExamined - first); i < n; ++i) {
                ecEvent event;
                if (!fires(scan, k, row[i], first + i, event))
                    continue;
                events->AppendOneEvent(event);
                ++appended;
                scan.nextExamined = first + i + skip;
                i = scan.nextExamined - first - 1;
            }
        }
        return true;
    });
    return appended;
}

int ecFilebase::FindAllTriggers(ecEventList* events, int eventCode, float threshold, int deadTime, bool fromZero,
                                ecProgressDlg* progress)
{
    return ScanTriggerChannels(events, deadTime, progress,
                               [&](ChannelScan& scan, size_t k, float value, long slice, ecEvent& event) {
                                   const bool fires = fromZero ? DigitalFires(scan.previous, value, threshold)
                                                               : AnalogueFires(scan.armed, value, threshold);
                                   if (fires)
                                       event = TriggerEvent(std::to_string(k + 1), eventCode, 2, slice);
                                   return fires;
                               });
}

int ecFilebase::FindAllTriggersDig(ecEventList* events, int eventKind, float minWord, int deadTime, bool onsetsOnly,
                                   int mask, ecProgressDlg* progress)
{
    return ScanTriggerChannels(events, deadTime, progress,
                               [&](ChannelScan& scan, size_t, float value, long slice, ecEvent& event) {
                                   long word = std::isfinite(value) && std::fabs(value) < 2147483647.0f
                                                   ? std::lround(value) & mask
                                                   : 0;
                                   if (word < minWord)
                                       word = 0;
                                   const long before = scan.word;
                                   scan.word = word;
                                   if (before < 0 || word == 0 || word == before || (onsetsOnly && before != 0))
                                       return false;
                                   event = TriggerEvent(std::to_string(word), static_cast<int>(word), eventKind, slice);
                                   event.SetCodeMask(mask);
                                   return true;
                               });
}
