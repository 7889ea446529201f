// The native loader: a driver built as a shared object, for debuggers, sanitizers and coverage.
//
// Each load opens a private copy of the file, so that every load has statics of its own, as an image has. The imports
// are the executable's own symbols; a missing one refuses the image.
#include "host/image/image.h"
#include "host/image/missing.h"
#include "host/image/native_imports.h"
#include "host/image/symbols.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>
#include <sys/mman.h>
#include <sys/sendfile.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>

namespace host::image {
namespace {

// Sanitizers report at exit and need the code still there.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kStaysLoaded = true;
#else
constexpr bool kStaysLoaded = false;
#endif
#else
constexpr bool kStaysLoaded = false;
#endif

// Where the last segment that is loaded ends: what lies after it (debug information, symbols) no loader looks at.
std::uintmax_t LoadedBytes(int file, std::uintmax_t sizeBytes)
{
    Elf64_Ehdr header{};
    if (pread(file, &header, sizeof(header), 0) != sizeof(header) || header.e_phentsize != sizeof(Elf64_Phdr)) {
        return sizeBytes;
    }
    std::uintmax_t end = 0;
    for (unsigned index = 0; index < header.e_phnum; ++index) {
        Elf64_Phdr segment{};
        const auto at = static_cast<off_t>(header.e_phoff + index * sizeof(segment));
        if (pread(file, &segment, sizeof(segment), at) != sizeof(segment)) {
            return sizeBytes;
        }
        end = std::max<std::uintmax_t>(end, segment.p_offset + segment.p_filesz);
    }
    return std::min(end, sizeBytes);
}

// Whether a debugger looks on, which reads the library that was loaded, and wants the symbols.
bool IsTraced()
{
    std::ifstream status("/proc/self/status");
    std::string word;
    int tracer = 0;
    while (status >> word) {
        if (word == "TracerPid:") {
            status >> tracer;
            break;
        }
    }
    return tracer != 0;
}

// Whether a copy must be found again by its path, with symbols: for a debugger, and for a sanitizer's reports, which
// name functions and lines of the first drivers that a process loads. Thousands of whole copies would fill the memory.
bool IsReadByOthers()
{
    if constexpr (kStaysLoaded) {
        constexpr unsigned kWholeCopies = 8;
        static std::atomic<unsigned> loads{0};
        return loads++ < kWholeCopies;
    }
    return IsTraced();
}

// A copy of the file in memory, by descriptor.
class PrivateCopy {
public:
    explicit PrivateCopy(const std::filesystem::path& file)
    {
        const int source = open(file.c_str(), O_RDONLY | O_CLOEXEC);
        descriptor_ = memfd_create(file.filename().c_str(), MFD_CLOEXEC);
        const std::uintmax_t sizeBytes = std::filesystem::file_size(file);
        std::uintmax_t left = isReadByOthers_ ? sizeBytes : LoadedBytes(source, sizeBytes);
        while (source >= 0 && descriptor_ >= 0 && left > 0) {
            const ssize_t copied = sendfile(descriptor_, source, nullptr, left);
            if (copied <= 0) {
                break;
            }
            left -= static_cast<std::uintmax_t>(copied);
        }
        if (source >= 0) {
            close(source);
        }
        if (descriptor_ < 0 || left != 0) {
            throw HostError(file.string() + ": cannot be copied for loading");
        }
    }
    ~PrivateCopy()
    {
        if (!kStaysLoaded || !isReadByOthers_) {
            close(descriptor_);
        }
    }
    PrivateCopy(const PrivateCopy&) = delete;
    PrivateCopy& operator=(const PrivateCopy&) = delete;

    // The loader takes a path that it has seen for the same library, and descriptor numbers come again while an earlier
    // image stays mapped: so every path is spelled its own way. It names the process, for a debugger opens it, too.
    [[nodiscard]] std::string path() const
    {
        static std::atomic<unsigned> loads{0};
        std::string spelled = "/proc/" + std::to_string(getpid()) + "/";
        for (unsigned number = ++loads; number != 0; number >>= 1) {
            spelled += (number & 1) != 0 ? "./" : "/";
        }
        return spelled + "fd/" + std::to_string(descriptor_);
    }

private:
    const bool isReadByOthers_ = IsReadByOthers();
    int descriptor_ = -1;
};

class NativeImage final : public LoadedImage {
public:
    NativeImage(Environment& environment, const std::filesystem::path& file)
        : environment_(environment), name_(file.filename().string()), copy_(file)
    {
        handle_ = dlopen(copy_.path().c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle_ == nullptr) {
            LoadWithout(file, dlerror());
        }
        entry_ = dlsym(handle_, "FxDriverEntry");
        Dl_info information{};
        if (entry_ == nullptr || dladdr(entry_, &information) == 0) {
            dlclose(handle_);
            throw HostError(file.string() + ": entry point: no symbol FxDriverEntry");
        }
        base_ = information.dli_fbase;
        dl_iterate_phdr(
            [](dl_phdr_info* object, std::size_t, void* context) {
                auto* self = static_cast<NativeImage*>(context);
                if (reinterpret_cast<const void*>(object->dlpi_addr) == self->base_) {
                    for (unsigned index = 0; index < object->dlpi_phnum; ++index) {
                        const auto& segment = object->dlpi_phdr[index];
                        self->sizeBytes_ = std::max<std::size_t>(self->sizeBytes_, segment.p_vaddr + segment.p_memsz);
                    }
                }
                return 0;
            },
            this);
        environment_.modules.Add(base_, sizeBytes_, name_, file, ElfSymbols(file));
    }

    ~NativeImage() override
    {
        environment_.modules.Remove(base_);
        if (!kStaysLoaded && !keepMapped_) {
            dlclose(handle_);
        }
    }

    NativeImage(const NativeImage&) = delete;
    NativeImage& operator=(const NativeImage&) = delete;

    [[nodiscard]] void* entry() const override { return entry_; }
    [[nodiscard]] const void* base() const override { return base_; }
    [[nodiscard]] std::size_t sizeBytes() const override { return sizeBytes_; }
    [[nodiscard]] const std::string& name() const override { return name_; }
    void SealAfterEntry() override {}
    void KeepMapped() override { keepMapped_ = true; }

private:
    // What the system's loader refused: when functions are missing, says so of all of them, or leaves them to their
    // calls, at which that loader ends the process with their names.
    void LoadWithout(const std::filesystem::path& file, const std::string& reason)
    {
        handle_ = dlopen(copy_.path().c_str(), RTLD_LAZY | RTLD_LOCAL);
        if (handle_ == nullptr) {
            throw HostError(file.string() + ": " + reason);
        }
        if (!environment_.options.allowMissing) {
            const std::vector<std::string> missing = UndefinedSymbols(handle_);
            dlclose(handle_);
            throw HostError(MissingText(name_, missing));
        }
    }

    Environment& environment_;
    std::string name_;
    PrivateCopy copy_;
    void* handle_ = nullptr;
    void* entry_ = nullptr;
    const void* base_ = nullptr;
    std::size_t sizeBytes_ = 0;
    bool keepMapped_ = false;
};

}  // namespace

std::unique_ptr<LoadedImage> LoadNative(Environment& environment, const std::filesystem::path& file)
{
    return std::make_unique<NativeImage>(environment, file);
}

}  // namespace host::image
