// The images loaded now and those that were, and what a code address in them is called.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace host::checks {

struct Symbol {
    std::uint64_t offset;  // bytes from the image's base
    std::string name;
};

// Of one file, sorted by offset; shared by all loads of it. Never null.
using Symbols = std::shared_ptr<const std::vector<Symbol>>;

// A place in the code of an image. It says the same when the image is gone.
struct CodePlace {
    std::string module;          // "zepn.sys"
    std::filesystem::path file;  // that it was loaded from
    std::uint64_t offset = 0;    // from the image's base
    std::string function = {};   // bare; empty without symbols
    std::uint64_t functionOffset = 0;
    bool isUnloaded = false;

    // "zepn.sys!NotifierEvtDeviceAdd+0x1f4", "zepn.sys+0x21f4" without symbols, "fan.sys!OnThermal, which is unloaded".
    [[nodiscard]] std::string Text() const;
};

class Modules {
public:
    void Add(const void* base, std::size_t sizeBytes, std::string name, std::filesystem::path file, Symbols symbols);

    // Its addresses keep their names until another image lies there.
    void Remove(const void* base);

    // Where an address lies; empty in no image.
    [[nodiscard]] std::optional<CodePlace> PlaceOf(const void* address) const;

    // The place's text, "host" for an address in no image.
    [[nodiscard]] std::string Describe(const void* address) const;

    // The name of the image that holds an address ("zepn.sys"), or empty.
    [[nodiscard]] std::string NameAt(const void* address) const;

    // The bare function name around an address ("NotifierEvtDeviceAdd") in an image loaded now, or empty.
    [[nodiscard]] std::string FunctionAt(const void* address) const;

    // Whether it lies in an image loaded now.
    [[nodiscard]] bool Contains(const void* address) const;

private:
    struct Module {
        std::uint64_t base;
        std::size_t sizeBytes;
        std::string name;
        std::filesystem::path file;
        Symbols symbols;
        bool isUnloaded = false;
    };
    [[nodiscard]] const Module* Find(const void* address) const;

    mutable std::mutex mutex_;
    std::map<std::uint64_t, Module> byBase_;
};

}  // namespace host::checks
