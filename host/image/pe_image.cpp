// The PE loader: maps, relocates, binds, and only then protects. The image never lies at its preferred base, which
// proves its relocations.
#include "host/image/exports.h"
#include "host/image/image.h"
#include "host/image/kept_code.h"
#include "host/image/missing.h"
#include "host/image/pe_file.h"
#include "host/image/symbols.h"
#include "host/image/table_reads.h"
#include "host/image/unwind_tables.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

namespace host::image {
namespace {

constexpr std::size_t kBaseAlignment = 64 * 1024;
constexpr std::uint64_t kDefaultCookie = 0x00002B992DDFA232;

class PeImage final : public LoadedImage {
public:
    PeImage(Environment& environment, const std::filesystem::path& path)
        : environment_(environment), path_(path), file_(path), name_(path.filename().string())
    {
        try {
            Map();
            Relocate();
            Bind();
            SetCookie();
            DescribeFrames();
            Protect();
        } catch (...) {
            Unmap();
            throw;
        }
        environment_.modules.Add(base_, file_.imageSize(), name_, path, MapFileSymbols(path));
        for (const PeSection& section : file_.sections()) {
            if (section.IsExecutable() && section.name.starts_with("PAGE")) {
                environment_.pagedCode.Add(base_ + section.virtualAddress, section.virtualSize);
            }
        }
    }

    ~PeImage() override
    {
        environment_.modules.Remove(base_);
        for (const PeSection& section : file_.sections()) {
            environment_.pagedCode.Remove(base_ + section.virtualAddress);
        }
        if (keepMapped_) {
            return;
        }
        if (environment_.options.keepsCode) {
            ProtectData(PROT_NONE);
            KeepCode(path_, {reserved_, reservedSize_, base_, written_});
        } else {
            Unmap();
        }
    }

    PeImage(const PeImage&) = delete;
    PeImage& operator=(const PeImage&) = delete;

    [[nodiscard]] void* entry() const override { return base_ + file_.entryAddress(); }
    [[nodiscard]] const void* base() const override { return base_; }
    [[nodiscard]] std::size_t sizeBytes() const override { return file_.imageSize(); }
    [[nodiscard]] const std::string& name() const override { return name_; }
    void KeepMapped() override
    {
        keepMapped_ = true;
        stubs_.KeepMapped();
        frames_.Keep();
    }

    void SealAfterEntry() override
    {
        for (const PeSection& section : file_.sections()) {
            if (section.IsDiscardable()) {
                mprotect(base_ + section.virtualAddress, section.virtualSize, PROT_NONE);
            }
        }
    }

private:
    void Map()
    {
        if (environment_.options.keepsCode) {
            written_ = std::filesystem::last_write_time(path_);
        }
        if (const auto kept = environment_.options.keepsCode ? TakeKeptCode(path_) : std::nullopt) {
            reserved_ = kept->reserved;
            reservedSize_ = kept->reservedSize;
            base_ = kept->base;
            hasCode_ = true;
            ProtectData(PROT_READ | PROT_WRITE);
        } else {
            Reserve();
        }
        std::memcpy(base_, file_.bytes().data(), file_.headersSize());
        for (const PeSection& section : file_.sections()) {
            if (!(hasCode_ && section.IsExecutable())) {
                const std::size_t bytes = std::min(section.rawSize, section.virtualSize);
                std::memcpy(base_ + section.virtualAddress, file_.bytes().data() + section.rawOffset, bytes);
                std::memset(base_ + section.virtualAddress + bytes, 0, section.virtualSize - bytes);
            }
        }
    }

    void Reserve()
    {
        reservedSize_ = file_.imageSize() + kBaseAlignment;
        void* reserved = mmap(nullptr, reservedSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (reserved == MAP_FAILED) {
            throw HostError(name_ + ": no memory for the image");
        }
        reserved_ = static_cast<std::uint8_t*>(reserved);
        const auto address = reinterpret_cast<std::uintptr_t>(reserved_);
        base_ = reserved_ + (kBaseAlignment - address % kBaseAlignment) % kBaseAlignment;
    }

    // All but code.
    void ProtectData(int protection)
    {
        mprotect(base_, file_.headersSize(), protection);
        for (const PeSection& section : file_.sections()) {
            if (!section.IsExecutable()) {
                mprotect(base_ + section.virtualAddress, section.virtualSize, protection);
            }
        }
    }

    // Whether a place lies in code that is there already, as it must be.
    [[nodiscard]] bool IsDone(std::uint64_t address) const
    {
        return hasCode_ && std::ranges::any_of(file_.sections(), [address](const PeSection& section) {
                   return section.IsExecutable() && address - section.virtualAddress < section.virtualSize;
               });
    }

    // A pointer to `size` bytes of the mapped image; refuses when they lie outside.
    std::uint8_t* Bytes(std::uint64_t address, std::uint64_t size, const char* place)
    {
        if (address > file_.imageSize() || size > file_.imageSize() - address) {
            file_.Refuse(place, "refers to bytes outside the image");
        }
        return base_ + address;
    }

    template <class T>
    T Read(std::uint64_t address, const char* place)
    {
        T value;
        std::memcpy(&value, Bytes(address, sizeof(T), place), sizeof(T));
        return value;
    }

    std::string ReadText(std::uint64_t address, const char* place)
    {
        std::string text;
        for (char letter = Read<char>(address, place); letter != '\0'; letter = Read<char>(++address, place)) {
            text.push_back(letter);
        }
        return text;
    }

    void Relocate()
    {
        constexpr const char* kPlace = "relocations";
        const PeDirectory directory = file_.directory(kDirectoryRelocation);
        const std::uint64_t delta = reinterpret_cast<std::uint64_t>(base_) - file_.preferredBase();
        std::uint64_t address = directory.address;
        const std::uint64_t end = address + directory.sizeBytes;
        while (address + 8 <= end) {
            const auto page = Read<std::uint32_t>(address, kPlace);
            const auto size = Read<std::uint32_t>(address + 4, kPlace);
            if (size < 8 || size > end - address) {
                file_.Refuse(kPlace, "a block of " + std::to_string(size) + " bytes");
            }
            for (std::uint64_t entry = address + 8; entry + 2 <= address + size; entry += 2) {
                ApplyRelocation(page, Read<std::uint16_t>(entry, kPlace), delta);
            }
            address += size;
        }
    }

    void ApplyRelocation(std::uint32_t page, std::uint16_t entry, std::uint64_t delta)
    {
        constexpr unsigned kPadding = 0;
        constexpr unsigned kDir64 = 10;
        const unsigned type = entry >> 12;
        if (type == kPadding) {
            return;
        }
        if (type != kDir64) {
            file_.Refuse("relocations", "type " + std::to_string(type) + " is not supported");
        }
        const std::uint64_t address = std::uint64_t{page} + (entry & 0xFFF);
        if (IsDone(address)) {
            return;
        }
        std::uint8_t* slot = Bytes(address, 8, "relocations");
        std::uint64_t value;
        std::memcpy(&value, slot, 8);
        value += delta;
        std::memcpy(slot, &value, 8);
    }

    void Bind()
    {
        constexpr const char* kPlace = "imports";
        std::vector<std::string> missing;
        const PeDirectory directory = file_.directory(kDirectoryImport);
        for (std::uint64_t descriptor = directory.address; directory.address != 0; descriptor += 20) {
            const auto names = Read<std::uint32_t>(descriptor, kPlace);
            const auto moduleName = Read<std::uint32_t>(descriptor + 12, kPlace);
            const auto slots = Read<std::uint32_t>(descriptor + 16, kPlace);
            if (moduleName == 0 || slots == 0) {
                break;
            }
            BindModule(ReadText(moduleName, kPlace), names != 0 ? names : slots, slots, missing);
        }
        if (environment_.options.allowMissing) {
            return;  // a call of one stops by its name
        }
        AddMissingEntries(missing);
        if (!missing.empty()) {
            throw HostError(MissingText(name_, missing));
        }
    }

    // Of the framework's table. What was found in a file is true of each load of it.
    void AddMissingEntries(std::vector<std::string>& missing) const
    {
        struct Known {
            std::filesystem::file_time_type written;
            std::set<std::uint32_t> entries;
        };
        static std::mutex mutex;
        static std::map<std::filesystem::path, Known> files;
        const auto written = std::filesystem::last_write_time(path_);
        const std::lock_guard lock(mutex);
        const auto [found, isNew] = files.try_emplace(path_);
        if (isNew || found->second.written != written) {
            found->second = {written, EntriesRead()};
        }
        for (const std::uint32_t entry : found->second.entries) {
            if (const char* name = FindAbsentEntry(entry)) {
                missing.emplace_back(name);
            }
        }
    }

    [[nodiscard]] std::set<std::uint32_t> EntriesRead() const
    {
        const std::span<const std::uint8_t> image(base_, file_.imageSize());
        const auto place = FindFunctionTable(image, reinterpret_cast<std::uint64_t>(base_));
        std::set<std::uint32_t> entries;
        for (const PeSection& section : file_.sections()) {
            if (place && section.IsExecutable()) {
                const auto code = image.subspan(section.virtualAddress, section.virtualSize);
#if defined(__x86_64__)
                x64::AddEntriesRead(code, section.virtualAddress, *place, entries);
#else
                arm64::AddEntriesRead(code, section.virtualAddress, *place, entries);
#endif
            }
        }
        return entries;
    }

    void BindModule(const std::string& module, std::uint64_t names, std::uint64_t slots,
                    std::vector<std::string>& missing)
    {
        constexpr const char* kPlace = "imports";
        for (;; names += 8, slots += 8) {
            const auto name = Read<std::uint64_t>(names, kPlace);
            if (name == 0) {
                return;
            }
            if (name >> 63 != 0) {
                file_.Refuse(kPlace, "an import of " + module + " is by ordinal");
            }
            const std::string symbol = ReadText(name + 2, kPlace);
            void* address = FindExport(module, symbol);
            if (address == nullptr) {
                missing.push_back(HasModule(module) ? symbol : module + "!" + symbol);
                address = stubs_.For(missing.back());
            }
            if (!IsDone(slots)) {
                std::memcpy(Bytes(slots, 8, kPlace), &address, 8);
            }
        }
    }

    // As the system's loader does: an image whose cookie still has the default gets one of its own.
    void SetCookie()
    {
        constexpr std::uint64_t kCookieField = 88;
        const PeDirectory directory = file_.directory(kDirectoryLoadConfig);
        if (directory.address == 0 || Read<std::uint32_t>(directory.address, "load configuration") < kCookieField + 8) {
            return;
        }
        const auto cookie = Read<std::uint64_t>(directory.address + kCookieField, "load configuration");
        if (cookie == 0) {
            return;
        }
        const std::uint64_t address = cookie - reinterpret_cast<std::uint64_t>(base_);
        if (Read<std::uint64_t>(address, "security cookie") == kDefaultCookie) {
            const std::uint64_t value = (reinterpret_cast<std::uint64_t>(base_) * 0x9E3779B97F4A7C15u) >> 16;
            std::memcpy(base_ + address, &value, 8);
        }
    }

    // So that a walk over a thread's stack goes through the image.
    void DescribeFrames()
    {
        UnwindTables tables{.image = {base_, file_.imageSize()},
                            .table = file_.directory(kDirectoryException).address,
                            .tableBytes = file_.directory(kDirectoryException).sizeBytes};
        for (const PeSection& section : file_.sections()) {
            if (section.IsExecutable()) {
                tables.code.push_back({section.virtualAddress, section.virtualAddress + section.virtualSize});
            }
        }
        frames_.BeginImage(base_);
#if defined(__x86_64__)
        x64::Describe(tables, frames_);
#else
        arm64::Describe(tables, frames_);
#endif
        frames_.Register();
    }

    void Protect()
    {
        if (mprotect(base_, (file_.headersSize() + kPageSize - 1) / kPageSize * kPageSize, PROT_READ) != 0) {
            throw HostError(name_ + ": headers cannot be protected");
        }
        for (const PeSection& section : file_.sections()) {
            const int protection = (section.IsReadable() ? PROT_READ : 0) | (section.IsWritable() ? PROT_WRITE : 0) |
                                   (section.IsExecutable() ? PROT_EXEC : 0);
            auto* begin = reinterpret_cast<char*>(base_ + section.virtualAddress);
            if (section.IsExecutable() && !hasCode_) {
                __builtin___clear_cache(begin, begin + section.virtualSize);
            }
            // Code that is there already is still executable, but for what was sealed.
            if (section.IsExecutable() && hasCode_ && !section.IsDiscardable()) {
                continue;
            }
            if (mprotect(begin, section.virtualSize, protection) != 0) {
                throw HostError(name_ + ": section " + section.name + " cannot be protected");
            }
        }
    }

    void Unmap()
    {
        if (reserved_ != nullptr) {
            munmap(reserved_, reservedSize_);
            reserved_ = nullptr;
        }
    }

    Environment& environment_;
    const std::filesystem::path path_;
    PeFile file_;
    std::string name_;
    std::uint8_t* reserved_ = nullptr;
    std::size_t reservedSize_ = 0;
    std::uint8_t* base_ = nullptr;
    bool keepMapped_ = false;
    std::filesystem::file_time_type written_;
    bool hasCode_ = false;  // kept from an earlier load
    MissingStubs stubs_;
    CallFrames frames_;
};

}  // namespace

std::unique_ptr<LoadedImage> LoadPe(Environment& environment, const std::filesystem::path& file)
{
    return std::make_unique<PeImage>(environment, file);
}

}  // namespace host::image
