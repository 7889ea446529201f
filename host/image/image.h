// A driver image in memory: a PE file mapped and bound by our own loader, or a native shared object.
#pragma once

#include "host/environment.h"

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>

namespace host::image {

class LoadedImage {
public:
    // Chooses the loader by the file's first bytes. Throws HostError naming the file, the place in it and the reason
    // when the image is refused; then nothing stays mapped.
    static std::unique_ptr<LoadedImage> Load(Environment& environment, const std::filesystem::path& file);

    virtual ~LoadedImage() = default;

    // NTSTATUS (NTAPI*)(PDRIVER_OBJECT, PUNICODE_STRING)
    [[nodiscard]] virtual void* entry() const = 0;
    [[nodiscard]] virtual const void* base() const = 0;
    [[nodiscard]] virtual std::size_t sizeBytes() const = 0;
    [[nodiscard]] virtual const std::string& name() const = 0;

    // After a successful entry: discardable sections become inaccessible, so that code left there is found at once.
    virtual void SealAfterEntry() = 0;

    // The destructor shall not unmap: a parked thread has frames in the image.
    virtual void KeepMapped() = 0;
};

std::unique_ptr<LoadedImage> LoadPe(Environment& environment, const std::filesystem::path& file);
std::unique_ptr<LoadedImage> LoadNative(Environment& environment, const std::filesystem::path& file);

}  // namespace host::image
