// The frames of an image's functions, registered with this system's own unwinder: the walk over a thread's stack then
// goes through images as it goes through the host, and so does an exception.
//
// A translator describes one function after the other, as call frame information of DWARF, from what the image's unwind
// tables say of its prologue.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace host::image {

class CallFrames {
public:
    CallFrames() = default;
    ~CallFrames();
    CallFrames(const CallFrames&) = delete;
    CallFrames& operator=(const CallFrames&) = delete;

    // Where the functions lie: at `base` plus their offsets.
    void BeginImage(const std::uint8_t* base);

    // From here on a function. At its first instruction the frame address is the stack pointer before the call.
    void BeginFunction(std::uint32_t begin, std::uint32_t end);
    // From this instruction on: all that follows. Offsets do not fall.
    void At(std::uint32_t offsetInFunction);
    // The frame address is so many bytes above a register (by its number in DWARF).
    void Frame(unsigned reg, std::uint32_t bytesBelow);
    // The caller's value of a register is saved so many bytes below the frame address, a multiple of 8.
    void Saved(unsigned reg, std::uint32_t bytesBelow);
    // The return address is signed, or no longer.
    void ToggleSignedReturn();
    void EndFunction();

    // Takes every function; until this object ends the unwinder uses them.
    void Register();
    // They stay for ever: a thread hangs in one of them.
    void Keep() { kept_ = true; }

private:
    template <class T>
    void Put(T value);
    void PutNumber(std::uint64_t value);  // LEB128
    void PadAndClose(std::size_t begin);

    const std::uint8_t* base_ = nullptr;
    std::vector<std::uint8_t> bytes_;
    std::size_t function_ = 0;  // where its description begins
    std::uint32_t at_ = 0;
    bool registered_ = false;
    bool kept_ = false;
};

}  // namespace host::image
