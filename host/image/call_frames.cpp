#include "host/image/call_frames.h"

#include <cstring>
#include <memory>

// Of the unwinder (libgcc): a section of descriptions, ended by a zero.
extern "C" {
void __register_frame(void* begin);
void __deregister_frame(void* begin);
}

namespace host::image {
namespace {

#if defined(__x86_64__)
constexpr std::uint8_t kStackPointer = 7;
constexpr std::uint8_t kReturnAddress = 16;
constexpr std::uint8_t kPushedByCall = 8;
#else
constexpr std::uint8_t kStackPointer = 31;
constexpr std::uint8_t kReturnAddress = 30;
constexpr std::uint8_t kPushedByCall = 0;
#endif

constexpr std::uint8_t kAdvance4 = 0x04;
constexpr std::uint8_t kDefineFrame = 0x0c;
constexpr std::uint8_t kToggleSignedReturn = 0x2d;
constexpr std::uint8_t kSaved = 0x80;  // with the register, up to 63
constexpr std::uint8_t kMinusEight = 0x78;
constexpr std::size_t kAlignment = 8;

}  // namespace

CallFrames::~CallFrames()
{
    if (!registered_) {
        return;
    }
    if (kept_) {
        // The unwinder reads them on, to the last act of the process.
        static auto* const kept = std::make_unique<std::vector<std::vector<std::uint8_t>>>().release();
        kept->push_back(std::move(bytes_));
    } else {
        __deregister_frame(bytes_.data());
    }
}

template <class T>
void CallFrames::Put(T value)
{
    const std::size_t at = bytes_.size();
    bytes_.resize(at + sizeof(T));
    std::memcpy(bytes_.data() + at, &value, sizeof(T));
}

void CallFrames::PutNumber(std::uint64_t value)
{
    for (; value >= 0x80; value >>= 7) {
        bytes_.push_back(static_cast<std::uint8_t>(value | 0x80));
    }
    bytes_.push_back(static_cast<std::uint8_t>(value));
}

void CallFrames::PadAndClose(std::size_t begin)
{
    bytes_.resize((bytes_.size() + kAlignment - 1) / kAlignment * kAlignment);
    const auto length = static_cast<std::uint32_t>(bytes_.size() - begin - sizeof(std::uint32_t));
    std::memcpy(bytes_.data() + begin, &length, sizeof(length));
}

// What all functions have in common.
void CallFrames::BeginImage(const std::uint8_t* base)
{
    constexpr std::uint8_t kVersion = 1;
    base_ = base;
    Put(std::uint32_t{0});  // the length
    Put(std::uint32_t{0});  // not a function
    for (const std::uint8_t byte : {kVersion, std::uint8_t{0}, std::uint8_t{1}, kMinusEight, kReturnAddress}) {
        Put(byte);  // no augmentation; units of 1 for code and of -8 for data
    }
    Frame(kStackPointer, kPushedByCall);
    if (kPushedByCall != 0) {
        Saved(kReturnAddress, kPushedByCall);
    }
    PadAndClose(0);
}

void CallFrames::BeginFunction(std::uint32_t begin, std::uint32_t end)
{
    function_ = bytes_.size();
    at_ = 0;
    Put(std::uint32_t{0});
    Put(static_cast<std::uint32_t>(bytes_.size()));  // how far back the common part lies
    Put(reinterpret_cast<std::uint64_t>(base_) + begin);
    Put(std::uint64_t{end} - begin);
}

void CallFrames::At(std::uint32_t offsetInFunction)
{
    if (offsetInFunction > at_) {
        Put(kAdvance4);
        Put(offsetInFunction - at_);
        at_ = offsetInFunction;
    }
}

void CallFrames::Frame(unsigned reg, std::uint32_t bytesBelow)
{
    Put(kDefineFrame);
    PutNumber(reg);
    PutNumber(bytesBelow);
}

void CallFrames::Saved(unsigned reg, std::uint32_t bytesBelow)
{
    Put(static_cast<std::uint8_t>(kSaved | reg));
    PutNumber(bytesBelow / 8);
}

void CallFrames::ToggleSignedReturn()
{
    Put(kToggleSignedReturn);
}

void CallFrames::EndFunction()
{
    PadAndClose(function_);
}

void CallFrames::Register()
{
    Put(std::uint32_t{0});
    __register_frame(bytes_.data());
    registered_ = true;
}

}  // namespace host::image
