// The interface header as its includers compile it: in C and C++, for both images and for Linux. Whoever exchanges two
// members of a record must not get as far as a running driver.
#include "tests/docs/text_files.h"

namespace tests {
namespace {

constexpr const char* kHeader = "driver/include/zepn_notifier.h";
const std::string kLanguages[] = {"-x c -std=c11 ", "-x c++ -std=c++14 ", "-x c++ -std=c++20 "};
const std::string kTargets[] = {"--target=x86_64-pc-windows-msvc", "--target=aarch64-pc-windows-msvc",
                                "-fshort-wchar -fsigned-char"};

// The compiler's messages for a source file that stands where the header does; empty when there are none.
std::string Compile(const std::string& text, const std::string& options)
{
    const TemporaryFolder folder;
    folder.Write("source", text);
    const Ran ran = folder.Run("clang-19 " + options + " -fsyntax-only -Wall -Wextra -Wpedantic -Werror -isystem '" +
                               (kRoot / "platform/include").string() + "' -I'" + kRoot.string() + "' source 2>&1");
    EXPECT_EQ(ran.status == 0, ran.printed.empty()) << ran.printed;
    return ran.printed;
}

TEST(Header, CompilesAloneInCAndCppForEveryTarget)
{
    const std::string include = std::string("#include \"") + kHeader + "\"\n";
    const std::string use = "const GUID* Table(void);\n"
                            "const GUID* Table(void) { return &GUID_ZEP_NOTIFIER_HELPER_INTERFACE; }\n";
    for (const std::string& language : kLanguages) {
        for (const std::string& target : kTargets) {
            EXPECT_EQ(Compile(include + use, language + target), "") << language << target;
            EXPECT_EQ(Compile("#include <initguid.h>\n" + include + use, language + target), "") << language << target;
        }
    }
}

// What a driver's source expects of the kernel's headers beside functions, in a free and in a checked build.
TEST(KernelInlines, CompileInCAndCppForEveryTarget)
{
    const std::string use = "#include <ntddk.h>\n"
                            "LONG Use(PLIST_ENTRY head, LONG volatile* count, PVOID volatile* slot);\n"
                            "LONG Use(PLIST_ENTRY head, LONG volatile* count, PVOID volatile* slot)\n"
                            "{\n"
                            "    DECLARE_CONST_UNICODE_STRING(name, L\"text\");\n"
                            "    PAGED_CODE();\n"
                            "    NT_ASSERT(name.Length == 8);\n"
                            "    KdPrint((\"%u\\n\", name.Length));\n"
                            "    InsertTailList(head, RemoveHeadList(head));\n"
                            "    (void)InterlockedExchangePointer(slot, NULL);\n"
                            "    return name.Length + InterlockedIncrement(count);\n"
                            "}\n";
    for (const std::string& language : {kLanguages[0], kLanguages[2]}) {
        for (const std::string& target : kTargets) {
            for (const char* build : {" -DDBG=0", " -DDBG=1"}) {
                EXPECT_EQ(Compile(use, language + target + build), "") << language << target << build;
            }
        }
    }
}

// The header, each time with another two neighbouring members of a record exchanged.
std::vector<std::string> WithMembersExchanged()
{
    std::vector<std::string> lines = LinesOf(ReadAll(kRoot / kHeader));
    std::vector<std::string> headers;
    std::size_t before = 0;  // the line of the member before; 0: none
    bool isRecord = false;
    for (std::size_t at = 0; at < lines.size(); ++at) {
        if (lines[at].starts_with("typedef struct _") && lines[at].ends_with("{")) {
            isRecord = true;
            before = 0;
        } else if (lines[at].starts_with("}")) {
            isRecord = false;
        } else if (isRecord && lines[at].find(';') < lines[at].find("//")) {
            if (before != 0) {
                std::swap(lines[before], lines[at]);
                std::string& header = headers.emplace_back();
                for (const std::string& line : lines) {
                    header += line + "\n";
                }
                std::swap(lines[before], lines[at]);
            }
            before = at;
        }
    }
    return headers;
}

TEST(Header, IsRefusedByTheCompilerWhenMembersOfARecordAreExchanged)
{
    const std::vector<std::string> headers = WithMembersExchanged();
    EXPECT_GT(headers.size(), 40u);
    for (const std::string& language : {kLanguages[0], kLanguages[1]}) {
        for (const std::string& header : headers) {
            EXPECT_TRUE(Has(Compile(header, language + kTargets[0]), "static assertion failed"));
        }
    }
}

}  // namespace
}  // namespace tests
