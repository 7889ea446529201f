// What an image imports and this host does not play.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace host::image {

// "fan.sys needs 2 functions that this host does not play: IoAllocateMdl, KeInsertQueueDpc; ..."
[[nodiscard]] std::string MissingText(const std::string& image, const std::vector<std::string>& names);

// Code that stands for missing functions: a call names the one it stands for and stops.
class MissingStubs {
public:
    MissingStubs() = default;
    ~MissingStubs();
    MissingStubs(const MissingStubs&) = delete;
    MissingStubs& operator=(const MissingStubs&) = delete;

    [[nodiscard]] void* For(const std::string& name);

    // The destructor shall leave the code: a parked thread may go through it.
    void KeepMapped() { keepMapped_ = true; }

private:
    std::deque<std::string> names_;
    std::vector<void*> pages_;
    std::size_t used_ = 0;  // bytes of the last page
    bool keepMapped_ = false;
};

}  // namespace host::image
