#include "tests/model/run.h"

#include <algorithm>

namespace fuzz {
namespace {

// Takes a change of the life when it still fails.
class Shrinker {
public:
    Shrinker(Life life, const Fails& fails) : life_(std::move(life)), fails_(fails) {}

    Life Run()
    {
        const auto size = [&] { return life_.operations.size() + HabitCount(); };
        for (std::size_t before = 0; before != size();) {
            before = size();
            DropOperations();
            DropHabits();
        }
        SimplifyOperations();
        return life_;
    }

private:
    bool Try(const Life& changed)
    {
        const Life candidate = Playable(changed);
        if (candidate.operations.size() > life_.operations.size() || !fails_(candidate)) {
            return false;
        }
        life_ = candidate;
        return true;
    }

    [[nodiscard]] std::size_t HabitCount() const
    {
        std::size_t count = 0;
        for (const Habits& habits : life_.clients) {
            count += habits.answers.size() + habits.commands.size() + (habits.appsState ? 1 : 0) +
                     (habits.entryCount != 0 ? 1 : 0);
        }
        return count;
    }

    // Pieces of half the life first, single operations last.
    void DropOperations()
    {
        for (std::size_t piece = life_.operations.size() / 2 + 1; piece != 0; piece /= 2) {
            for (std::size_t begin = 0; begin < life_.operations.size();) {
                Life changed = life_;
                const auto first = changed.operations.begin() + static_cast<std::ptrdiff_t>(begin);
                const std::size_t length = std::min(piece, life_.operations.size() - begin);
                changed.operations.erase(first, first + static_cast<std::ptrdiff_t>(length));
                const std::size_t before = life_.operations.size();
                // The last delivery comes back by itself: nothing is gained then.
                if (!Try(changed) || life_.operations.size() == before) {
                    begin += piece;
                }
            }
        }
    }

    void DropHabits()
    {
        for (std::size_t client = 0; client < life_.clients.size(); ++client) {
            for (std::size_t index = life_.clients[client].answers.size(); index-- != 0;) {
                Life changed = life_;
                auto& answers = changed.clients[client].answers;
                answers.erase(answers.begin() + static_cast<std::ptrdiff_t>(index));
                (void)Try(changed);
            }
            const auto change = [&](const auto& made) {
                Life changed = life_;
                made(changed.clients[client]);
                (void)Try(changed);
            };
            change([](Habits& habits) { habits.commands.clear(); });
            change([](Habits& habits) { habits.appsState.reset(); });
            change([](Habits& habits) { habits.entryCount = 0; });
            change([&](Habits& habits) { habits.name = ClientName(static_cast<unsigned>(client)); });
            change([](Habits& habits) { habits.description = "described"; });
        }
        for (NTSTATUS Life::* answer : {&Life::addAnswer, &Life::removeAnswer, &Life::dumpAnswer}) {
            Life changed = life_;
            changed.*answer = STATUS_SUCCESS;
            (void)Try(changed);
        }
    }

    void SimplifyOperations()
    {
        for (std::size_t index = 0; index < life_.operations.size(); ++index) {
            const auto change = [&](const auto& made) {
                Life changed = life_;
                made(changed.operations[index]);
                (void)Try(changed);
            };
            change([](Operation& operation) { operation.value = 1; });
            change([](Operation& operation) { operation.state = 1; });
            change([](Operation& operation) { operation.null.clear(); });
        }
    }

    Life life_;
    const Fails& fails_;
};

}  // namespace

Life Shrink(Life life, const Fails& fails)
{
    return Shrinker(std::move(life), fails).Run();
}

}  // namespace fuzz
