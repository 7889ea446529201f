// Reads values by the names that they have in a scenario: states, clients, statuses.
#pragma once

#include "tools/play/reading/field_reader.h"
#include "tools/play/scenario.h"

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace play {

class ValueReader : public FieldReader {
public:
    // Clients and states are looked up in the scenario as it is when a value is read: the file's states and, of all
    // clients, names, identities and states are to be read before all else.
    ValueReader(std::string file, const Scenario& scenario) : FieldReader(std::move(file)), scenario_(scenario) {}

    // The client that is added to the scenario next; of two with one name the first counts.
    void AddClientName(const std::string& key) { clients_.emplace(key, scenario_.clients.size()); }
    // Null when there is none of this name.
    [[nodiscard]] const ClientModel* FindClient(const std::string& key) const;

    // The Notifier and the real clients.
    [[nodiscard]] std::vector<std::string> DriverNames() const;

    // "states": names for numbers, of the file or of one client.
    void ReadStateNames(const JsonValue& object, const std::string& field, StateNames& states);

    // A state of a client, by name or number. `special` is the word for no state in particular; it leaves it empty.
    void ReadState(const JsonValue& value, const std::string& field, const std::string& client,
                   const std::string& special, std::optional<std::uint32_t>& state);
    // A member of an object; it has no special word.
    void ReadState(const JsonValue& object, const std::string& name, const std::string& field,
                   const std::string& client, std::uint32_t& state);

    // `field` is the object's. `needsGuid`: the Notifier is to be given the client's identity.
    void ReadClientName(const JsonValue& object, const std::string& name, const std::string& field, bool needsGuid,
                        std::string& key);

    // By name or number.
    bool ReadStatus(const JsonValue& value, const std::string& field, std::optional<NTSTATUS>& status);

private:
    const Scenario& scenario_;
    std::map<std::string, std::size_t> clients_;  // by name, places in the scenario's list
};

}  // namespace play
