#include "host/kernel/format.h"

#include <cstdio>
#include <cstring>

namespace host::kernel {
namespace {

enum class Size { kByte, kShort, kLong, kWide };

// One conversion: "%-08.3I64x".
struct Conversion {
    std::string flags;
    int width = 0;
    int precision = -1;  // none
    Size size = Size::kLong;
    bool isNarrow = false;  // 'h' for text
    bool isWide = false;    // 'w' or 'l' for text
    char16_t letter = 0;
};

class Formatter {
public:
    Formatter(std::u16string_view format, bool isWide, __builtin_ms_va_list& arguments)
        : at_(format), isWide_(isWide), arguments_(arguments)
    {
    }

    std::u16string Run()
    {
        while (!at_.empty()) {
            if (at_.front() != u'%') {
                Take(1);
                continue;
            }
            at_.remove_prefix(1);
            Convert(Read());
        }
        return std::move(text_);
    }

private:
    void Take(std::size_t count)
    {
        text_ += at_.substr(0, count);
        at_.remove_prefix(count);
    }

    bool Skip(std::u16string_view what)
    {
        if (!at_.starts_with(what)) {
            return false;
        }
        at_.remove_prefix(what.size());
        return true;
    }

    int Number()
    {
        if (Skip(u"*")) {
            return __builtin_va_arg(arguments_, int);
        }
        int number = 0;
        for (; !at_.empty() && at_.front() >= u'0' && at_.front() <= u'9'; at_.remove_prefix(1)) {
            number = number * 10 + (at_.front() - u'0');
        }
        return number;
    }

    Conversion Read()
    {
        Conversion read;
        for (; !at_.empty() && std::u16string_view(u"-+ #0").find(at_.front()) != std::u16string_view::npos;
             at_.remove_prefix(1)) {
            read.flags.push_back(static_cast<char>(at_.front()));
        }
        read.width = Number();
        if (read.width < 0) {
            read.flags.push_back('-');
            read.width = -read.width;
        }
        if (Skip(u".")) {
            read.precision = Number();
        }
        ReadSize(read);
        if (!at_.empty()) {
            read.letter = at_.front();
            at_.remove_prefix(1);
        }
        return read;
    }

    void ReadSize(Conversion& read)
    {
        struct Prefix {
            std::u16string_view text;
            Size size;
            bool isNarrow = false;
            bool isWide = false;
        };
        static constexpr Prefix kPrefixes[] = {
            {u"I64", Size::kWide},
            {u"I32", Size::kLong},
            {u"I", Size::kWide},  // of a pointer
            {u"ll", Size::kWide},
            {u"j", Size::kWide},
            {u"z", Size::kWide},
            {u"t", Size::kWide},
            {u"hh", Size::kByte},
            {u"h", Size::kShort, true},
            {u"l", Size::kLong, false, true},
            {u"w", Size::kLong, false, true},
        };
        for (const Prefix& prefix : kPrefixes) {
            if (Skip(prefix.text)) {
                read.size = prefix.size;
                read.isNarrow = prefix.isNarrow;
                read.isWide = prefix.isWide;
                return;
            }
        }
    }

    void Convert(const Conversion& read)
    {
        switch (read.letter) {
        case u'd':
        case u'i':
            return PutNumber(read, "lld", Signed(read.size));
        case u'u':
        case u'o':
        case u'x':
        case u'X':
            return PutNumber(read, (std::string("ll") + static_cast<char>(read.letter)).c_str(), Unsigned(read.size));
        case u'p':
            return PutNumber({.flags = "0", .width = 16}, "llX", __builtin_va_arg(arguments_, unsigned long long));
        case u'e':
        case u'f':
        case u'g':
            return PutNumber(read, std::string(1, static_cast<char>(read.letter)).c_str(),
                             __builtin_va_arg(arguments_, double));
        case u'c':
        case u'C':
            return Put(read, std::u16string(1, static_cast<char16_t>(__builtin_va_arg(arguments_, int))));
        case u's':
        case u'S':
            return PutString(read);
        case u'Z':
            return PutCounted(read);
        default:  // '%', and what is no conversion, stand for themselves
            text_.push_back(read.letter != 0 ? read.letter : u'%');
        }
    }

    long long Signed(Size size)
    {
        if (size == Size::kWide) {
            return __builtin_va_arg(arguments_, long long);
        }
        const int value = __builtin_va_arg(arguments_, int);
        return size == Size::kByte    ? static_cast<signed char>(value)
               : size == Size::kShort ? static_cast<short>(value)
                                      : value;
    }

    unsigned long long Unsigned(Size size)
    {
        if (size == Size::kWide) {
            return __builtin_va_arg(arguments_, unsigned long long);
        }
        const unsigned value = __builtin_va_arg(arguments_, unsigned);
        return size == Size::kByte    ? static_cast<unsigned char>(value)
               : size == Size::kShort ? static_cast<unsigned short>(value)
                                      : value;
    }

    template <class T>
    void PutNumber(const Conversion& read, const char* letters, T value)
    {
        char text[600];
        const std::string form = "%" + read.flags + "*" + (read.precision >= 0 ? ".*" : "") + letters;
        if (read.precision >= 0) {
            std::snprintf(text, sizeof(text), form.c_str(), read.width, read.precision, value);
        } else {
            std::snprintf(text, sizeof(text), form.c_str(), read.width, value);
        }
        text_ += Widen(text);
    }

    void Put(const Conversion& read, std::u16string text)
    {
        if (read.precision >= 0 && text.size() > static_cast<std::size_t>(read.precision)) {
            text.resize(static_cast<std::size_t>(read.precision));
        }
        const auto width = static_cast<std::size_t>(read.width);
        const std::u16string padding(width > text.size() ? width - text.size() : 0, u' ');
        const bool isLeft = read.flags.find('-') != std::string::npos;
        text_ += isLeft ? text + padding : padding + text;
    }

    // A small letter means text of the format's own kind, a capital one the other; a size overrides both.
    void PutString(const Conversion& read)
    {
        const bool isWide = read.isWide || (!read.isNarrow && (read.letter == u's') == isWide_);
        const void* argument = __builtin_va_arg(arguments_, const void*);
        if (argument == nullptr) {
            return Put(read, u"(null)");
        }
        // No further than the precision: the text may be without an end.
        const std::size_t limit = read.precision >= 0 ? static_cast<std::size_t>(read.precision) : ~std::size_t{0};
        std::u16string text;
        for (std::size_t index = 0; index < limit; ++index) {
            const char16_t unit = isWide ? static_cast<const char16_t*>(argument)[index]
                                         : static_cast<const unsigned char*>(argument)[index];
            if (unit == 0) {
                break;
            }
            text.push_back(unit);
        }
        Put(read, std::move(text));
    }

    void PutCounted(const Conversion& read)
    {
        const auto* string = __builtin_va_arg(arguments_, const UNICODE_STRING*);
        if (string == nullptr || string->Buffer == nullptr) {
            return Put(read, u"(null)");
        }
        if (read.isWide) {
            return Put(read, {reinterpret_cast<const char16_t*>(string->Buffer), string->Length / sizeof(WCHAR)});
        }
        std::u16string text;
        for (const unsigned char byte :
             std::string_view(reinterpret_cast<const char*>(string->Buffer), string->Length)) {
            text.push_back(byte);
        }
        Put(read, std::move(text));
    }

    std::u16string_view at_;
    const bool isWide_;
    __builtin_ms_va_list& arguments_;
    std::u16string text_;
};

}  // namespace

std::u16string FormatText(std::u16string_view format, bool isWide, __builtin_ms_va_list& arguments)
{
    return Formatter(format, isWide, arguments).Run();
}

std::u16string Widen(const char* text)
{
    std::u16string wide;
    for (; *text != '\0'; ++text) {
        wide.push_back(static_cast<unsigned char>(*text));
    }
    return wide;
}

std::string NarrowBytes(std::u16string_view text)
{
    std::string bytes;
    for (const char16_t unit : text) {
        bytes.push_back(unit < 0x100 ? static_cast<char>(unit) : '?');
    }
    return bytes;
}

}  // namespace host::kernel
