#include "tests/mutation/mutants.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <set>
#include <tuple>

namespace mutation {
namespace {

// What each operator is exchanged for. Of the comparisons one moves the bound and one turns it round.
const std::multimap<std::string, std::pair<std::string, std::string>> kOperators = {
    {"==", {"!=", "comparison"}}, {"!=", {"==", "comparison"}}, {"<", {"<=", "comparison"}},
    {"<", {">=", "comparison"}},  {">", {">=", "comparison"}},  {">", {"<=", "comparison"}},
    {"<=", {"<", "comparison"}},  {"<=", {">", "comparison"}},  {">=", {">", "comparison"}},
    {">=", {"<", "comparison"}},  {"&&", {"||", "logic"}},      {"||", {"&&", "logic"}},
    {"+", {"-", "arithmetic"}},   {"-", {"+", "arithmetic"}},   {"|", {"&", "arithmetic"}},
    {"&", {"|", "arithmetic"}},   {"<<", {">>", "arithmetic"}}, {">>", {"<<", "arithmetic"}},
    {"+=", {"-=", "arithmetic"}}, {"-=", {"+=", "arithmetic"}}, {"|=", {"&=", "arithmetic"}},
};

bool IsComparison(const Node& node)
{
    return node.kind == "BinaryOperator" &&
           std::set<std::string>{"==", "!=", "<", "<=", ">", ">="}.contains(node.opcode);
}

bool IsLoop(const Node& node)
{
    return node.kind == "ForStmt" || node.kind == "WhileStmt" || node.kind == "DoStmt";
}

// Without the casts and parentheses that the compiler wraps around an expression or the author puts there.
const Node& Inside(const Node& node)
{
    static const std::set<std::string> wrappers = {"ImplicitCastExpr", "ParenExpr", "ExprWithCleanups", "ConstantExpr",
                                                   "CStyleCastExpr"};
    return wrappers.contains(node.kind) && node.children.size() == 1 ? Inside(node.children.front()) : node;
}

bool IsIdentifier(std::string_view text)
{
    return !text.empty() && std::isdigit(static_cast<unsigned char>(text.front())) == 0 &&
           std::ranges::all_of(text,
                               [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; });
}

// On one line, and not too long to read.
std::string Short(std::string_view text)
{
    constexpr std::size_t kLongest = 60;
    std::string line;
    for (const char c : text) {
        const bool isBlank = std::isspace(static_cast<unsigned char>(c)) != 0;
        if (!isBlank) {
            line += c;
        } else if (!line.empty() && line.back() != ' ') {
            line += ' ';
        }
    }
    return line.size() <= kLongest ? line : line.substr(0, kLongest - 3) + "...";
}

std::string Quoted(std::string_view text)
{
    return "`" + Short(text) + "`";
}

class Finder {
public:
    Finder(const SyntaxTree& tree, const std::string& file, const std::string& text)
        : tree_(tree), file_(file), text_(text)
    {
        for (const Node& declaration : tree.declarations) {
            Visit(declaration, nullptr);
        }
    }

    std::vector<Mutant> Take()
    {
        std::ranges::sort(mutants_, {}, [](const Mutant& mutant) {
            return std::tie(mutant.edits.front().range, mutant.kind, mutant.change);
        });
        // Equal changes of equal lines of a function are distinguished by their number.
        std::map<std::tuple<std::string, std::string, std::string>, unsigned> counts;
        for (Mutant& mutant : mutants_) {
            const unsigned number = ++counts[{mutant.function, mutant.lineText, mutant.change}];
            mutant.change += number == 1 ? "" : " #" + std::to_string(number);
        }
        return std::move(mutants_);
    }

private:
    [[nodiscard]] std::string_view Written(const Range& range) const
    {
        return std::string_view(text_).substr(range.begin, range.end - range.begin);
    }

    // Templates stand in the tree once for each instance: the same edits are one mutant.
    void Add(std::size_t at, const std::string& kind, const std::string& change, std::vector<Edit> edits)
    {
        if (!known_.insert(edits).second) {
            return;
        }
        const std::size_t begin = text_.rfind('\n', at) + 1;  // of nothing: 0
        const std::size_t first = text_.find_first_not_of(' ', begin);
        mutants_.push_back({.file = file_,
                            .function = function_,
                            .line = static_cast<unsigned>(std::count(
                                        text_.begin(), text_.begin() + static_cast<std::ptrdiff_t>(at), '\n')) +
                                    1,
                            .lineText = text_.substr(first, text_.find('\n', first) - first),
                            .kind = kind,
                            .change = change,
                            .edits = std::move(edits)});
    }

    void Replace(const Range& range, const std::string& replacement, const std::string& kind)
    {
        Add(range.begin, kind, Quoted(Written(range)) + " -> " + Quoted(replacement), {{range, replacement}});
    }

    void Visit(const Node& node, const Node* loop)
    {
        if (node.kind == "StaticAssertDecl") {
            return;
        }
        const std::string outer = function_;
        if (node.kind == "FunctionDecl" && !node.range.IsEmpty()) {
            function_ = node.name;
        }
        if (!node.range.IsEmpty()) {
            VisitWritten(node, loop);
        }
        for (const Node& child : node.children) {
            Visit(child, IsLoop(node) ? &node : nullptr);
        }
        function_ = outer;
    }

    void VisitWritten(const Node& node, const Node* loop)
    {
        const std::string& kind = node.kind;
        if (kind == "BinaryOperator" || kind == "CompoundAssignOperator") {
            ChangeOperator(node);
        } else if (kind == "UnaryOperator") {
            ChangeUnary(node);
        } else if (kind == "CallExpr") {
            SwapArguments(node);
            DropValue(node);
        } else if (kind == "CompoundStmt") {
            DropStatements(node);
            if (loop != nullptr) {
                MoveInitialisations(node, *loop);
            }
        } else if (kind == "VarDecl" && !node.children.empty()) {
            DropInitialiser(node.children.back());
        } else if (kind == "InitListExpr") {
            for (const Node& child : node.children) {
                DropInitialiser(child);
            }
        } else {
            ChangeConstant(node);
        }
        NegateCondition(node);
    }

    void ChangeOperator(const Node& node)
    {
        if (node.children.size() != 2 || node.children[0].range.IsEmpty() || node.children[1].range.IsEmpty() ||
            node.children[0].range.end > node.children[1].range.begin) {
            return;
        }
        const Range left = node.children[0].range;
        const Range right = node.children[1].range;
        const std::size_t at = text_.find(node.opcode, left.end);
        if (at == std::string::npos || at + node.opcode.size() > right.begin) {
            return;
        }
        const auto [first, last] = kOperators.equal_range(node.opcode);
        for (auto found = first; found != last; ++found) {
            Replace({at, at + node.opcode.size()}, found->second.first, found->second.second);
        }
        if (node.opcode == "&&" || node.opcode == "||") {
            for (const Range& kept : {left, right}) {
                const Range& dropped = kept == left ? right : left;
                Add(dropped.begin, "logic", "without " + Quoted(Written(dropped)),
                    {{node.range, "(" + std::string(Written(kept)) + ")"}});
            }
        }
    }

    void ChangeUnary(const Node& node)
    {
        const bool isPrefix = Written(node.range).starts_with(node.opcode);
        if ((node.opcode == "++" || node.opcode == "--") && (isPrefix || Written(node.range).ends_with(node.opcode))) {
            const std::size_t at = isPrefix ? node.range.begin : node.range.end - node.opcode.size();
            Replace({at, at + node.opcode.size()}, node.opcode == "++" ? "--" : "++", "arithmetic");
        }
    }

    void ChangeConstant(const Node& node)
    {
        const std::string written(Written(node.range));
        // A macro's whole call is no constant, though its body may begin with one.
        const bool isLiteral = (node.kind == "IntegerLiteral" || node.kind == "CharacterLiteral") &&
                               (!node.isWholeMacro || IsIdentifier(written));
        if (node.kind == "CXXBoolLiteralExpr") {
            Replace(node.range, written == "true" ? "false" : "true", "constant");
        } else if (const auto next = tree_.nextEnumerator.find(node.refersTo); next != tree_.nextEnumerator.end()) {
            const std::size_t qualifier = written.rfind("::");
            Replace(node.range, (qualifier == std::string::npos ? "" : written.substr(0, qualifier + 2)) + next->second,
                    "constant");
        } else if (isLiteral || node.kind == "UnaryExprOrTypeTraitExpr" || tree_.constants.contains(node.refersTo)) {
            Replace(node.range, "(" + written + " + 1)", "constant");
        }
    }

    void SwapArguments(const Node& call)
    {
        const auto typeOf = [](const Node& node) {
            const std::string type = Inside(node).type;
            return type.starts_with("const ") ? type.substr(6) : type;
        };
        for (std::size_t index = 1; index + 1 < call.children.size(); ++index) {
            const Node& first = call.children[index];
            const Node& second = call.children[index + 1];
            if (first.range.IsEmpty() || second.range.IsEmpty() || first.range.end > second.range.begin ||
                typeOf(first) != typeOf(second) || Written(first.range) == Written(second.range)) {
                continue;
            }
            const std::string one(Written(first.range));
            const std::string other(Written(second.range));
            Add(first.range.begin, "swapped arguments", Quoted(one) + " <-> " + Quoted(other),
                {{first.range, other}, {second.range, one}});
        }
    }

    // The call is not made, and its value is zero: of a status, success.
    void DropValue(const Node& call)
    {
        if (call.type == "void" || statements_.contains(call.range)) {
            return;
        }
        const std::string written(Written(call.range));
        Add(call.range.begin, "dropped call", Quoted(written) + " -> `{}`",
            {{call.range, "decltype(" + written + "){}"}});
    }

    void DropStatements(const Node& block)
    {
        static const std::map<std::string, std::string> kinds = {
            {"IfStmt", "branch"}, {"SwitchStmt", "branch"}, {"ForStmt", "loop"},
            {"DoStmt", "loop"},   {"WhileStmt", "loop"},    {"ReturnStmt", "return"},
        };
        static const std::set<std::string> kept = {"DeclStmt", "NullStmt", "CompoundStmt", "CaseStmt", "DefaultStmt"};
        for (const Node& statement : block.children) {
            if (statement.range.IsEmpty() || kept.contains(statement.kind)) {
                continue;
            }
            const auto found = kinds.find(statement.kind);
            const Node& inside = Inside(statement);
            const bool isCall = inside.kind == "CallExpr" || statement.isWholeMacro;
            const std::string kind = isCall                         ? "call"
                                     : found != kinds.end()         ? found->second
                                     : inside.opcode.ends_with("=") ? "assignment"
                                                                    : "statement";
            statements_.insert(inside.range);
            Add(statement.range.begin, "dropped " + kind, "without " + Quoted(Written(statement.range)),
                {{statement.range, ";"}});
        }
    }

    // What is initialised anew in each pass is initialised once, before the loop.
    void MoveInitialisations(const Node& body, const Node& loop)
    {
        for (const Node& statement : body.children) {
            if (statement.kind != "DeclStmt" || statement.range.IsEmpty() || statement.children.size() != 1 ||
                statement.children.front().children.empty()) {
                continue;
            }
            const std::string written(Written(statement.range));
            Add(statement.range.begin, "moved initialisation", Quoted(written) + " before the loop",
                {{{loop.range.begin, loop.range.begin}, written + " "}, {statement.range, ""}});
        }
    }

    void DropInitialiser(const Node& value)
    {
        const Node& inside = Inside(value);
        if (value.range.IsEmpty() || inside.kind == "CallExpr" || inside.kind == "InitListExpr" ||
            Written(value.range).starts_with("{")) {
            return;
        }
        Replace(value.range, "{}", "dropped initialiser");
    }

    void NegateCondition(const Node& node)
    {
        std::size_t index = node.leading;
        if (node.kind == "ForStmt") {
            index = 2;
        } else if (node.kind == "DoStmt") {
            index = 1;
        } else if (node.kind != "IfStmt" && node.kind != "WhileStmt" && node.kind != "ConditionalOperator") {
            return;
        }
        if (node.isConstexprIf || index >= node.children.size() || node.children[index].range.IsEmpty()) {
            return;
        }
        const Node& condition = node.children[index];
        if (IsComparison(Inside(condition)) && !condition.isWholeMacro) {
            return;  // turned round as a comparison
        }
        const std::string written(Written(condition.range));
        Replace(condition.range,
                written.starts_with("!") && Inside(condition).opcode == "!" ? written.substr(1) : "!(" + written + ")",
                "negated condition");
    }

    const SyntaxTree& tree_;
    const std::string& file_;
    const std::string& text_;
    std::string function_;
    std::set<Range> statements_;
    std::set<std::vector<Edit>> known_;
    std::vector<Mutant> mutants_;
};

}  // namespace

std::vector<Mutant> MutantsOf(const SyntaxTree& tree, const std::string& file, const std::string& text)
{
    return Finder(tree, file, text).Take();
}

std::string Apply(const Mutant& mutant, const std::string& text)
{
    std::string result;
    std::size_t at = 0;
    for (const Edit& edit : mutant.edits) {
        result += text.substr(at, edit.range.begin - at) + edit.text;
        at = edit.range.end;
    }
    return result + text.substr(at);
}

}  // namespace mutation
