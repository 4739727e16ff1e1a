#include <gtest/gtest.h>

#include "filelib/ecFilebase.h"
#include "fixtures/Describe.h"
#include "fixtures/Errors.h"
#include "fixtures/MemoryReader.h"

namespace {
// Channel 0 is plain EEG; the others are trigger channels, each padded with its last value.
MemoryReader Triggers(std::vector<std::vector<float>> channels, size_t slices = 0)
{
    for (std::vector<float>& c : channels)
        c.resize(std::max(slices, c.size()), c.back());
    MemoryReader r(std::move(channels), 1000);
    for (int c = 1; c < r.GetNumChans(); ++c)
        r.SetChanType(c, kChanTrigger);
    return r;
}

struct CountingProgress : ecProgressDlg {
    int steps = 0, low = -1, high = -1, step = 0, cancelAfter = 1 << 30;
    void SetRange(int l, int h) override { low = l, high = h; }
    int SetStep(int s) override { return step = s, 0; }
    int StepIt() override { return ++steps; }
    bool CheckCancelButton() override { return steps >= cancelAfter; }
};
}  // namespace

TEST(FindNextTrigger, RulesBlocksAndEdgeCases)
{
    std::vector<float> armedAtBlockEnd(12000, 3.0f), zeroBeforeBlock3(12000, 3.0f);
    armedAtBlockEnd[4999] = 0.0f;  // armed at the last slice of block 1, fires at the first of block 2
    zeroBeforeBlock3[9999] = 0.0f;
    MemoryReader r = Triggers({{5}, {0, 0, 5}, {5}, {5, 0, 2}, armedAtBlockEnd, zeroBeforeBlock3}, 12000);
    // {channel, start, digital rule, found}: a channel constantly above is never armed (0), a
    // digital crossing needs an exact zero before it (2) and slice 0 never fires (3).
    const int rows[][4] = {{0, 0, 0, -1}, {1, 0, 1, 2},    {2, 0, 1, -1},    {3, 0, 1, 2},
                           {3, 0, 0, 2},  {4, 0, 0, 5000}, {4, 5001, 0, -1}, {5, 7000, 1, 10000}};
    for (const auto& row : rows)
        EXPECT_EQ(r.FindNextTrigger(row[0], row[1], 1.0f, row[2] != 0), row[3]) << row[0] << "@" << row[1];
    const int calls = r.readCalls;
    EXPECT_EQ(r.FindNextTrigger(1, 12000, 1.0f, true), -1);  // start = number of slices: no read
    EXPECT_EQ(r.readCalls, calls);
    EXPECT_EQ(Message([&] { r.FindNextTrigger(6, 0, 1.0f, true); }),
              "[ecFileBase::FindNextTrigger] Invalid channel index");
    EXPECT_THROW(r.FindNextTrigger(-1, 0, 1.0f, true), ecError);
}

TEST(FindAllTriggers, SeveralChannelsDeadTimeAcrossBlocksProgressAndCancel)
{
    std::vector<float> eeg(11000, 9.0f), first(11000, 0.0f), second(11000, 0.0f);
    for (long s : {10L, 11L, 4998L, 4999L, 5000L, 5001L, 5010L, 5050L})
        first[static_cast<size_t>(s)] = 5.0f;
    second[100] = second[10999] = 2.0f;
    MemoryReader r = Triggers({eeg, first, second});
    ecEventList analogue, digital, cancelled;
    CountingProgress progress, cancel;
    // Dead time 10: the crossing at 4998 hides 4999..5008 (into the next block), so the level at
    // 5010 is the next crossing (analogue: re-armed at 5009). Within a block the channels are
    // scanned one after the other; the event's name is the trigger channel's number.
    EXPECT_EQ(r.FindAllTriggers(&analogue, 7, 1.0f, 10, false, &progress), 6);
    EXPECT_EQ(EventsText(analogue), "1@10#7/2 1@4998#7/2 2@100#7/2 1@5010#7/2 1@5050#7/2 2@10999#7/2");
    EXPECT_EQ(std::vector<int>({progress.low, progress.high, progress.step, progress.steps}),
              std::vector<int>({0, 3, 1, 3}));
    // Digital rule, no dead time: 11 and 5001 follow non-zero values and do not fire.
    EXPECT_EQ(r.FindAllTriggers(&digital, 0, 1.0f, 0, true, nullptr), 6);
    EXPECT_EQ(EventsText(digital), "1@10/2 1@4998/2 2@100/2 1@5010/2 1@5050/2 2@10999/2");
    cancel.cancelAfter = 1;
    EXPECT_EQ(r.FindAllTriggers(&cancelled, 0, 0.5f, 0, true, &cancel), 3);  // the first block only
    r.failReads = true;  // ReadData reports the end at once
    EXPECT_EQ(r.FindAllTriggers(&cancelled, 0, 0.5f, 0, true, nullptr), 0);
    MemoryReader none({eeg}, 100), tiny = Triggers({{0, 1, 0}, {0, 1, 0}});
    EXPECT_EQ(none.FindAllTriggers(&cancelled, 0, 0.5f, 0, true, nullptr) + none.readCalls, 0);
    EXPECT_EQ(tiny.FindAllTriggers(&cancelled, 0, 0.5f, 0, true, nullptr), 1);
    EXPECT_EQ(tiny.widestBlockOnEntry, 3);  // never wider than the recording
}

TEST(FindAllTriggersDig, WordsRepeatedChangingMaskedAndMinimum)
{
    MemoryReader r = Triggers({{0}, {3, 3, 0, 4, 4, 6, 0, 0, 260, 260, 5, 1}}, 12);
    // {minimum word, dead time, onsets only, mask}: slice 0 never fires; 260 & 0xFF = 4; a
    // repeated word is one event; words below the minimum count as 0.
    const struct {
        float minWord;
        int deadTime;
        bool onsetsOnly;
        int mask;
        int count;
        std::string found;
    } rows[] = {{1, 0, false, 0xFF, 5, "4@3#4/2 6@5#6/2 4@8#4/2 5@10#5/2 1@11#1/2"},
                {1, 0, true, 0xFF, 2, "4@3#4/2 4@8#4/2"},
                {5, 0, false, -1, 3, "6@5#6/2 260@8#260/2 5@10#5/2"},
                {1, 3, false, 0xFF, 2, "4@3#4/2 4@8#4/2"}};
    for (const auto& row : rows) {
        ecEventList list;
        EXPECT_EQ(r.FindAllTriggersDig(&list, 2, row.minWord, row.deadTime, row.onsetsOnly, row.mask, nullptr), row.count);
        EXPECT_EQ(EventsText(list), row.found);
        EXPECT_EQ(list.GetEvent(0).GetCodeMask(), row.mask);
    }
}
