#include <gtest/gtest.h>

#include "filelib/filelib.h"
#include "fixtures/GenericFiles.h"
#include "fixtures/MemoryReader.h"

namespace {
// Channel 0 is plain EEG; the others are trigger channels.
MemoryReader Triggers(std::vector<std::vector<float>> channels)
{
    MemoryReader r(std::move(channels), 1000);
    for (int c = 1; c < r.GetNumChans(); ++c)
        r.SetChanType(c, kChanTrigger);
    return r;
}

std::vector<long> Begins(const ecEventList& list)
{
    std::vector<long> out;
    for (int i = 0; i < list.GetEventCnt(true); ++i)
        out.push_back(list.GetEvent(i).GetBegin());
    return out;
}

struct CountingProgress : ecProgressDlg {
    int steps = 0, low = -1, high = -1, step = 0, cancelAfter = 1 << 30;
    void SetRange(int l, int h) override { low = l, high = h; }
    int SetStep(int s) override { step = s; return 0; }
    int StepIt() override { return ++steps; }
    bool CheckCancelButton() override { return steps >= cancelAfter; }
};
}  // namespace

TEST(FindNextTrigger, EdgeCases)
{
    MemoryReader r = Triggers({std::vector<float>(3, 5.0f), {0, 0, 5}, {5, 5, 5}, {5, 0, 2}});
    EXPECT_EQ(r.FindNextTrigger(0, 0, 1.0f, false), -1);  // constantly above: never armed
    EXPECT_EQ(r.FindNextTrigger(1, 0, 1.0f, true), 2);
    EXPECT_EQ(r.FindNextTrigger(2, 0, 1.0f, true), -1);   // no exact zero before it
    EXPECT_EQ(r.FindNextTrigger(3, 0, 1.0f, true), 2);    // slice 0 at 5 never fires
    EXPECT_EQ(r.FindNextTrigger(3, 0, 1.0f, false), 2);   // armed by the 0 at slice 1
    const int calls = r.readCalls;
    EXPECT_EQ(r.FindNextTrigger(1, 3, 1.0f, true), -1);   // start = number of slices: no read
    EXPECT_EQ(r.readCalls, calls);
    try {
        r.FindNextTrigger(4, 0, 1.0f, true);
        FAIL();
    } catch (const ecError& e) {
        EXPECT_STREQ(e.what(), "[ecFileBase::FindNextTrigger] Invalid channel index");
        EXPECT_EQ(e.GetKind(), 1);
    }
    EXPECT_THROW(r.FindNextTrigger(-1, 0, 1.0f, true), ecError);
}

TEST(FindNextTrigger, StateCrossesBlocksAndIndicesAreAbsolute)
{
    std::vector<float> analogue(12000, 3.0f), digital(12000, 3.0f);
    analogue[4999] = 0.0f;  // armed at the last slice of block 1, fires at the first of block 2
    digital[9999] = 0.0f;
    MemoryReader r = Triggers({analogue, digital});
    EXPECT_EQ(r.FindNextTrigger(0, 0, 1.0f, false), 5000);
    EXPECT_EQ(r.readCalls, 2);
    EXPECT_EQ(r.FindNextTrigger(1, 0, 1.0f, true), 10000);
    EXPECT_EQ(r.FindNextTrigger(1, 7000, 1.0f, true), 10000);
    EXPECT_EQ(r.FindNextTrigger(0, 5001, 1.0f, false), -1);
}

TEST(FindAllTriggers, SeveralChannelsDeadTimeAcrossBlocksAndProgress)
{
    std::vector<float> eeg(11000, 9.0f), first(11000, 0.0f), second(11000, 0.0f);
    for (long s : {10L, 11L, 4998L, 4999L, 5000L, 5001L, 5010L, 5050L})
        first[static_cast<size_t>(s)] = 5.0f;
    for (long s : {100L, 10999L})
        second[static_cast<size_t>(s)] = 2.0f;
    MemoryReader r = Triggers({eeg, first, second});
    ecEventList list;
    CountingProgress progress;
    // Dead time 10: the crossing at 4998 hides 4999..5008 (into the next block), so the level at
    // 5010 is the next crossing (analogue: re-armed at 5009).
    EXPECT_EQ(r.FindAllTriggers(&list, 7, 1.0f, 10, false, &progress), 6);
    // Within a block the channels are scanned one after the other.
    EXPECT_EQ(Begins(list), (std::vector<long>{10, 4998, 100, 5010, 5050, 10999}));
    EXPECT_EQ(list.GetEvent(1).GetEventName(), "1");
    EXPECT_EQ(list.GetEvent(2).GetEventName(), "2");  // the second trigger channel
    EXPECT_EQ(list.GetEvent(0).GetEventCode(), 7);
    EXPECT_EQ(list.GetEvent(0).GetEnd(), 10);
    EXPECT_EQ(progress.low, 0);
    EXPECT_EQ(progress.high, 3);
    EXPECT_EQ(progress.step, 1);
    EXPECT_EQ(progress.steps, 3);

    ecEventList digital;
    // Digital rule, no dead time: 11 and 5001 follow non-zero values and do not fire.
    EXPECT_EQ(r.FindAllTriggers(&digital, 0, 1.0f, 0, true, nullptr), 6);
    EXPECT_EQ(Begins(digital), (std::vector<long>{10, 4998, 100, 5010, 5050, 10999}));
}

TEST(FindAllTriggers, TheBlockIsNeverWiderThanTheRecording)
{
    MemoryReader r = Triggers({{0, 1, 0}, {0, 1, 0}});
    ecEventList list;
    EXPECT_EQ(r.FindAllTriggers(&list, 0, 0.5f, 0, true, nullptr), 1);
    EXPECT_EQ(r.widestBlockOnEntry, 3);
    EXPECT_EQ(r.FindNextTrigger(1, 1, 0.5f, false), -1);
    EXPECT_EQ(r.widestBlockOnEntry, 3);
}

TEST(FindAllTriggers, CancelAfterTheFirstBlockAndNoTriggerChannels)
{
    std::vector<float> t(20000, 0.0f);
    t[6000] = 1.0f;
    MemoryReader r = Triggers({t, t});
    ecEventList list;
    CountingProgress cancel;
    cancel.cancelAfter = 1;
    EXPECT_EQ(r.FindAllTriggers(&list, 0, 0.5f, 0, true, &cancel), 0);
    EXPECT_EQ(cancel.steps, 1);
    EXPECT_EQ(r.readCalls, 1);
    r.failReads = true;  // ReadData reports the end at once
    EXPECT_EQ(r.FindAllTriggers(&list, 0, 0.5f, 0, true, nullptr), 0);
    MemoryReader none({t}, 100);
    EXPECT_EQ(none.FindAllTriggers(&list, 0, 0.5f, 0, true, nullptr), 0);
    EXPECT_EQ(none.readCalls, 0);
}

TEST(FindAllTriggersDig, WordsRepeatedAndChanging)
{
    //                     0  1  2  3  4  5  6  7  8  9 10 11
    std::vector<float> w = {3, 3, 0, 4, 4, 6, 0, 0, 260, 260, 5, 1};
    MemoryReader r = Triggers({std::vector<float>(w.size()), w});
    ecEventList changes;
    // Slice 0 never fires; 260 & 0xFF = 4; a repeated word is one event.
    EXPECT_EQ(r.FindAllTriggersDig(&changes, 2, 1.0f, 0, false, 0xFF, nullptr), 5);
    EXPECT_EQ(Begins(changes), (std::vector<long>{3, 5, 8, 10, 11}));
    EXPECT_EQ(changes.GetEvent(2).GetEventName(), "4");
    EXPECT_EQ(changes.GetEvent(2).GetEventCode(), 4);
    EXPECT_EQ(changes.GetEvent(2).GetCodeMask(), 0xFF);
    EXPECT_EQ(changes.GetEvent(2).GetKind(), 2);

    ecEventList onsets, minWord, dead;
    EXPECT_EQ(r.FindAllTriggersDig(&onsets, 2, 1.0f, 0, true, 0xFF, nullptr), 2);
    EXPECT_EQ(Begins(onsets), (std::vector<long>{3, 8}));
    EXPECT_EQ(r.FindAllTriggersDig(&minWord, 2, 5.0f, 0, false, -1, nullptr), 3);  // 3, 4, 1 count as 0
    EXPECT_EQ(Begins(minWord), (std::vector<long>{5, 8, 10}));
    EXPECT_EQ(minWord.GetEvent(1).GetEventName(), "260");
    EXPECT_EQ(r.FindAllTriggersDig(&dead, 2, 1.0f, 3, false, 0xFF, nullptr), 2);
    EXPECT_EQ(Begins(dead), (std::vector<long>{3, 8}));
}

// A generic recording with a trigger channel: every pulse at its exact slice, through the facade.
TEST(FindAllTriggers, OnAGenericRecording)
{
    TempDir dir;
    GenericSpec spec;
    spec.slices = 12000;
    spec.types = {1024, kChanTrigger};
    std::vector<std::vector<double>> values(2, std::vector<double>(12000, 0.0));
    const std::vector<long> pulses = {250, 4999, 7000, 11990};
    for (long p : pulses)
        for (long s = p; s < p + 5 && s < 12000; ++s)
            values[1][static_cast<size_t>(s)] = 1000;
    CFilelib f;
    std::string path = WriteGenericPair(dir, "trig.dat", spec, values);
    ASSERT_EQ(f.GuessFileMFR(path), 2);
    f.Initialize(0);
    ecEventList list;
    EXPECT_EQ(f.GetActiveFile()->FindAllTriggers(&list, 0, 500.0f, 10, false, nullptr), 4);
    EXPECT_EQ(Begins(list), pulses);
}
