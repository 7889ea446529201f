// Reads values by the names that they have in a scenario: states, clients, statuses.
#pragma once

#include "tools/play/reading/field_reader.h"
#include "tools/play/scenario.h"

#include <optional>
#include <set>
#include <string>

namespace play {

class ValueReader : public FieldReader {
public:
    // States are looked up in the scenario as it is when a value is read: they are to be read before all else.
    ValueReader(std::string file, const Scenario& scenario) : FieldReader(std::move(file)), scenario_(scenario) {}

    // Clients name one another, so all names are given before the first client is read.
    void AddClientName(const std::string& key) { clientKeys_.insert(key); }

    // A state by name or number; "any", where that is allowed, leaves it empty.
    void ReadState(const JsonValue& value, const std::string& field, bool anyAllowed,
                   std::optional<std::uint32_t>& state);
    void ReadState(const JsonValue& object, const std::string& name, const std::string& field, std::uint32_t& state);

    // `field` is the object's.
    void ReadClientName(const JsonValue& object, const std::string& name, const std::string& field, std::string& key);

    // By name or number.
    bool ReadStatus(const JsonValue& value, const std::string& field, std::optional<NTSTATUS>& status);

private:
    const Scenario& scenario_;
    std::set<std::string> clientKeys_;
};

}  // namespace play
