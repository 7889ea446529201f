#include "host/framework/pointers_left.h"

#include "host/framework/framework.h"

#include <algorithm>
#include <cstring>

namespace host::framework {
namespace {

constexpr std::size_t kListed = 8;

class Search {
public:
    Search(Framework& framework, const DriverInstance& going) : framework_(framework), going_(going) {}

    void LookAt(const std::string& what, const DriverInstance& owner, const void* memory, std::size_t sizeBytes,
                const checks::Addresses& madeBy)
    {
        std::string held;
        if (!Scan(memory, sizeBytes, held) || held.empty()) {
            return;
        }
        if (++count_ <= kListed) {
            text_ += (text_.empty() ? "" : "; ") + what + " of " + owner.service + " holds " + held;
            AddOrigin(madeBy);
        }
    }

    void Report() const
    {
        if (count_ == 0) {
            return;
        }
        const std::string more = count_ > kListed ? "; and " + std::to_string(count_ - kListed) + " more" : "";
        framework_.environment.ReportLeft(checks::Rule::kUnloadRegistration,
                                          "others still hold pointers into " + going_.service +
                                              ", and would call unmapped code: " + text_ + more,
                                          origins_);
    }

private:
    [[nodiscard]] bool IsInside(const void* pointer) const
    {
        const auto offset =
            reinterpret_cast<std::uintptr_t>(pointer) - reinterpret_cast<std::uintptr_t>(going_.imageBase);
        return offset < going_.imageSizeBytes;
    }

    // The call of the driver that goes, in which another made what holds the pointer. One that was made before, and got
    // the pointer later, says nothing.
    void AddOrigin(const checks::Addresses& madeBy)
    {
        const auto last =
            std::find_if(madeBy.rbegin(), madeBy.rend(), [&](const void* address) { return IsInside(address); });
        const checks::Addresses path(madeBy.begin(), last.base());
        const bool isKnown = std::ranges::any_of(origins_, [&](const Made& made) { return made.path == path; });
        if (!path.empty() && !isKnown) {
            origins_.push_back({"registered", path});
        }
    }

    // False when the memory holds a dead handle. Another driver's thread may write there meanwhile.
    [[clang::no_sanitize("thread", "address")]] bool Scan(const void* memory, std::size_t sizeBytes, std::string& held)
    {
        const auto* words = static_cast<const volatile std::uintptr_t*>(memory);
        for (std::size_t index = 0; index < sizeBytes / sizeof(std::uintptr_t); ++index) {
            const auto* pointer = reinterpret_cast<const void*>(words[index]);
            if (framework_.handles.Find(pointer) != nullptr && framework_.handles.Peek(pointer) == nullptr) {
                return false;
            }
            if (IsInside(pointer) && !going_.handedOut.contains(pointer)) {
                held += (held.empty() ? "" : ", ") + framework_.environment.modules.Describe(pointer);
            }
        }
        return true;
    }

    Framework& framework_;
    const DriverInstance& going_;
    std::string text_;
    std::size_t count_ = 0;
    std::vector<Made> origins_;
};

}  // namespace

void NoteHandedOut(DriverInstance& driver, std::span<const std::byte> table)
{
    for (std::size_t at = 0; at + sizeof(void*) <= table.size(); at += sizeof(void*)) {
        const void* pointer = nullptr;
        std::memcpy(&pointer, table.data() + at, sizeof(pointer));
        driver.handedOut.insert(pointer);
    }
}

void ReportPointersLeft(Framework& framework, const DriverInstance& going)
{
    Search search(framework, going);
    {
        const std::lock_guard lock(framework.mutex);
        framework.handles.ForEach([&](const Object& object) {
            if (object.driver == nullptr || object.driver == &going || object.IsDeleted()) {
                return;
            }
            for (const Context& context : object.contexts) {
                search.LookAt(Describe(object), *object.driver, context.memory, context.sizeBytes, object.createdBy);
            }
        });
        framework.kernel.ForEachPoolBlock([&](const void* block, const kernel::PoolBlock& use) {
            const DriverInstance* owner = framework.drivers.At(use.caller);
            if (owner != nullptr && owner != &going) {
                search.LookAt(std::to_string(use.sizeBytes) + " bytes of pool", *owner, block, use.sizeBytes, use.path);
            }
        });
    }
    search.Report();
}

}  // namespace host::framework
