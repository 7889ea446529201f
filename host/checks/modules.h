// The images loaded now, and what a code address in them is called.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace host::checks {

struct Symbol {
    std::uint64_t offset;  // bytes from the image's base
    std::string name;
};

// Of one file, sorted by offset; shared by all loads of it. Never null.
using Symbols = std::shared_ptr<const std::vector<Symbol>>;

class Modules {
public:
    void Add(const void* base, std::size_t sizeBytes, std::string name, Symbols symbols);
    void Remove(const void* base);

    // "zepn.sys!NotifierEvtDeviceAdd+0x1f4", "zepn.sys+0x21f4" without symbols, "host" for an address in no image.
    [[nodiscard]] std::string Describe(const void* address) const;

    // The name of the image that holds an address ("zepn.sys"), or empty.
    [[nodiscard]] std::string NameAt(const void* address) const;

    // The bare function name around an address ("NotifierEvtDeviceAdd"), or empty.
    [[nodiscard]] std::string FunctionAt(const void* address) const;

    [[nodiscard]] bool Contains(const void* address) const;

private:
    struct Module {
        std::uint64_t base;
        std::size_t sizeBytes;
        std::string name;
        Symbols symbols;
    };
    [[nodiscard]] const Module* Find(const void* address) const;

    mutable std::mutex mutex_;
    std::map<std::uint64_t, Module> byBase_;
};

}  // namespace host::checks
