// Which entries of the framework's function table the code of an image reads. No list in the image says so: the code
// takes the table's address from a variable, which the bind record names, and reads the entry from there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>

namespace host::image {

// Clients of the framework's first versions bring the table itself, for the framework to fill; they know so few
// functions.
inline constexpr std::uint32_t kLastCountWithOwnTable = 438;

// What the bind record says; offsets are from the image's base.
struct FunctionTablePlace {
    std::uint32_t offset;         // of the variable that points to the table, or of the table
    std::uint32_t functionCount;  // as many as the client knows

    [[nodiscard]] bool IsTable() const { return functionCount <= kLastCountWithOwnTable; }
    // The entry that lies so many bytes after the table's begin; empty when none does.
    [[nodiscard]] std::optional<std::uint32_t> EntryAt(std::int64_t bytes) const;
};

// Of an image as it is mapped, its pointers relocated to `base`; empty when it has no bind record.
[[nodiscard]] std::optional<FunctionTablePlace> FindFunctionTable(std::span<const std::uint8_t> image,
                                                                  std::uint64_t base);

// Adds the entries that code at this offset reads. Only what is certain: each was reached from the read of the
// variable, instruction by instruction, in a register that nothing wrote meanwhile.
namespace x64 {
void AddEntriesRead(std::span<const std::uint8_t> code, std::uint32_t offset, const FunctionTablePlace& place,
                    std::set<std::uint32_t>& entries);
}
namespace arm64 {
void AddEntriesRead(std::span<const std::uint8_t> code, std::uint32_t offset, const FunctionTablePlace& place,
                    std::set<std::uint32_t>& entries);
}

}  // namespace host::image
