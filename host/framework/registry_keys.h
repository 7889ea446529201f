// Registry keys that a driver has open.
#pragma once

#include "host/framework/functions.h"

namespace host::framework {

struct KeyObject final : Object {
    explicit KeyObject(DriverInstance* owner) : Object(ObjectType::kKey, owner) {}
    std::string service;
    ACCESS_MASK access = 0;  // that it was opened for
};

template <>
inline constexpr ObjectType kTypeOf<KeyObject> = ObjectType::kKey;

inline constexpr ACCESS_MASK kQueryValue = 0x1;
inline constexpr ACCESS_MASK kSetValue = 0x2;
inline constexpr ACCESS_MASK kCreateSubKey = 0x4;
inline constexpr ACCESS_MASK kMaximumAllowed = 0x02000000;
inline constexpr ACCESS_MASK kGenericAll = 0x10000000;
inline constexpr ACCESS_MASK kGenericWrite = 0x40000000;
inline constexpr ACCESS_MASK kGenericRead = 0x80000000;
inline constexpr ACCESS_MASK kEverything = kMaximumAllowed | kGenericAll;

}  // namespace host::framework
