#include "tests/model/run.h"

#include <algorithm>

namespace model {
namespace {

// Takes a change of the sequence when it still fails.
class Shrinker {
public:
    Shrinker(Sequence sequence, const Fails& fails) : sequence_(std::move(sequence)), fails_(fails) {}

    Sequence Run()
    {
        const auto size = [&] { return sequence_.operations.size() + AnswerCount(); };
        for (std::size_t before = 0; before != size();) {
            before = size();
            DropOperations();
            DropAnswers();
        }
        SimplifyOperations();
        return sequence_;
    }

private:
    bool Try(const Sequence& changed)
    {
        const Sequence candidate = Playable(changed);
        if (candidate.operations.size() > sequence_.operations.size() || !fails_(candidate)) {
            return false;
        }
        sequence_ = candidate;
        return true;
    }

    [[nodiscard]] std::size_t AnswerCount() const
    {
        std::size_t count = 0;
        for (const ClientScript& script : sequence_.clients) {
            count += script.answers.size() + script.commands.size() + (script.appsState ? 1 : 0) +
                     (script.entryCount != 0 ? 1 : 0);
        }
        return count;
    }

    // Pieces of half the sequence first, single operations last.
    void DropOperations()
    {
        for (std::size_t piece = sequence_.operations.size() / 2 + 1; piece != 0; piece /= 2) {
            for (std::size_t begin = 0; begin < sequence_.operations.size();) {
                Sequence changed = sequence_;
                const auto first = changed.operations.begin() + static_cast<std::ptrdiff_t>(begin);
                const std::size_t length = std::min(piece, sequence_.operations.size() - begin);
                changed.operations.erase(first, first + static_cast<std::ptrdiff_t>(length));
                const std::size_t before = sequence_.operations.size();
                // The last delivery comes back by itself: nothing is gained then.
                if (!Try(changed) || sequence_.operations.size() == before) {
                    begin += piece;
                }
            }
        }
    }

    void TryWith(const std::function<void(Sequence& changed)>& change)
    {
        Sequence changed = sequence_;
        change(changed);
        (void)Try(changed);
    }

    void DropAnswers()
    {
        for (unsigned client = 0; client < sequence_.clients.size(); ++client) {
            for (std::size_t index = sequence_.clients[client].answers.size(); index-- != 0;) {
                TryWith([&](Sequence& changed) {
                    auto& answers = changed.clients[client].answers;
                    answers.erase(answers.begin() + static_cast<std::ptrdiff_t>(index));
                });
            }
            TryWith([&](Sequence& changed) { changed.clients[client].commands.clear(); });
            TryWith([&](Sequence& changed) { changed.clients[client].appsState.reset(); });
            TryWith([&](Sequence& changed) { changed.clients[client].entryCount = 0; });
            TryWith([&](Sequence& changed) { changed.clients[client].name = ClientName(client); });
            TryWith([&](Sequence& changed) { changed.clients[client].description = "described"; });
        }
        for (NTSTATUS Sequence::* answer : {&Sequence::addAnswer, &Sequence::removeAnswer, &Sequence::dumpAnswer}) {
            TryWith([&](Sequence& changed) { changed.*answer = STATUS_SUCCESS; });
        }
    }

    void SimplifyOperations()
    {
        for (std::size_t index = 0; index < sequence_.operations.size(); ++index) {
            TryWith([&](Sequence& changed) { changed.operations[index].value = 1; });
            TryWith([&](Sequence& changed) { changed.operations[index].state = 1; });
            TryWith([&](Sequence& changed) { changed.operations[index].null = {}; });
        }
    }

    Sequence sequence_;
    const Fails& fails_;
};

}  // namespace

Sequence Shrink(Sequence sequence, const Fails& fails)
{
    return Shrinker(std::move(sequence), fails).Run();
}

}  // namespace model
