#include "tests/kit/one_report.h"

#include "tests/kit/contexts.h"

#include <algorithm>
#include <cstring>

namespace tests {
namespace {

using Numbers = std::vector<std::uint64_t>;

// Without the blank that ends some descriptions.
std::string Trimmed(const std::string& text)
{
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

// A GUID counts by its first number.
Numbers NumbersOf(const host::tracing::DecodedEvent& event)
{
    using host::tracing::FieldType;
    Numbers numbers;
    for (const auto& field : event.fields) {
        if (field.type == FieldType::kGuid) {
            numbers.push_back(host::tracing::ParseGuid(field.text)->Data1);
        } else if (field.type != FieldType::kAnsiString) {
            numbers.push_back(field.number);
        }
    }
    return numbers;
}

}  // namespace

Numbers NumbersOf(const host::tracing::CapturedMessage& message)
{
    Numbers numbers;
    std::size_t at = 0;
    for (const std::uint32_t size : message.argumentSizes) {
        std::memcpy(&numbers.emplace_back(0), message.payload.data() + at, std::min<std::size_t>(size, 8));
        at += size;
    }
    return numbers;
}

std::string NameOfHandle(host::Machine& machine, const host::Driver* driver, std::uint64_t handle,
                         const std::function<std::string(const host::framework::ObjectSnapshot& object)>& describe)
{
    const auto pointer = reinterpret_cast<WDFOBJECT>(handle);
    const bool isLoaded = driver != nullptr && driver->IsLoaded();
    if (isLoaded && pointer == driver->Handle()) {
        return "<driver>";
    }
    const auto inspect = machine.inspect();
    const auto context =
        isLoaded ? inspect.Context<layout::DriverContext>(driver->Handle(), layout::kDriverContextName) : std::nullopt;
    for (const auto& [collection, name] : layout::CollectionsOf(context.value_or(layout::DriverContext{}))) {
        if (collection == pointer) {
            return std::string("<") + name + ">";
        }
    }
    const auto object = inspect.Find(pointer);
    return object ? describe(*object) : "<gone>";
}

bool IsHandle(const host::tracing::DecodedField& field)
{
    return field.name == "Object" || field.name == "Collection";
}

std::string LineOf(const host::tracing::DecodedEvent& event,
                   const std::function<std::string(std::uint64_t handle)>& nameOf)
{
    std::string line = std::to_string(event.id) + " " + event.fields[0].text + ":";
    for (std::size_t index = 1; index < event.fields.size(); ++index) {
        const auto& field = event.fields[index];
        line += (index == 1 ? " " : ", ") + (IsHandle(field) ? nameOf(field.number) : field.text);
    }
    return line;
}

std::string DifferenceOf(const host::tracing::DecodedEvent& event, const host::tracing::CapturedMessage& message,
                         const host::tracing::DecodedMessage& decoded)
{
    const bool isError = decoded.level == "TRACE_LEVEL_ERROR" || decoded.level == "TRACE_LEVEL_WARNING";
    const Numbers values = NumbersOf(event);
    const Numbers numbers = NumbersOf(message);
    const bool isBare = numbers.empty() && !values.empty();
    const bool saysTheSame = numbers == values && decoded.text.starts_with(Trimmed(event.Text("Description")));
    if (isError && decoded.function == event.fields[0].text && (isBare || saysTheSame)) {
        return "";
    }
    return "after \"" + event.message + "\" comes message " + std::to_string(message.number) + " \"" +
           decoded.function + ": " + decoded.text + "\"";
}

}  // namespace tests
