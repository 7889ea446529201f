// String objects: a counted string that the framework keeps, with a terminator after it.
#pragma once

#include "host/framework/lent_buffer.h"
#include "host/framework/object.h"

#include <memory>
#include <span>

namespace host::framework {

// The framework's mutex guards it.
struct StringObject final : Object {
    explicit StringObject(DriverInstance* owner) : Object(ObjectType::kString, owner) {}
    UNICODE_STRING text{};  // without a buffer until something is assigned
    std::unique_ptr<LentBuffer> buffer;
};

template <>
inline constexpr ObjectType kTypeOf<StringObject> = ObjectType::kString;

// Gives the string other characters; at most as many as a counted string can have.
void Assign(kernel::Kernel& kernel, StringObject& string, std::span<const std::byte> characters);

}  // namespace host::framework
