// Memory for values of one kind. What was given back serves others of that kind only, so that a thread may still look
// at it and then find that what it knew is gone.
#pragma once

#include <cstddef>

namespace host::framework {

template <class Kind>
// NOLINTNEXTLINE(bugprone-crtp-constructor-accessibility): its kinds are aggregates, which construct their base.
struct KeepsKind {
    static void* operator new(std::size_t bytes);
    static void operator delete(void* memory, std::size_t bytes);
};

}  // namespace host::framework
