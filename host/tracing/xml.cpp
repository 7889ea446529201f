#include "host/tracing/xml.h"

#include <cctype>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace host::tracing {
namespace {

class Reader {
public:
    explicit Reader(const std::filesystem::path& file) : file_(file.string())
    {
        std::ifstream stream(file, std::ios::binary);
        if (!stream || std::filesystem::is_directory(file)) {
            throw std::runtime_error(file_ + ": cannot be read");
        }
        text_.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    }

    XmlElement ReadDocument()
    {
        SkipMisc();
        XmlElement root = ReadElement();
        SkipMisc();
        if (at_ != text_.size()) {
            Fail("nothing behind the root element");
        }
        return root;
    }

private:
    [[noreturn]] void Fail(const std::string& expected) const
    {
        throw std::runtime_error(file_ + ":" + std::to_string(line_) + ": expected " + expected);
    }

    [[nodiscard]] bool Sees(const std::string& token) const { return text_.compare(at_, token.size(), token) == 0; }

    char Next()
    {
        if (at_ >= text_.size()) {
            Fail("more before the end of the file");
        }
        line_ += text_[at_] == '\n' ? 1 : 0;
        return text_[at_++];
    }

    void Take(const std::string& token)
    {
        if (!Sees(token)) {
            Fail("'" + token + "'");
        }
        for (std::size_t index = 0; index < token.size(); ++index) {
            Next();
        }
    }

    void SkipSpace()
    {
        while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_])) != 0) {
            Next();
        }
    }

    void SkipThrough(const std::string& end)
    {
        while (!Sees(end)) {
            Next();
        }
        Take(end);
    }

    // Declarations, comments and text between elements.
    void SkipMisc()
    {
        for (;;) {
            if (Sees("<?")) {
                SkipThrough("?>");
            } else if (Sees("<!--")) {
                SkipThrough("-->");
            } else if (at_ < text_.size() && text_[at_] != '<') {
                Next();
            } else {
                return;
            }
        }
    }

    std::string ReadName()
    {
        std::string name;
        while (at_ < text_.size() && (std::isalnum(static_cast<unsigned char>(text_[at_])) != 0 ||
                                      std::string(":_-.").find(text_[at_]) != std::string::npos)) {
            name.push_back(Next());
        }
        if (name.empty()) {
            Fail("a name");
        }
        return name;
    }

    std::string ReadValue()
    {
        const char quote = Next();
        if (quote != '"' && quote != '\'') {
            Fail("a quoted value");
        }
        std::string value;
        for (char letter = Next(); letter != quote; letter = Next()) {
            if (letter != '&') {
                value.push_back(letter);
                continue;
            }
            std::string entity;
            for (letter = Next(); letter != ';'; letter = Next()) {
                entity.push_back(letter);
            }
            static const std::map<std::string, char> kEntities = {
                {"amp", '&'}, {"lt", '<'}, {"gt", '>'}, {"quot", '"'}, {"apos", '\''}};
            const auto known = kEntities.find(entity);
            if (known == kEntities.end()) {
                Fail("a predefined entity instead of &" + entity + ";");
            }
            value.push_back(known->second);
        }
        return value;
    }

    XmlElement ReadElement()
    {
        Take("<");
        XmlElement element;
        element.line = line_;
        element.name = ReadName();
        for (SkipSpace(); !Sees(">") && !Sees("/>"); SkipSpace()) {
            const std::string attribute = ReadName();
            SkipSpace();
            Take("=");
            SkipSpace();
            if (!element.attributes.emplace(attribute, ReadValue()).second) {
                Fail("attribute " + attribute + " once");
            }
        }
        if (Sees("/>")) {
            Take("/>");
            return element;
        }
        Take(">");
        for (SkipMisc(); !Sees("</"); SkipMisc()) {
            element.children.push_back(ReadElement());
        }
        Take("</" + element.name);
        SkipSpace();
        Take(">");
        return element;
    }

    std::string file_;
    std::string text_;
    std::size_t at_ = 0;
    unsigned line_ = 1;
};

void Collect(const XmlElement& element, const std::string& wanted, std::vector<const XmlElement*>& found)
{
    for (const XmlElement& child : element.children) {
        if (child.name == wanted) {
            found.push_back(&child);
        }
        Collect(child, wanted, found);
    }
}

}  // namespace

std::vector<const XmlElement*> XmlElement::All(const std::string& wanted) const
{
    std::vector<const XmlElement*> found;
    Collect(*this, wanted, found);
    return found;
}

const std::string& XmlElement::Required(const std::string& attribute) const
{
    const auto found = attributes.find(attribute);
    if (found == attributes.end()) {
        throw std::runtime_error("line " + std::to_string(line) + ": <" + name + "> has no attribute " + attribute);
    }
    return found->second;
}

std::string XmlElement::Optional(const std::string& attribute) const
{
    const auto found = attributes.find(attribute);
    return found == attributes.end() ? std::string() : found->second;
}

XmlElement ReadXml(const std::filesystem::path& file)
{
    return Reader(file).ReadDocument();
}

}  // namespace host::tracing
