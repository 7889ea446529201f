// The compiler's own syntax tree of one source, as `clang -Xclang -ast-dump=json` prints it, with the place in the
// source's text that each node was written at.
#pragma once

#include <cstddef>
#include <istream>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace mutation {

// Of the source's text: [begin, end). Empty for what was not written there: implicit nodes, headers, macro bodies.
struct Range {
    std::size_t begin = 0;
    std::size_t end = 0;
    auto operator<=>(const Range&) const = default;
    [[nodiscard]] bool IsEmpty() const { return begin == end; }
};

struct Node {
    std::string kind;      // "BinaryOperator"; empty for an absent part, as a for statement's missing condition
    std::string name;      // of a declaration
    std::string opcode;    // of an operator
    std::string type;      // without aliases where clang gives it so
    std::string refersTo;  // the declaration's id, of a DeclRefExpr
    unsigned leading = 0;  // an if or while statement's children before its condition
    bool isConstexprIf = false;
    bool isWholeMacro = false;  // the range is the name of a macro, with its arguments if it has some
    Range range;
    std::vector<Node> children;
};

struct SyntaxTree {
    std::vector<Node> declarations;                     // those that are written in the source itself
    std::map<std::string, std::string> nextEnumerator;  // by an enumerator's id: the name after it, cyclically
    std::set<std::string> constants;                    // the ids of constexpr variables
};

// `file` is the source's name as the compiler was given it. Throws std::runtime_error when the dump is not one.
[[nodiscard]] SyntaxTree ReadSyntaxTree(std::istream& dump, const std::string& file, std::string_view text);

}  // namespace mutation
