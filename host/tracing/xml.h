// A reader for the XML that an event manifest needs: elements, attributes, comments, the predefined entities. Text
// between elements is skipped. Errors name the line.
#pragma once

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace host::tracing {

struct XmlElement {
    std::string name;  // with its prefix
    std::map<std::string, std::string> attributes;
    std::vector<XmlElement> children;
    unsigned line = 0;

    // All elements of a name below this one, at any depth, in document order.
    [[nodiscard]] std::vector<const XmlElement*> All(const std::string& wanted) const;

    // The attribute's value; throws std::runtime_error naming element, line and attribute when it is missing.
    [[nodiscard]] const std::string& Required(const std::string& attribute) const;
    [[nodiscard]] std::string Optional(const std::string& attribute) const;
};

// Throws std::runtime_error: "<file>:<line>: <what was expected>".
[[nodiscard]] XmlElement ReadXml(const std::filesystem::path& file);

}  // namespace host::tracing
