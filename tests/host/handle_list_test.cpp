// A list of handles may be read while another thread changes it: what is read stood there before the change or stands
// there after it, or it is null, and the reader takes the lock.
#include "host/framework/handle_list.h"
#include "tests/host/faulty_driver_fixture.h"
#include "tests/kit/single_steps.h"

#include <array>
#include <cstdint>
#include <vector>

namespace tests {
namespace {

using host::framework::HandleList;

constexpr std::size_t kFull = 7;  // the first block's
constexpr std::size_t kLooks = kFull + 2;

WDFOBJECT Numbered(std::uintptr_t number)
{
    return reinterpret_cast<WDFOBJECT>(number);
}

std::vector<WDFOBJECT> HandlesOf(const HandleList& list)
{
    std::vector<WDFOBJECT> handles;
    for (std::size_t index = 0; index < list.size(); ++index) {
        handles.push_back(list[index]);
    }
    return handles;
}

struct ListChange {
    const char* name;
    std::size_t count;   // of handles when the change begins
    std::size_t behind;  // of handles that stood behind them, and before them, and were erased
    std::size_t before;
    void (*change)(HandleList&);
};

constexpr std::array kChanges = {
    ListChange{"append", 3, 2, 0, [](HandleList& list) { list.Append(Numbered(100)); }},
    ListChange{"append to a full block", kFull, 0, 0, [](HandleList& list) { list.Append(Numbered(100)); }},
    ListChange{"append at the end of a block with room before", 2, 0, 5,
               [](HandleList& list) { list.Append(Numbered(100)); }},
    ListChange{"erase the first", 3, 2, 0, [](HandleList& list) { list.Erase(0); }},
    ListChange{"erase one between", 4, 2, 0, [](HandleList& list) { list.Erase(1); }},
};

bool StandsAt(const std::vector<WDFOBJECT>& handles, std::size_t index, WDFOBJECT handle)
{
    return index < handles.size() && handles[index] == handle;
}

TEST(HandleList, IsReadAsBeforeOrAfterAChangeBetweenAnyTwoInstructionsOfIt)
{
    if (!kCanInterrupt || kSanitized) {
        GTEST_SKIP() << "needs a processor with a trap flag, and signals that come at once";
    }
    for (const ListChange& change : kChanges) {
        unsigned unanswered = 0;
        unsigned count = 0;  // of the instructions of the change; run 0 finds it
        for (unsigned instruction = 0; instruction <= count; ++instruction) {
            HandleList list;
            for (std::size_t number = 1; number <= change.before + change.count + change.behind; ++number) {
                list.Append(Numbered(number));
            }
            for (std::size_t erased = 0; erased < change.behind; ++erased) {
                list.Erase(list.size() - 1);
            }
            for (std::size_t erased = 0; erased < change.before; ++erased) {
                list.Erase(0);
            }
            const std::vector<WDFOBJECT> before = HandlesOf(list);
            std::array<WDFOBJECT, kLooks> seen = {};
            SingleSteps steps(nullptr, SIZE_MAX, instruction, [&] {
                for (std::size_t index = 0; index < seen.size(); ++index) {
                    seen[index] = list.Read(index);
                }
            });
            SingleSteps::Begin();
            change.change(list);
            SingleSteps::End();
            count = instruction == 0 ? steps.Seen() : count;
            const std::vector<WDFOBJECT> after = HandlesOf(list);
            for (std::size_t index = 0; index < seen.size(); ++index) {
                EXPECT_TRUE(seen[index] == nullptr || StandsAt(before, index, seen[index]) ||
                            StandsAt(after, index, seen[index]))
                    << change.name << ", before instruction " << instruction << ", index " << index;
            }
            unanswered += seen[0] == nullptr ? 1 : 0;
        }
        EXPECT_GT(unanswered, 1u) << change.name;
        EXPECT_LT(unanswered, count) << change.name;
    }
}

}  // namespace
}  // namespace tests
