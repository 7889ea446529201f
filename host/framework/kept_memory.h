// Memory for values of one kind. What was given back serves others of that kind only, so that a thread may still look
// at it and then find that what it knew is gone.
#pragma once

#include <cstddef>

namespace host::framework {

// A number for a kind of values, which no other has.
[[nodiscard]] unsigned NextKind();
// Memory that never served another kind than this one. It is given back with the size it was taken with; any thread
// may do either.
[[nodiscard]] void* TakeKept(unsigned kind, std::size_t bytes);
void GiveKept(unsigned kind, void* memory, std::size_t bytes);

template <class Kind>
// NOLINTNEXTLINE(bugprone-crtp-constructor-accessibility): its kinds are aggregates, which construct their base.
struct KeepsKind {
    static void* operator new(std::size_t bytes) { return TakeKept(Number(), bytes); }
    static void operator delete(void* memory, std::size_t bytes) { GiveKept(Number(), memory, bytes); }

private:
    static unsigned Number()
    {
        static const unsigned number = NextKind();
        return number;
    }
};

}  // namespace host::framework
