// Trace messages decoded by message-format files alone: the items say how many bytes each argument takes, the format
// how it reads.
#include "host/tracing/decode.h"
#include "host/tracing/number_text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace host::tracing {
namespace {

constexpr unsigned kFirstArgument = 10;

std::string After(const std::string& line, const std::string& key)
{
    const std::size_t at = line.find(key);
    if (at == std::string::npos) {
        return {};
    }
    std::istringstream rest(line.substr(at + key.size()));
    std::string word;
    rest >> word;
    return word;
}

std::string Trimmed(const std::string& text)
{
    const std::size_t begin = text.find_first_not_of(" \t\r");
    const std::size_t end = text.find_last_not_of(" \t\r");
    return begin == std::string::npos ? std::string() : text.substr(begin, end - begin + 1);
}

// Reads one file, line by line.
class TmfReader {
public:
    using Formats = std::map<std::pair<std::string, std::uint16_t>, MessageFormats::Format>;

    TmfReader(const std::filesystem::path& file, Formats& formats) : file_(file.string()), formats_(formats)
    {
        std::ifstream stream(file);
        if (!stream) {
            throw std::runtime_error(file_ + ": cannot be read");
        }
        std::string line;
        while (std::getline(stream, line)) {
            ++line_;
            ReadLine(Trimmed(line));
        }
        if (inBraces_ || current_ != nullptr) {
            Fail("'}' before the end");
        }
    }

private:
    [[noreturn]] void Fail(const std::string& expected) const
    {
        throw std::runtime_error(file_ + ":" + std::to_string(line_) + ": expected " + expected);
    }

    void ReadLine(const std::string& line)
    {
        if (line.empty() || line.starts_with("//")) {
            return;
        }
        if (inBraces_) {
            ReadItem(line);
        } else if (line == "{") {
            inBraces_ = true;
            if (current_ == nullptr) {
                Fail("#typev before '{'");
            }
        } else if (line.starts_with("#typev ")) {
            ReadMessage(line);
        } else {
            std::istringstream fields(line);
            fields >> guid_;
            if (!ParseGuid(guid_)) {
                Fail("a message GUID, #typev or a brace");
            }
        }
    }

    void ReadMessage(const std::string& line)
    {
        std::istringstream fields(line);
        std::string keyword;
        std::string tag;
        std::string numberText;
        const std::size_t open = line.find('"');
        const std::size_t trailer = line.find("//");
        const std::size_t close = trailer == std::string::npos ? line.rfind('"') : line.rfind('"', trailer);
        fields >> keyword >> tag >> numberText;
        const std::optional<std::uint16_t> number = ParseNumber<std::uint16_t>(numberText);
        if (!number || open == std::string::npos || close <= open || guid_.empty()) {
            Fail("#typev <tag> <number up to 65535> \"<format>\" below a message GUID");
        }
        const MessageFormats::Format format{.tag = tag,
                                            .text = line.substr(open + 1, close - open - 1),
                                            .level = After(line, "LEVEL="),
                                            .flags = After(line, "FLAGS="),
                                            .function = After(line, "FUNC="),
                                            .items = {}};
        const auto [entry, isNew] = formats_.emplace(std::pair(guid_, *number), format);
        if (!isNew) {
            Fail("message " + numberText + " once");
        }
        current_ = &entry->second;
    }

    void ReadItem(const std::string& line)
    {
        if (line == "}") {
            inBraces_ = false;
            current_ = nullptr;
            return;
        }
        const std::size_t comma = line.rfind(", Item");
        const std::size_t dashes = line.rfind(" -- ");
        if (comma == std::string::npos || dashes == std::string::npos || dashes < comma) {
            Fail("<expression>, <ItemType> -- <index>");
        }
        MessageFormats::Item item{
            .expression = line.substr(0, comma), .type = line.substr(comma + 2, dashes - comma - 2), .index = 0};
        item.index = ParseNumber<unsigned>(Trimmed(line.substr(dashes + 4))).value_or(0);
        if (item.index != kFirstArgument + current_->items.size()) {
            Fail("index " + std::to_string(kFirstArgument + current_->items.size()));
        }
        current_->items.push_back(item);
    }

    std::string file_;
    Formats& formats_;
    std::string guid_;
    MessageFormats::Format* current_ = nullptr;
    bool inBraces_ = false;
    unsigned line_ = 0;
};

struct Argument {
    std::string text;
    std::uint64_t number = 0;
    bool isText = false;
};

bool TakeItem(const std::string& type, const std::vector<std::byte>& payload, std::size_t& at, Argument& argument)
{
    const std::size_t left = payload.size() - at;
    if (type == "ItemString") {
        const void* end = left == 0 ? nullptr : std::memchr(payload.data() + at, 0, left);
        if (end == nullptr) {
            return false;
        }
        const auto length = static_cast<std::size_t>(static_cast<const std::byte*>(end) - (payload.data() + at));
        argument.text.assign(reinterpret_cast<const char*>(payload.data() + at), length);
        argument.isText = true;
        at += length + 1;
        return true;
    }
    std::size_t width = 0;
    if (type == "ItemLong" || type == "ItemNTSTATUS") {
        width = 4;
    } else if (type == "ItemPtr" || type == "ItemULongLong" || type == "ItemLongLong") {
        width = 8;
    } else {
        throw std::runtime_error("unsupported item type " + type);
    }
    if (left < width) {
        return false;
    }
    std::memcpy(&argument.number, payload.data() + at, width);
    at += width;
    if (type == "ItemNTSTATUS") {
        char text[16];
        std::snprintf(text, sizeof(text), "0x%08llX", static_cast<unsigned long long>(argument.number));
        argument.text = text;
        argument.isText = true;
    }
    return true;
}

std::string Formatted(const Argument& argument, const std::string& form)
{
    if (argument.isText) {
        return argument.text;
    }
    char text[32];
    if (form == "p") {
        std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(argument.number));
    } else if (form == "08X") {
        std::snprintf(text, sizeof(text), "%08llX", static_cast<unsigned long long>(argument.number));
    } else {
        std::snprintf(text, sizeof(text), "%llu", static_cast<unsigned long long>(argument.number));
    }
    return text;
}

// "%0" is the reader's prefix, "%10!s!" the first argument, "%%" a percent sign.
std::string Fill(const std::string& format, const std::vector<Argument>& arguments, std::vector<std::string>& texts)
{
    texts.resize(arguments.size());
    std::string text;
    for (std::size_t at = 0; at < format.size();) {
        if (format[at] != '%') {
            text.push_back(format[at++]);
            continue;
        }
        ++at;
        unsigned index = 0;
        std::size_t digits = 0;
        while (at < format.size() && format[at] >= '0' && format[at] <= '9' && digits < 2) {
            index = index * 10 + static_cast<unsigned>(format[at++] - '0');
            ++digits;
            if (index == 0) {
                break;  // the prefix is %0 alone
            }
        }
        if (digits == 0) {
            text.push_back('%');
            ++at;
            continue;
        }
        std::string form;
        if (index >= kFirstArgument && at < format.size() && format[at] == '!') {
            const std::size_t end = std::min(format.find('!', at + 1), format.size());
            form = format.substr(at + 1, end - at - 1);
            at = std::min(end + 1, format.size());
        }
        if (index >= kFirstArgument && index - kFirstArgument < arguments.size()) {
            texts[index - kFirstArgument] = Formatted(arguments[index - kFirstArgument], form);
            text += texts[index - kFirstArgument];
        }
    }
    return text;
}

}  // namespace

MessageFormats::MessageFormats(const std::filesystem::path& fileOrFolder)
{
    if (!std::filesystem::is_directory(fileOrFolder)) {
        const TmfReader reader(fileOrFolder, formats_);
    } else {
        for (const auto& entry : std::filesystem::directory_iterator(fileOrFolder)) {
            if (entry.path().extension() == ".tmf") {
                const TmfReader reader(entry.path(), formats_);
            }
        }
    }
    if (formats_.empty()) {
        throw std::runtime_error(fileOrFolder.string() + ": no message formats in it");
    }
}

std::optional<DecodedMessage> MessageFormats::Decode(const CapturedMessage& message) const
{
    const std::string braced = GuidText(message.messageGuid);
    const auto known = formats_.find({braced.substr(1, braced.size() - 2), message.number});
    if (known == formats_.end()) {
        return std::nullopt;
    }
    std::vector<Argument> arguments;
    std::size_t at = 0;
    for (const Item& item : known->second.items) {
        Argument argument;
        if (!TakeItem(item.type, message.payload, at, argument)) {
            return std::nullopt;
        }
        arguments.push_back(std::move(argument));
    }
    if (at != message.payload.size()) {
        return std::nullopt;
    }
    DecodedMessage decoded{.number = message.number,
                           .site = known->second.tag,
                           .level = known->second.level,
                           .flags = known->second.flags,
                           .function = known->second.function,
                           .text = {},
                           .arguments = {}};
    decoded.text = Fill(known->second.text, arguments, decoded.arguments);
    return decoded;
}

}  // namespace host::tracing
