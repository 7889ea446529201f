// An event manifest read from its file. The library that reads the XML keeps no lines, only places in the text, and
// takes more than a manifest may hold, so what is missing, doubled or out of range is said here.
#include "host/tracing/decode.h"
#include "host/tracing/number_text.h"

#include <pugixml.hpp>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace host::tracing {
namespace {

constexpr std::pair<std::string_view, std::uint8_t> kLevels[] = {{"win:Critical", std::uint8_t{1}},
                                                                 {"win:Error", std::uint8_t{2}},
                                                                 {"win:Warning", std::uint8_t{3}},
                                                                 {"win:Informational", std::uint8_t{4}},
                                                                 {"win:Verbose", std::uint8_t{5}}};
constexpr std::pair<std::string_view, FieldType> kTypes[] = {{"win:AnsiString", FieldType::kAnsiString},
                                                             {"win:UInt32", FieldType::kUInt32},
                                                             {"win:UInt64", FieldType::kUInt64},
                                                             {"win:GUID", FieldType::kGuid}};

class ManifestFile {
public:
    explicit ManifestFile(const std::filesystem::path& file) : file_(file.string())
    {
        std::ifstream stream(file, std::ios::binary);
        if (!stream || std::filesystem::is_directory(file)) {
            throw std::runtime_error(file_ + ": cannot be read");
        }
        text_.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
        const pugi::xml_parse_result result = document_.load_buffer(text_.data(), text_.size());
        KeepOneByteForEachCharacter();
        if (!result) {
            Fail(result.offset, result.description());
        }
    }

    [[nodiscard]] pugi::xpath_node_set All(const char* element) const
    {
        pugi::xpath_node_set nodes = document_.select_nodes((std::string("//") + element).c_str());
        nodes.sort();
        return nodes;
    }

    [[nodiscard]] std::string Required(const pugi::xml_node& node, const char* attribute) const
    {
        const auto isWanted = [attribute](const pugi::xml_attribute& one) {
            return std::string(one.name()) == attribute;
        };
        const auto count = std::ranges::count_if(node.attributes(), isWanted);
        if (count != 1) {
            Fail(node, std::string(count == 0 ? "has no attribute " : "has more than one attribute ") + attribute);
        }
        return node.attribute(attribute).value();
    }

    template <class Value, std::size_t kCount>
    [[nodiscard]] Value OneOf(const std::pair<std::string_view, Value> (&known)[kCount], const pugi::xml_node& node,
                              const char* attribute) const
    {
        const std::string name = Required(node, attribute);
        for (const auto& [knownName, value] : known) {
            if (name == knownName) {
                return value;
            }
        }
        Fail(node, std::string("has an unknown ") + attribute + ": " + name);
    }

    [[noreturn]] void Fail(const pugi::xml_node& node, const std::string& what) const
    {
        Fail(node.offset_debug(), std::string("<") + node.name() + "> " + what);
    }

    [[noreturn]] void Fail(const std::string& what) const { throw std::runtime_error(file_ + ": " + what); }

private:
    // The library's places count in UTF-8. A file in UTF-16 says so by its first two bytes.
    void KeepOneByteForEachCharacter()
    {
        const bool isLittle = text_.starts_with("\xFF\xFE");
        if (!isLittle && !text_.starts_with("\xFE\xFF")) {
            return;
        }
        std::string narrow;
        for (std::size_t at = 2; at + 1 < text_.size(); at += 2) {
            narrow.push_back(text_[at + isLittle] == 0 ? text_[at + 1 - isLittle] : '?');
        }
        text_ = narrow;
    }

    [[noreturn]] void Fail(std::ptrdiff_t offset, const std::string& what) const
    {
        const auto end = text_.begin() + std::clamp<std::ptrdiff_t>(offset, 0, std::ssize(text_));
        throw std::runtime_error(file_ + ":" + std::to_string(1 + std::count(text_.begin(), end, '\n')) + ": " + what);
    }

    std::string file_;
    std::string text_;
    pugi::xml_document document_;
};

}  // namespace

Manifest::Manifest(const std::filesystem::path& path)
{
    const ManifestFile file(path);
    const pugi::xpath_node_set providers = file.All("provider");
    if (providers.size() != 1) {
        file.Fail("holds " + std::to_string(providers.size()) + " providers instead of one");
    }
    const pugi::xml_node provider = providers.first().node();
    const std::optional<GUID> guid = ParseGuid(file.Required(provider, "guid"));
    if (!guid) {
        file.Fail(provider, "has a guid that is none");
    }
    provider_ = *guid;

    std::map<std::string, std::string> strings;
    for (const pugi::xpath_node& found : file.All("string")) {
        strings["$(string." + file.Required(found.node(), "id") + ")"] = file.Required(found.node(), "value");
    }
    std::map<std::string, std::vector<Field>> templates;
    for (const pugi::xpath_node& found : file.All("template")) {
        std::vector<Field>& fields = templates[file.Required(found.node(), "tid")];
        for (const pugi::xml_node& data : found.node().children()) {
            if (data.type() == pugi::node_element) {
                fields.push_back({file.Required(data, "name"), file.OneOf(kTypes, data, "inType"),
                                  data.attribute("outType").value()});
            }
        }
    }
    for (const pugi::xpath_node& found : file.All("event")) {
        const pugi::xml_node node = found.node();
        const std::string value = file.Required(node, "value");
        const std::optional<std::uint16_t> id = ParseNumber<std::uint16_t>(value);
        if (!id) {
            file.Fail(node, "has a value that is no number from 0 to 65535: " + value);
        }
        const auto message = strings.find(file.Required(node, "message"));
        if (message == strings.end()) {
            file.Fail(node, "refers to a string that is missing");
        }
        const auto fields = templates.find(file.Required(node, "template"));
        if (fields == templates.end()) {
            file.Fail(node, "refers to a template that is missing");
        }
        const Event event{*id, file.OneOf(kLevels, node, "level"), file.Required(node, "symbol"), message->second,
                          fields->second};
        if (!events_.emplace(*id, event).second) {
            file.Fail(node, "has the value of another: " + value);
        }
    }
}

}  // namespace host::tracing
