// Memory objects: their buffers are pool of the driver's and end with them; copies stay within them.
#include "tests/host/faulty_driver_fixture.h"

#include <array>
#include <cstring>

namespace tests {
namespace {

class MemoryObjects : public FaultyDriverTest {};

constexpr ULONG kTag = 'meM ';

struct Memory {
    WDFMEMORY handle = nullptr;
    PVOID buffer = nullptr;
};

Memory NewMemory(std::size_t sizeBytes, ULONG tag = kTag)
{
    Memory memory;
    EXPECT_EQ(WdfMemoryCreate(nullptr, NonPagedPoolNx, tag, sizeBytes, &memory.handle, &memory.buffer), STATUS_SUCCESS);
    return memory;
}

std::size_t BytesWithTag(host::Machine& machine, std::uint32_t tag)
{
    for (const auto& row : machine.PoolInUse()) {
        if (row.tag == tag) {
            return row.sizeBytes;
        }
    }
    return 0;
}

TEST_F(MemoryObjects, HoldPoolOfTheirTagUntilTheyEnd)
{
    const Memory tagged = NewMemory(100);
    NewMemory(28, 0);  // the driver's own tag
    EXPECT_EQ(BytesWithTag(machine, kTag), 100u);
    EXPECT_EQ(BytesWithTag(machine, driver.PoolTag()), 28u);
    std::size_t sizeBytes = 0;
    EXPECT_EQ(WdfMemoryGetBuffer(tagged.handle, &sizeBytes), tagged.buffer);
    EXPECT_EQ(sizeBytes, 100u);
    WdfObjectReference(tagged.handle);
    WdfObjectDelete(tagged.handle);
    EXPECT_EQ(BytesWithTag(machine, kTag), 100u);
    WdfObjectDereference(tagged.handle);
    EXPECT_EQ(BytesWithTag(machine, kTag), 0u);
    TakeDown();  // the second is the driver's child
    EXPECT_EQ(machine.PoolInUse().size(), 0u);
}

TEST_F(MemoryObjects, RefuseWhatTheyCannotBe)
{
    const auto untouched = reinterpret_cast<WDFMEMORY>(1);
    WDFMEMORY memory = untouched;
    EXPECT_EQ(WdfMemoryCreate(nullptr, NonPagedPoolNx, kTag, 0, &memory, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(memory, untouched);
    WDF_OBJECT_ATTRIBUTES attributes{};  // not initialised
    EXPECT_EQ(WdfMemoryCreate(&attributes, NonPagedPoolNx, kTag, 8, &memory, nullptr), STATUS_INFO_LENGTH_MISMATCH);
    EXPECT_EQ(memory, nullptr);
    EXPECT_EQ(WdfMemoryCreate(nullptr, NonPagedPoolNx, kTag, std::size_t{1} << 40, &memory, nullptr),
              STATUS_INSUFFICIENT_RESOURCES);
    char lent = 0;
    memory = untouched;
    EXPECT_EQ(WdfMemoryCreatePreallocated(nullptr, &lent, 0, &memory), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(memory, nullptr);

    const host::ScopedIrql dispatch(DISPATCH_LEVEL);
    EXPECT_EQ(WdfMemoryCreate(nullptr, PagedPool, kTag, 8, &memory, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kIrql});
    EXPECT_EQ(WdfMemoryCreate(nullptr, NonPagedPool, kTag, 8, &memory, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kBadParameter});
    EXPECT_EQ(WdfMemoryCreate(nullptr, NonPagedPoolNx, kTag, 8, nullptr, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kRequiredParameter});
}

TEST_F(MemoryObjects, CopyWithinTheirSize)
{
    const Memory memory = NewMemory(8);
    std::memcpy(memory.buffer, "01234567", 8);
    std::array<char, 16> copy{};
    struct Row {
        std::size_t offset;
        std::size_t bytes;
        NTSTATUS toBuffer;
        NTSTATUS fromBuffer;
    };
    for (const Row& row : std::vector<Row>{{0, 8, STATUS_SUCCESS, STATUS_SUCCESS},
                                           {7, 1, STATUS_SUCCESS, STATUS_SUCCESS},
                                           {0, 9, STATUS_BUFFER_TOO_SMALL, STATUS_INVALID_BUFFER_SIZE},
                                           {4, 5, STATUS_BUFFER_TOO_SMALL, STATUS_INVALID_BUFFER_SIZE},
                                           {8, 1, STATUS_BUFFER_TOO_SMALL, STATUS_INVALID_BUFFER_SIZE},
                                           {~std::size_t{0}, 2, STATUS_BUFFER_TOO_SMALL, STATUS_INVALID_BUFFER_SIZE},
                                           {0, 0, STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER}}) {
        EXPECT_EQ(WdfMemoryCopyToBuffer(memory.handle, row.offset, copy.data(), row.bytes), row.toBuffer);
        EXPECT_EQ(WdfMemoryCopyFromBuffer(memory.handle, row.offset, copy.data(), row.bytes), row.fromBuffer);
    }
    EXPECT_EQ(std::string(copy.data()), "71234567");  // the last byte came last, to the front
    EXPECT_EQ(std::string(static_cast<char*>(memory.buffer), 8), "01234567");
    EXPECT_EQ(WdfMemoryCopyFromBuffer(memory.handle, 6, copy.data(), 2), STATUS_SUCCESS);
    EXPECT_EQ(std::string(static_cast<char*>(memory.buffer), 8), "01234571");
}

TEST_F(MemoryObjects, TakeAnotherLentBuffer)
{
    std::array<char, 4> first{'a', 'b', 'c', 'd'};
    std::array<char, 2> second{'x', 'y'};
    WDFMEMORY lent = nullptr;
    ASSERT_EQ(WdfMemoryCreatePreallocated(nullptr, first.data(), first.size(), &lent), STATUS_SUCCESS);
    EXPECT_EQ(WdfMemoryGetBuffer(lent, nullptr), first.data());
    EXPECT_EQ(WdfMemoryAssignBuffer(lent, second.data(), 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(WdfMemoryAssignBuffer(lent, second.data(), second.size()), STATUS_SUCCESS);
    std::size_t sizeBytes = 0;
    EXPECT_EQ(WdfMemoryGetBuffer(lent, &sizeBytes), second.data());
    EXPECT_EQ(sizeBytes, second.size());
    WdfObjectDelete(lent);
    EXPECT_EQ(second[0], 'x');

    EXPECT_EQ(WdfMemoryAssignBuffer(NewMemory(8).handle, second.data(), second.size()), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kWrongHandleType});
}

TEST_F(MemoryObjects, FindWhatWasWrittenAroundThemOrFreedBeforeThem)
{
    if (!kSanitized) {  // which finds it before the host does
        const Memory overrun = NewMemory(5);
        static_cast<volatile char*>(overrun.buffer)[5] = 1;
        WdfObjectDelete(overrun.handle);
        EXPECT_EQ(TakeRules(), std::vector{Rule::kPoolCorrupted}) << Text();
    }
    const Memory freed = NewMemory(8);
    ExFreePoolWithTag(freed.buffer, kTag);
    WdfObjectDelete(freed.handle);
    EXPECT_EQ(TakeRules(), std::vector{Rule::kPoolBadFree}) << Text();
}

}  // namespace
}  // namespace tests
