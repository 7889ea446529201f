// The repository, as the tests of the documentation read it.
#pragma once

#include "tests/kit/texts.h"

namespace tests {

inline const std::filesystem::path kRoot = ZEPN_ROOT;

}  // namespace tests
