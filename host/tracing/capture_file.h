// A file of captured records, raw as sessions took them; docs/tracing.md describes the format.
#pragma once

#include "host/tracing/tracing.h"

#include <filesystem>
#include <fstream>
#include <variant>

namespace host::tracing {

class CaptureWriter {
public:
    // Throws std::runtime_error when the file cannot be written.
    explicit CaptureWriter(const std::filesystem::path& file);

    void Write(const CapturedEvent& event);
    void Write(const CapturedMessage& message);

    // Writes the end record; a file without it counts as cut off. Throws std::runtime_error when anything was lost.
    void Finish();

private:
    std::filesystem::path file_;
    std::ofstream out_;
    std::uint64_t count_ = 0;
};

using CapturedRecord = std::variant<CapturedEvent, CapturedMessage>;

// Throws std::runtime_error naming the file, the offset and what is wrong there.
[[nodiscard]] std::vector<CapturedRecord> ReadCapture(const std::filesystem::path& file);

}  // namespace host::tracing
