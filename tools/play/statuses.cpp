#include "tools/play/statuses.h"

#include "driver/include/zepn_notifier.h"

#include <cstdio>
#include <cstdlib>

namespace play {
namespace {

struct Row {
    NTSTATUS status;
    const char* name;
};

#define STATUS_ROW(name) {name, #name}

constexpr Row kRows[] = {
    STATUS_ROW(STATUS_SUCCESS),
    STATUS_ROW(STATUS_TIMEOUT),
    STATUS_ROW(STATUS_PENDING),
    STATUS_ROW(STATUS_OBJECT_NAME_EXISTS),
    STATUS_ROW(STATUS_UNSUCCESSFUL),
    STATUS_ROW(STATUS_NOT_IMPLEMENTED),
    STATUS_ROW(STATUS_INVALID_PARAMETER),
    STATUS_ROW(STATUS_NO_SUCH_DEVICE),
    STATUS_ROW(STATUS_INVALID_DEVICE_REQUEST),
    STATUS_ROW(STATUS_NO_MEMORY),
    STATUS_ROW(STATUS_ACCESS_DENIED),
    STATUS_ROW(STATUS_BUFFER_TOO_SMALL),
    STATUS_ROW(STATUS_OBJECT_NAME_NOT_FOUND),
    STATUS_ROW(STATUS_OBJECT_NAME_COLLISION),
    STATUS_ROW(STATUS_DELETE_PENDING),
    STATUS_ROW(STATUS_INSUFFICIENT_RESOURCES),
    STATUS_ROW(STATUS_NOT_SUPPORTED),
    STATUS_ROW(STATUS_INVALID_DEVICE_STATE),
    STATUS_ROW(STATUS_IO_DEVICE_ERROR),
    STATUS_ROW(STATUS_NOT_FOUND),
    STATUS_ROW(STATUS_ZEP_NOTIFIER_NO_DRIVER),
    STATUS_ROW(STATUS_ZEP_NOTIFIER_ALREADY_REGISTERED),
    STATUS_ROW(STATUS_ZEP_NOTIFIER_NO_MEMORY),
};

}  // namespace

std::string StatusText(NTSTATUS status)
{
    for (const Row& row : kRows) {
        if (row.status == status) {
            return row.name;
        }
    }
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08X", static_cast<unsigned>(status));
    return text;
}

std::vector<std::string> StatusNames()
{
    std::vector<std::string> names;
    for (const Row& row : kRows) {
        names.emplace_back(row.name);
    }
    return names;
}

std::optional<NTSTATUS> ParseStatus(const std::string& text)
{
    for (const Row& row : kRows) {
        if (row.name == text) {
            return row.status;
        }
    }
    if (text.starts_with("0x") && text.size() > 2 && text.size() <= 10 &&
        text.find_first_not_of("0123456789abcdefABCDEF", 2) == std::string::npos) {
        return static_cast<NTSTATUS>(std::strtoul(text.c_str(), nullptr, 16));
    }
    return std::nullopt;
}

}  // namespace play
