#include "tests/kit/settings.h"

#include <cstdlib>

namespace tests {
namespace {

const char* OtherDriver()
{
    return std::getenv("ZEPN_NATIVE_DRIVER");
}

}  // namespace

std::filesystem::path NativeDriver()
{
    const char* other = OtherDriver();
    return other == nullptr ? ZEPN_NATIVE_DRIVER : other;
}

std::filesystem::path ResultsFolder()
{
    return OtherDriver() == nullptr ? std::filesystem::path(ZEPN_RESULTS) : NativeDriver().parent_path();
}

}  // namespace tests
