#include "tests/mutation/syntax_tree.h"

#include <nlohmann/json.hpp>

#include <cctype>
#include <stdexcept>

namespace mutation {
namespace {

// The order of members matters: a location leaves its file out when it is that of the location printed before it.
using Json = nlohmann::ordered_json;

struct Place {
    std::size_t offset = 0;
    std::size_t length = 0;
    bool isInSource = false;
    bool isMacro = false;
};

std::string Text(const Json& node, const char* member)
{
    const auto found = node.find(member);
    return found == node.end() || !found->is_string() ? "" : found->get<std::string>();
}

bool Flag(const Json& node, const char* member)
{
    const auto found = node.find(member);
    return found != node.end() && found->is_boolean() && found->get<bool>();
}

class Reader {
public:
    Reader(const std::string& file, std::string_view text) : file_(file), text_(text) {}

    SyntaxTree Read(const Json& unit)
    {
        for (const Json& declaration : unit.at("inner")) {
            Node node = ReadNode(declaration);
            if (!node.range.IsEmpty()) {
                tree_.declarations.push_back(std::move(node));
            }
        }
        return std::move(tree_);
    }

private:
    // A plain location.
    Place ReadBare(const Json& location)
    {
        if (const std::string file = Text(location, "file"); !file.empty()) {
            current_ = file;
        }
        const auto offset = location.find("offset");
        if (offset == location.end()) {
            return {};
        }
        return {.offset = offset->get<std::size_t>(),
                .length = location.at("tokLen").get<std::size_t>(),
                .isInSource = current_ == file_};
    }

    // What a macro's argument becomes counts where it was written; what its body becomes, as the macro's name.
    Place ReadPlace(const Json& location)
    {
        const auto expansion = location.find("expansionLoc");
        if (expansion == location.end()) {
            return ReadBare(location);
        }
        const Place spelled = ReadBare(location.at("spellingLoc"));
        Place expanded = ReadBare(*expansion);
        if (Flag(*expansion, "isMacroArgExpansion") && spelled.isInSource) {
            return spelled;
        }
        expanded.isMacro = true;
        return expanded;
    }

    // Where the arguments of a macro end whose name ends here.
    [[nodiscard]] std::size_t EndOfArguments(std::size_t at) const
    {
        std::size_t open = at;
        while (open < text_.size() && std::isspace(static_cast<unsigned char>(text_[open])) != 0) {
            ++open;
        }
        if (open == text_.size() || text_[open] != '(') {
            return at;
        }
        unsigned depth = 0;
        for (std::size_t end = open; end < text_.size(); ++end) {
            depth += text_[end] == '(' ? 1 : 0;
            if (text_[end] == ')' && --depth == 0) {
                return end + 1;
            }
        }
        return at;
    }

    void ReadRange(const Json& range, Node& node)
    {
        const Place begin = ReadPlace(range.at("begin"));
        const Place end = ReadPlace(range.at("end"));
        if (!begin.isInSource || !end.isInSource || end.offset < begin.offset) {
            return;
        }
        const std::size_t last = end.offset + end.length;
        node.range = {begin.offset, end.isMacro ? EndOfArguments(last) : last};
        node.isWholeMacro = begin.isMacro && end.isMacro && begin.offset == end.offset;
    }

    // Follows the file through what is of no interest otherwise.
    void PassOver(const Json& json)
    {
        if (json.is_object() && json.contains("offset")) {
            (void)ReadBare(json);
            return;
        }
        for (const Json& part : json) {
            if (part.is_structured()) {
                PassOver(part);
            }
        }
    }

    Node ReadNode(const Json& json)
    {
        Node node;
        node.kind = Text(json, "kind");
        node.name = Text(json, "name");
        node.opcode = Text(json, "opcode");
        node.leading = (Flag(json, "hasInit") ? 1 : 0) + (Flag(json, "hasVar") ? 1 : 0);
        node.isConstexprIf = Flag(json, "isConstexpr");
        // In the order of the dump.
        for (const auto& [member, value] : json.items()) {
            if (member == "loc") {
                (void)ReadPlace(value);
            } else if (member == "range") {
                ReadRange(value, node);
            } else if (member == "type") {
                node.type =
                    value.contains("desugaredQualType") ? Text(value, "desugaredQualType") : Text(value, "qualType");
            } else if (member == "referencedDecl") {
                node.refersTo = Text(value, "id");
            } else if (member == "inner") {
                for (const Json& child : value) {
                    node.children.push_back(ReadNode(child));
                }
            } else if (value.is_structured()) {
                PassOver(value);
            }
        }
        if (node.kind == "EnumDecl") {
            NoteEnumerators(json);
        } else if (node.kind == "VarDecl" && Flag(json, "constexpr")) {
            tree_.constants.insert(Text(json, "id"));
        }
        return node;
    }

    void NoteEnumerators(const Json& enumeration)
    {
        const auto inner = enumeration.find("inner");
        if (inner == enumeration.end()) {
            return;
        }
        std::vector<std::pair<std::string, std::string>> all;
        for (const Json& child : *inner) {
            if (Text(child, "kind") == "EnumConstantDecl") {
                all.emplace_back(Text(child, "id"), Text(child, "name"));
            }
        }
        for (std::size_t index = 0; all.size() > 1 && index < all.size(); ++index) {
            tree_.nextEnumerator[all[index].first] = all[(index + 1) % all.size()].second;
        }
    }

    const std::string file_;
    const std::string_view text_;
    std::string current_;
    SyntaxTree tree_;
};

}  // namespace

SyntaxTree ReadSyntaxTree(std::istream& dump, const std::string& file, std::string_view text)
{
    try {
        return Reader(file, text).Read(Json::parse(dump));
    } catch (const nlohmann::json::exception& error) {
        throw std::runtime_error(file + ": the compiler's syntax tree cannot be read: " + error.what());
    }
}

}  // namespace mutation
