// The decoding files as files: well-formed, complete, without contradiction. That they agree with what the driver sends
// is proven by every behaviour test, whose reports are decoded by them.
#include "host/tracing/decode.h"
#include "tests/kit/texts.h"
#include "tools/trace_gen/guid_text.h"

namespace tests {
namespace {

const std::filesystem::path kFolder = std::filesystem::path(ZEPN_ROOT) / "out" / "manifest";

TEST(Manifest, IsWellFormedXmlForAnIndependentParser)
{
    EXPECT_EQ(Shell("xmllint --noout '" + (kFolder / "zepn.man").string() + "'").status, 0);
}

TEST(Manifest, HoldsExactlyTheEventsWithTheirPayloads)
{
    const host::tracing::Manifest manifest(kFolder / "zepn.man");
    EXPECT_EQ(host::tracing::GuidText(manifest.provider()), host::tracing::GuidText(kProviderGuid));
    // Level and the fields by first letters: s string, u 32 bits, q 64 bits, g GUID.
    const std::map<unsigned, std::string> kExpected = {
        {1, "2ssu"},  {2, "2ssu"}, {3, "2ssu"},   {5, "2ssqqq"}, {6, "2ssq"}, {7, "2ssqu"},
        {9, "2ssqu"}, {10, "2sq"}, {11, "2sqqu"}, {12, "2ssgu"}, {13, "2ss"}, {22, "3sss"},
        {41, "4ssq"}, {43, "4sq"}, {44, "4sss"},  {45, "4sq"},   {61, "5s"},  {64, "5sq"}};
    std::map<unsigned, std::string> found;
    std::set<std::string> symbols;
    for (const auto& [id, event] : manifest.events()) {
        std::string& shape = found[id];
        shape = std::to_string(event.level);
        for (const auto& field : event.fields) {
            shape += "suqg"[static_cast<int>(field.type)];
        }
        EXPECT_EQ(event.fields[0].name, "FunctionName");
        EXPECT_TRUE(symbols.insert(event.symbol).second) << event.symbol;
        for (std::size_t at = event.message.find('%'); at != std::string::npos; at = event.message.find('%', at + 1)) {
            EXPECT_LE(event.message[at + 1] - '0', static_cast<int>(event.fields.size())) << event.message;
        }
    }
    EXPECT_EQ(found, kExpected);
}

TEST(MessageFormats, NumberMessagesFromTenInTwoSetsAndReferToTheirItems)
{
    const host::tracing::MessageFormats formats(kFolder);
    std::map<std::string, std::set<unsigned>> numbers;
    for (const auto& [key, format] : formats.formats()) {
        numbers[key.first].insert(key.second);
        EXPECT_TRUE(format.text.starts_with("%0"));
        EXPECT_FALSE(format.function.empty());
        for (const auto& item : format.items) {
            EXPECT_TRUE(Has(format.text, "%" + std::to_string(item.index) + "!"));
        }
    }
    ASSERT_EQ(numbers.size(), 2u);
    const auto& main = numbers[trace_gen::GuidText(MessageSet::kMain)];
    const auto& forwarding = numbers[trace_gen::GuidText(MessageSet::kForwarding)];
    for (unsigned fixed = 10; fixed <= 62; ++fixed) {
        const bool unused = (fixed >= 28 && fixed <= 30) || (fixed >= 43 && fixed <= 48);
        EXPECT_EQ(main.contains(fixed), !unused) << fixed;
    }
    EXPECT_TRUE(main.contains(259));
    EXPECT_EQ(*forwarding.begin(), 10u);
    EXPECT_EQ(*forwarding.rbegin() - *forwarding.begin() + 1, forwarding.size()) << "without holes";
}

// A reader's prefix shows the tag as the place in the source: searching the sources for it must lead there.
TEST(MessageFormats, AreTaggedWithTheNameOfTheirReportingSite)
{
    const host::tracing::MessageFormats formats(kFolder);
    const std::string list = ReadAll(std::filesystem::path(ZEPN_ROOT) / "driver/trace/reports.def");
    for (const auto& [key, format] : formats.formats()) {
        SCOPED_TRACE(std::to_string(key.second) + " " + format.tag);
        const std::size_t at = list.find("REPORT(k" + format.tag + ",");
        ASSERT_NE(at, std::string::npos);
        const std::string entry = list.substr(at, list.find("REPORT(", at + 1) - at);
        EXPECT_TRUE(Has(entry, "\"" + format.function + "\""));
        EXPECT_TRUE(std::regex_search(entry, std::regex("\\b" + std::to_string(key.second) + "\\b"))) << entry;
    }
}

// What a damaged manifest is refused with; the sentences end with the line where the damage is.
TEST(Manifest, SaysWhereAFileIsWrong)
{
    const TemporaryFolder folder;
    const auto file = folder.path / "wrong.man";
    const std::string good = ReadAll(kFolder / "zepn.man");
    const auto with = [&](const std::string& part, const std::string& other) {
        std::string text = good;
        const std::size_t at = text.find(part);
        EXPECT_NE(at, std::string::npos) << part;
        return text.replace(at, part.size(), other);
    };
    const auto lineOf = [&](const std::string& part) {
        const auto end = good.begin() + static_cast<std::ptrdiff_t>(good.find(part));
        return ":" + std::to_string(1 + std::count(good.begin(), end, '\n')) + ": ";
    };
    const std::string event = lineOf("<event ") + "<event> ";
    const auto manyTimes = [](const std::string& tag) {
        std::string text;
        for (unsigned depth = 0; depth < 30000; ++depth) {
            text += tag;
        }
        return text;
    };
    const std::string deep = manyTimes("<a>");
    const auto refusal = [&](const std::string& text) {
        folder.Write("wrong.man", text);
        return Thrown([&] { const host::tracing::Manifest manifest(file); });
    };
    const std::pair<std::string, std::string> rows[] = {
        {"", ": No document element found"},
        {good.substr(0, good.size() / 2), ": "},
        {deep, ": Start-end tags mismatch"},
        {with("<instrumentation>", "<instrumentation>" + deep), ": Start-end tags mismatch"},
        {with("<provider ", "<other "), ": "},
        {with("{84CD9D5E-", "{84CD9D5E+"), "<provider> has a guid that is none"},
        {with("<event value=\"1\"", "<event value=\"65537\""),
         event + "has a value that is no number from 0 to 65535: 65537"},
        {with("<event value=\"1\"", "<event value=\"-1\""),
         event + "has a value that is no number from 0 to 65535: -1"},
        {with("<event value=\"1\"", "<event value=\"one\""),
         event + "has a value that is no number from 0 to 65535: one"},
        {with("<event value=\"1\"", "<event value=\"2\""), "<event> has the value of another: 2"},
        {with("<event value=\"1\"", "<event"), event + "has no attribute value"},
        {with("<event value=\"1\"", "<event value=\"1\" value=\"2\""), event + "has more than one attribute value"},
        {with("win:Error", "win:Grave"), "has an unknown level: win:Grave"},
        {with("win:AnsiString", "win:Text"), "<data> has an unknown inType: win:Text"},
        {with("template=\"", "template=\"X"), "refers to a template that is missing"},
        {with("message=\"$(string.", "message=\"$(string.X"), "refers to a string that is missing"},
    };
    for (const auto& [text, words] : rows) {
        const std::string said = refusal(text);
        EXPECT_TRUE(Has(said, words));
        EXPECT_TRUE(said.starts_with(file.string() + ":")) << said;
    }
    // As some editors of Windows write it; its lines are counted, too.
    const auto wide = [](const std::string& text) {
        std::string bytes = "\xFF\xFE";
        for (const char letter : text) {
            bytes += {letter, '\0'};
        }
        return bytes;
    };
    EXPECT_EQ(refusal(wide(good)), "none");
    EXPECT_TRUE(Has(refusal(wide(with("<event value=\"1\"", "<event"))), event + "has no"));
    // Closed as often as opened, so read whatever the depth.
    EXPECT_EQ(refusal(with("<instrumentation>", "<instrumentation>" + deep + manyTimes("</a>"))), "none");
}

// Texts that people read: what follows a description is set off from it, and no blank comes twice.
TEST(Texts, SetValuesOffFromWhatTheyFollow)
{
    const host::tracing::Manifest manifest(kFolder / "zepn.man");
    EXPECT_EQ(manifest.events().at(1).message, "%1: %2 (status %3)");
    EXPECT_EQ(manifest.events().at(12).message, "%1: %2 GUID %3 (status %4)");
    const auto check = [&](const std::string& text) {
        // Two blanks, a colon after another mark, values side by side.
        EXPECT_FALSE(std::regex_search(text, std::regex(R"(  |[ !?.]:|^ | $|%\d+(!\w+!)?%)"))) << text;
    };
    for (const auto& [id, event] : manifest.events()) {
        check(event.message);
    }
    std::set<std::string> texts;
    const host::tracing::MessageFormats formats(kFolder);
    for (const auto& [key, format] : formats.formats()) {
        check(format.text.substr(2));
        texts.insert(format.text.substr(2));
    }
    EXPECT_TRUE(texts.contains("Unable to find client with GUID beginning %10!08X! (status %11!s!)"));
    EXPECT_TRUE(texts.contains("InterfaceGUID is already initialized! GUID beginning %10!08X! (status %11!s!)"));
    EXPECT_TRUE(texts.contains("WdfCollectionGetItem (index %10!u!, collection %11!p!, count %12!I64u!)"));
}

TEST(MessageFormats, SayWhereAFileIsWrong)
{
    const TemporaryFolder folder;
    const std::string head = trace_gen::GuidText(MessageSet::kMain) + " zepn // SRC=x MJ= MN=\n";
    for (const auto& [text, words] : std::map<std::string, std::string>{
             {"", "no message formats"},
             {"nonsense\n", ":1: expected a message GUID"},
             {head + "#typev a ten \"x\"\n", ":2: expected #typev"},
             {head + "#typev a 65546 \"x\" //\n{\n}\n", ":2: expected #typev <tag> <number up to 65535>"},
             {head + "#typev a -1 \"x\" //\n{\n}\n", ":2: expected #typev"},
             {head + "#typev a 10 \"x\" //\n{\na, ItemLong -- 11\n}\n", ":4: expected index 10"},
             {head + "#typev a 10 \"x\" //\n{\na, ItemLong -- b\n}\n", ":4: expected index 10"},
             {head + "#typev a 10 \"x\" //\n{\n}\n#typev b 10 \"x\" //\n{\n}\n", ":5: expected message 10 once"},
             {head + "#typev a 10 \"x\" //\n{\n", "expected '}'"}}) {
        const auto file = folder.Write("wrong.tmf", text);
        EXPECT_TRUE(Has(Thrown([&] { const host::tracing::MessageFormats formats(file); }), words)) << text;
    }
}

}  // namespace
}  // namespace tests
