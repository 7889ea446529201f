// Reads the fields of JSON objects and gathers what is wrong with them. Nothing is guessed: unknown fields and wrong
// kinds of values are reported, each with its line and what was expected there. What the fields mean it does not know.
#pragma once

#include "tools/play/reading/located_json.h"

#include <cstdint>
#include <string>
#include <vector>

namespace play {

// "; did you mean "..."?" for the known name that differs least from a wrong one; empty when none is near. `prefix`:
// what all begin with, so that it makes nothing near.
[[nodiscard]] std::string Nearest(const std::string& name, const std::vector<std::string>& known,
                                  const std::string& prefix = "");

// `field` names a value by its way through the file, as in "steps[3].state". A field that is not there leaves what it
// would be read into as it was; once there was a mistake, nothing that was read is of use.
class FieldReader {
public:
    using Kind = JsonValue::Kind;

    explicit FieldReader(std::string file) : file_(std::move(file)) {}

    // Throws ScenarioError when there are too many.
    void Mistake(unsigned line, const std::string& field, const std::string& expected);
    // All so far, as "<file>:<line>: <field>: <what was expected>", one to a line.
    [[nodiscard]] const std::string& mistakes() const { return mistakes_; }

    // These report what they find wrong.
    bool IsA(const JsonValue& value, Kind kind, const std::string& field);
    void CheckFields(const JsonValue& object, const std::string& field, const std::vector<std::string>& required,
                     const std::vector<std::string>& optional);
    void ReadText(const JsonValue& object, const std::string& name, const std::string& field, std::string& text);
    void CheckNames(const JsonValue& object, const std::string& field);  // none is given twice
    bool ReadNumber(const JsonValue& value, const std::string& field, std::uint32_t& number,
                    std::uint32_t maximum = 0xFFFFFFFF);
    void ReadNumber(const JsonValue& object, const std::string& name, const std::string& field, std::uint32_t& number,
                    std::uint32_t maximum = 0xFFFFFFFF);
    // A text out of a list. `field` is the object's.
    void ReadOneOf(const JsonValue& object, const std::string& name, const std::string& field,
                   const std::vector<std::string>& known, std::string& text);

private:
    std::string file_;
    std::string mistakes_;
    unsigned mistakeCount_ = 0;
};

}  // namespace play
