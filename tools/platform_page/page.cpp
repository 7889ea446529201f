#include "tools/platform_page/page.h"

#include "host/framework/framework.h"
#include "host/image/exports.h"
#include "host/machine.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <string_view>
#include <vector>

namespace platform_page {
namespace {

// Rows in the order in which they were begun.
class Families {
public:
    void Add(const std::string& family, const std::string& name)
    {
        auto [row, isNew] = rows_.try_emplace(family);
        if (isNew) {
            order_.push_back(family);
        }
        if (std::ranges::find(row->second, name) == row->second.end()) {
            row->second.push_back(name);
            ++count_;
        }
    }

    [[nodiscard]] std::size_t count() const { return count_; }

    [[nodiscard]] std::string Table(const std::string& title, bool sorted) const
    {
        std::string text = "| " + title + " | functions |\n|---|---|\n";
        for (const std::string& family : order_) {
            std::vector<std::string> names = rows_.at(family);
            if (sorted) {
                std::ranges::sort(names);
            }
            text += "| " + family + " | ";
            for (const std::string& name : names) {
                text += (&name == names.data() ? "`" : ", `") + name + "`";
            }
            text += " |\n";
        }
        return text + "\n";
    }

private:
    std::map<std::string, std::vector<std::string>> rows_;
    std::vector<std::string> order_;
    std::size_t count_ = 0;
};

std::string FrameworkFamily(std::string_view name)
{
    static constexpr std::string_view kNouns[] = {
        "ChildList",
        "CmResourceList",
        "Collection",
        "CommonBuffer",
        "Companion",
        "Control",
        "Cx",
        "Device",
        "DeviceInit",
        "DmaEnabler",
        "DmaTransaction",
        "Dpc",
        "Driver",
        "Fdo",
        "FileObject",
        "Interrupt",
        "IoQueue",
        "IoResource",
        "IoTarget",
        "LookasideList",
        "Memory",
        "Object",
        "Pdo",
        "Registry",
        "Request",
        "SpinLock",
        "String",
        "Timer",
        "UsbInterface",
        "UsbTargetDevice",
        "UsbTargetPipe",
        "Verifier",
        "WaitLock",
        "Wmi",
        "WorkItem",
    };
    std::string_view longest = "other";
    const std::string_view rest = name.substr(3);  // after "Wdf"
    for (const std::string_view noun : kNouns) {
        if (rest.starts_with(noun) && (longest == "other" || noun.size() > longest.size())) {
            longest = noun;
        }
    }
    return std::string(longest);
}

std::string KernelFamily(std::string_view name)
{
    static constexpr std::string_view kPrefixes[] = {"Dbg", "Etw", "Ex", "Io",  "Ke",  "Kf", "Mm",
                                                     "Ob",  "Po",  "Ps", "Rtl", "Wmi", "Zw"};
    const auto* prefix =
        std::ranges::find_if(kPrefixes, [&](std::string_view candidate) { return name.starts_with(candidate); });
    return prefix == std::end(kPrefixes) ? "C library" : *prefix == "Kf" ? "Ke" : std::string(*prefix);
}

std::string TextOf(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw std::runtime_error(file.string() + ": cannot be read");
    }
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

// What a header brings as inline code: functions, and macros that look like some.
void AddInlines(Families& families, const std::filesystem::path& header)
{
    static const std::regex kDefinition(
        R"((?:FORCEINLINE [\w ]+\*? ?|PLATFORM_VARIADIC_INLINE |#define )\b(\w+)(##S)?\()");
    const std::string text = TextOf(header);
    for (std::sregex_iterator at(text.begin(), text.end(), kDefinition), end; at != end; ++at) {
        const std::string name = (*at)[1];
        if (!std::regex_search(name, std::regex("^(PLATFORM|Platform|WDF_|accessor$)"))) {
            families.Add("`" + header.filename().string() + "`",
                         name + ((*at)[2].matched ? "A` and `" + name + "W" : ""));
        }
    }
}

}  // namespace

std::string Page(const std::filesystem::path& headers)
{
    const host::Machine machine;  // which makes the tables known
    Families played;
    Families absent;
    for (unsigned index = 0; index < host::framework::kFunctionCount; ++index) {
        const host::framework::TableEntry entry = host::framework::EntryAt(index);
        (entry.isPlayed ? played : absent).Add(FrameworkFamily(entry.name), entry.name);
    }
    Families kernel;
    for (const std::string& name : host::image::ExportsOf("ntoskrnl.exe")) {
        kernel.Add(KernelFamily(name), name);
    }
    Families inlines;
    for (const char* header : {"ntinline.h", "ntdispatcher.h", "ntddk.h", "ntstrsafe.h", "wdf.h"}) {
        AddInlines(inlines, headers / header);
    }
    Families absentOfKernel;
    const std::string list = TextOf(headers / "ntabsent.h");
    static const std::regex kAbsent(R"(\nNT_ABSENT\((\w+)\))");
    for (std::sregex_iterator at(list.begin(), list.end(), kAbsent), end; at != end; ++at) {
        absentOfKernel.Add(KernelFamily((*at)[1].str()), (*at)[1]);
    }

    const std::string frameworkCount =
        std::to_string(played.count()) + " of " + std::to_string(host::framework::kFunctionCount);
    return "# The platform that the host plays\n"
           "\n"
           "What a driver may call when it runs here. Each function does what it does on Windows, or reports what it "
           "does "
           "not; the\nmistakes that a driver verifier finds are found here, too. A function that is not listed as "
           "played:\n"
           "\n"
           "- does not compile when it is among those that drivers often use: the message names this page;\n"
           "- keeps an image that needs it from loading, one message for all of them. `--allow-missing`\n"
           "  (`MachineOptions::allowMissing` in a test) loads the image, and a call of one stops the run by its "
           "name.\n"
           "\n"
           "The kernel's functions stand in an image's imports. The framework's are found in its code, which reads "
           "their addresses\n"
           "from the framework's table. An entry whose index is computed first, as where the compiler has merged two "
           "calls, shows\n"
           "only at the call, and so do those of a native module.\n"
           "\n"
           "An image that the WDK linked loads as it is: its entry stub, its bind record and the C library of the "
           "kernel are here.\n"
           "Three things of it are not played: exceptions (a handler of `__try` never runs), class extensions (a "
           "client of one\n"
           "is refused by its name), and the page that the kernel shares with everybody, from which the WDK's "
           "`KeQuerySystemTime`,\n"
           "`KeQueryInterruptTime` and `KeQueryTickCount` read; use `KeQuerySystemTimePrecise` and "
           "`KeQueryInterruptTimePrecise`.\n"
           "\n"
           "The page is generated: `./zepn build`, then `cp out/pages/platform.md docs/`.\n"
           "\n"
           "## Framework\n"
           "\n" +
           frameworkCount + " functions of KMDF 1.33's table, whose first 444 are those of 1.15.\n\n" +
           played.Table("family", false) +
           "## Kernel\n"
           "\n"
           "Exports of `ntoskrnl.exe`. The C library is that of the kernel, for images linked as the WDK links.\n\n" +
           kernel.Table("family", true) +
           "## In the headers\n"
           "\n"
           "Functions and macros that are compiled into the driver.\n\n" +
           inlines.Table("header", false) + "## Not played: framework\n\n" + absent.Table("family", false) +
           "## Not played: kernel\n"
           "\n"
           "Those of the many others that drivers often use.\n\n" +
           absentOfKernel.Table("family", true);
}

}  // namespace platform_page
