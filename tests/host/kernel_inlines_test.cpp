// The kernel's inline code as platform/include restates it: lists and how they stop at a broken link, interlocked
// operations and which value they answer, strings, and what a checked build looks at.
#define DBG 1
#include <ntddk.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct Record {
    int number;
    LIST_ENTRY link;
};

std::vector<int> Numbers(const LIST_ENTRY& head)
{
    std::vector<int> numbers;
    for (const LIST_ENTRY* at = head.Flink; at != &head; at = at->Flink) {
        numbers.push_back(CONTAINING_RECORD(at, Record, link)->number);
        EXPECT_EQ(at->Flink->Blink, at);
    }
    return numbers;
}

TEST(KernelLists, KeepTheOrderOfHeadAndTail)
{
    LIST_ENTRY head;
    InitializeListHead(&head);
    EXPECT_TRUE(IsListEmpty(&head));
    Record records[] = {{0, {}}, {1, {}}, {2, {}}, {3, {}}};
    InsertTailList(&head, &records[1].link);
    InsertTailList(&head, &records[2].link);
    InsertHeadList(&head, &records[0].link);
    InsertTailList(&head, &records[3].link);
    EXPECT_EQ(Numbers(head), std::vector({0, 1, 2, 3}));
    EXPECT_FALSE(RemoveEntryList(&records[1].link));
    EXPECT_EQ(RemoveHeadList(&head), &records[0].link);
    EXPECT_EQ(RemoveTailList(&head), &records[3].link);
    EXPECT_EQ(Numbers(head), std::vector({2}));
    EXPECT_TRUE(RemoveEntryList(&records[2].link));  // nothing is left
    EXPECT_TRUE(IsListEmpty(&head));
    EXPECT_EQ(RemoveHeadList(&head), &head);
}

TEST(KernelListsDeathTest, StopAtABrokenLink)
{
    LIST_ENTRY head;
    Record record{};
    InitializeListHead(&head);
    InsertTailList(&head, &record.link);
    LIST_ENTRY other = {&head, &head};  // in no list: neither neighbour knows it
    EXPECT_DEATH((void)RemoveEntryList(&other), "");
    head.Blink = &other;
    other.Flink = nullptr;
    EXPECT_DEATH(InsertTailList(&head, &other), "");
    head.Flink = &other;
    other.Blink = nullptr;
    EXPECT_DEATH(InsertHeadList(&head, &record.link), "");
}

TEST(Interlocked, AnswersTheNewValueOrTheOneBefore)
{
    LONG value = 5;
    EXPECT_EQ(InterlockedIncrement(&value), 6);
    EXPECT_EQ(InterlockedDecrement(&value), 5);
    EXPECT_EQ(InterlockedExchangeAdd(&value, 3), 5);
    EXPECT_EQ(InterlockedExchange(&value, 0x0F), 8);
    EXPECT_EQ(InterlockedAnd(&value, 0x3C), 0x0F);
    EXPECT_EQ(InterlockedOr(&value, 0x01), 0x0C);
    EXPECT_EQ(InterlockedCompareExchange(&value, 1, 2), 0x0D);  // not equal: it stays
    EXPECT_EQ(InterlockedCompareExchange(&value, 1, 0x0D), 0x0D);
    EXPECT_EQ(value, 1);

    LONG64 wide = 0x7FFFFFFF;
    EXPECT_EQ(InterlockedIncrement64(&wide), 0x80000000);
    EXPECT_EQ(InterlockedDecrement64(&wide), 0x7FFFFFFF);
    EXPECT_EQ(InterlockedExchange64(&wide, 7), 0x7FFFFFFF);
    EXPECT_EQ(InterlockedCompareExchange64(&wide, 8, 7), 7);
    EXPECT_EQ(wide, 8);

    PVOID pointer = nullptr;
    EXPECT_EQ(InterlockedExchangePointer(&pointer, &value), nullptr);
    EXPECT_EQ(InterlockedCompareExchangePointer(&pointer, &wide, nullptr), &value);
    EXPECT_EQ(InterlockedCompareExchangePointer(&pointer, &wide, &value), &value);
    EXPECT_EQ(pointer, &wide);
}

TEST(KernelStrings, OfConstantsKnowTheirLength)
{
    constexpr char16_t kText[] = u"name";
    const UNICODE_STRING built = RTL_CONSTANT_STRING(kText);
    EXPECT_EQ(built.Length, 8);
#if __SIZEOF_WCHAR_T__ == 2
    DECLARE_CONST_UNICODE_STRING(name, L"name");
#else
    DECLARE_CONST_UNICODE_STRING(name, u"name");
#endif
    EXPECT_EQ(name.Length, 8);
    EXPECT_EQ(name.MaximumLength, 10);
    EXPECT_EQ(std::u16string(reinterpret_cast<const char16_t*>(name.Buffer)), kText);
}

TEST(CheckedBuildDeathTest, StopsAtWhatIsAssertedAndNotTrue)
{
    int evaluated = 0;
    EXPECT_TRUE(NT_ASSERT(++evaluated == 1));
    EXPECT_EQ(evaluated, 1);
    EXPECT_DEATH((void)NT_ASSERT(evaluated == 2), "");
}

}  // namespace
