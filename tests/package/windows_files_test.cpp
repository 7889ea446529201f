// What only Windows can run or read, held as far as it can be read here: form, names, and GUIDs that other files have
// too.
#include "host/tracing/decode.h"
#include "tests/package/assembled.h"
#include "tests/kit/driver_fixture.h"

#include <algorithm>
#include <regex>
#include <set>

namespace tests {
namespace {

// What is wrong with the outer form of a PowerShell script: quotes, comments and brackets; empty when nothing is. No
// more is to be had here: Debian has no parser for the language.
std::string FaultOfPowerShell(const std::string& text)
{
    static const std::regex kNoCode(R"(<#[\s\S]*?#>|#[^\n]*|'[^']*'|"(`[\s\S]|[^"`])*"|`[\s\S])");
    std::string open;  // what is not closed yet, the innermost last
    for (const char letter : std::regex_replace(text, kNoCode, "")) {
        const std::size_t kind = std::string_view(")]}").find(letter);
        if (kind != std::string_view::npos && !open.ends_with("([{"[kind])) {
            return std::string(1, letter) + " closes nothing";
        }
        if (kind != std::string_view::npos) {
            open.pop_back();
        } else if (std::string_view("([{\"'").find(letter) != std::string_view::npos) {
            open.push_back(letter);
        }
    }
    return open.empty() ? "" : std::string(1, open.back()) + " is not closed";
}

TEST(PowerShellForm, FindsWhatIsNotClosed)
{
    EXPECT_EQ(FaultOfPowerShell("f '}' # {\n<# ( #> \"$(g \"x\" `\" )\" { [1] }"), "");
    EXPECT_EQ(FaultOfPowerShell("{\n(}\n"), "} closes nothing");
    EXPECT_EQ(FaultOfPowerShell("f \"x"), "\" is not closed");
    EXPECT_EQ(FaultOfPowerShell("\nf 'x"), "' is not closed");
    EXPECT_EQ(FaultOfPowerShell("if (x) {"), "{ is not closed");
}

class WindowsFiles : public AssembledPackage {};

TEST_F(WindowsFiles, ScriptsAreWellFormedPlainText)
{
    for (const char* name : {"install.ps1", "uninstall.ps1"}) {
        const std::string text = ReadAll(folder_ / name);
        EXPECT_EQ(FaultOfPowerShell(text), "") << name;
        // Without a mark at their beginning, Windows PowerShell reads anything else in the machine's own code page.
        EXPECT_TRUE(std::ranges::all_of(text, [](unsigned char letter) { return letter < 0x80; })) << name;
        EXPECT_EQ(std::ranges::count(text, '\r'), std::ranges::count(text, '\n')) << name;
        EXPECT_TRUE(Has(text, "NEVER RUN ON WINDOWS")) << name;
    }
}

TEST_F(WindowsFiles, UninstallTakesBackWhatInstallMakes)
{
    const std::string install = ReadAll(folder_ / "install.ps1");
    const std::string uninstall = ReadAll(folder_ / "uninstall.ps1");
    // The certificate, in each store that it went to.
    EXPECT_EQ(Matches(install, R"(\$subject = "([^$]+))"), Matches(uninstall, R"(\$subject = "([^$]+))"));
    EXPECT_EQ(Matches(install, R"(-CertStoreLocation Cert:\\LocalMachine\\(\w+))"),
              (std::set<std::string>{"My", "Root", "TrustedPublisher"}));
    for (const char* store : {"'Root'", "'TrustedPublisher'", R"(LocalMachine\My)"}) {
        EXPECT_TRUE(Has(uninstall, store));
    }
    // The device, by the same name; the package; what the INF had Windows register.
    EXPECT_EQ(Matches(install, R"(\$HardwareId = "(ROOT[^$]+))"), Matches(uninstall, R"(\$HardwareId = "(ROOT[^$]+))"));
    for (const char* command : {"'/remove-device'", "'/delete-driver'", "@('delete', $Name)", "@('um',"}) {
        EXPECT_TRUE(Has(uninstall, command));
    }
    const std::string manifest = ReadAll(folder_ / "trace" / "zepn.man");
    EXPECT_EQ(Matches(uninstall, "-contains '([^']+)'"), Matches(manifest, "provider name=\"([^\"]+)\""));

    // Every option that the README shows is one of the script's.
    const std::string readme = ReadAll(folder_ / "README.md");
    for (const auto& [name, text] : {std::pair{"install", &install}, std::pair{"uninstall", &uninstall}}) {
        const std::set<std::string> options = Matches(*text, R"(\n    \[string\] \$(\w+))");
        const std::set<std::string> used = Matches(readme, "\\b" + std::string(name) + R"(\.ps1`? \(?`?-(\w+))");
        EXPECT_FALSE(used.empty()) << name;
        EXPECT_TRUE(std::ranges::includes(options, used)) << name;
    }
}

TEST_F(WindowsFiles, SayTheProvidersGuidsAsTheDriverDoes)
{
    const host::tracing::Manifest manifest(folder_ / "trace" / "zepn.man");
    const auto plain = [](const GUID& guid) {
        const std::string text = UpperCase(host::tracing::GuidText(guid));
        return text.substr(1, text.size() - 2);
    };
    const std::string events = plain(manifest.provider());
    const std::string messages = plain(kControlGuid);
    EXPECT_EQ(ReadAll(folder_ / "trace" / "zepn.ctl"), messages + " zepn\r\n");
    EXPECT_EQ(Shell("xmllint --noout '" + (folder_ / "trace" / "zepn.wprp").string() + "'").status, 0);
    const std::string profile = ReadAll(folder_ / "trace" / "zepn.wprp");
    EXPECT_EQ(Matches(profile, "<EventProvider [^>]*Name=\"([^\"]+)\""), (std::set<std::string>{events, messages}));
    EXPECT_EQ(Matches(profile, "<EventProvider Id=\"([^\"]+)\""),
              Matches(profile, "<EventProviderId Value=\"([^\"]+)\""));
    EXPECT_EQ(Matches(profile, "<EventCollector Id=\"([^\"]+)\""),
              Matches(profile, "<EventCollectorId Value=\"([^\"]+)\""));
    for (const fs::path& page :
         {folder_ / "README.md", fs::path(root_) / "docs/tracing.md", fs::path(root_) / "docs/windows.md"}) {
        // A GUID without quotes is a block of code to PowerShell.
        EXPECT_EQ(Matches(ReadAll(page), R"( -p (\{))"), std::set<std::string>{}) << page;
        const std::set<std::string> guids = Matches(ReadAll(page), R"re((\w{8}(?:-\w{4}){3}-\w{12}))re");
        EXPECT_TRUE(std::ranges::all_of(guids, [&](const auto& guid) { return guid == events || guid == messages; }))
            << page;
        EXPECT_TRUE(guids.contains(events)) << page;
    }
    // The image is in the driver store, under a name that no page can know.
    EXPECT_EQ(ReadAll(folder_ / "trace" / "zepn.man").find("System32"), std::string::npos);
}

// The build with the WDK takes these over; a name that changed on one side only would be missed on Windows alone.
TEST_F(WindowsFiles, HoldWhatTheBuildWithTheWdkTakesOver)
{
    unsigned taken = 0;
    for (const char* project : {"zepn.vcxproj", "zepn_probe.vcxproj", "driver.props"}) {
        for (std::string name :
             Matches(ReadAll(fs::path(root_) / "driver/wdk" / project), R"(\$\(ZepnPackage\)\\([^'";]+))")) {
            std::ranges::replace(name, '\\', '/');
            for (const char* machine : {"arm64", "x64"}) {
                EXPECT_TRUE(fs::exists(folder_ / std::regex_replace(name, std::regex(R"(\$\(ZepnMachine\))"), machine)))
                    << name;
            }
            ++taken;
        }
        // StampInf stamps in any case; without these, the time of the build.
        const std::string text = ReadAll(fs::path(root_) / "driver/wdk" / project);
        if (text.find("<Inf ") != std::string::npos) {
            EXPECT_TRUE(Has(text, "<DateStamp>$(ZepnDay)</DateStamp>")) << project;
            EXPECT_TRUE(Has(text, "<TimeStamp>$(ZepnVersion)</TimeStamp>")) << project;
        }
    }
    EXPECT_GE(taken, 5u);
    // The resource script is the CMake build's; what it includes comes from the message compiler and the package.
    const std::string project = ReadAll(fs::path(root_) / "driver/wdk/zepn.vcxproj");
    EXPECT_TRUE(Has(project, "<ResourceCompile Include=\"..\\package\\zepn.rc\" />"));
    EXPECT_TRUE(Has(project, "<GeneratedFilesBaseName>zepn_events</GeneratedFilesBaseName>"));
    EXPECT_EQ(Matches(ReadAll(fs::path(root_) / "driver/package/zepn.rc"), "#include \"([^\"]+)\""),
              (std::set<std::string>{"zepn_events.rc", "zepn_version.h"}));
    EXPECT_TRUE(fs::exists(folder_ / "wdk" / "zepn_version.h"));
    EXPECT_EQ(Shell("xmllint --noout '" + (folder_ / "wdk/stamp.props").string() + "'").status, 0);
    // StampInf writes what the INF has.
    const std::string stamp = ReadAll(folder_ / "wdk" / "stamp.props");
    EXPECT_EQ(Matches(ReadAll(folder_ / "x64" / "zepn.inf"), R"(DriverVer +=[^,]*,([\d.]+))"),
              Matches(stamp, "<ZepnVersion>(.*)</ZepnVersion>"));
    EXPECT_EQ(Matches(ReadAll(folder_ / "x64" / "zepn.inf"), R"(DriverVer += ([\d/]+),)"),
              Matches(stamp, "<ZepnDay>(.*)</ZepnDay>"));
}

// What only a Windows machine can run (tests/windows): the program that replays a capture, the script that compares.
TEST(ReplayOnWindows, IsWellFormedAndHasTheDriversProviderAndACaptureThatDecodes)
{
    const fs::path folder = fs::path(ZEPN_ROOT) / "tests/windows";
    EXPECT_EQ(FaultOfPowerShell(ReadAll(folder / "read_reports.ps1")), "");
    char guid[64];
    std::snprintf(guid, sizeof(guid), "0x%08X, 0x%04X, 0x%04X, {0x%02X, 0x%02X", kProviderGuid.Data1,
                  kProviderGuid.Data2, kProviderGuid.Data3, kProviderGuid.Data4[0], kProviderGuid.Data4[1]);
    EXPECT_TRUE(Has(ReadAll(folder / "replay.cpp"), guid));
    EXPECT_TRUE(Has(ReadAll(folder / "read_reports.ps1"), host::tracing::GuidText(kProviderGuid)));
    EXPECT_EQ(Shell("'" ZEPN_DECODE "' '" + (folder / "boot.capture").string() + "'").status, 0)
        << "it has records that today's decoding files do not know: make it anew by ./zepn demo --capture";
}

// The compiler for Windows takes the generated source and keeps every line of the format files beside the function.
TEST_F(WindowsFiles, HaveTheTraceFormatsAsAnnotations)
{
    const fs::path object = folder_ / "formats.obj";
    ASSERT_EQ(Shell("clang++-19 --target=aarch64-pc-windows-msvc -O2 -g -gcodeview -c '" +
                    (folder_ / "wdk/trace_formats.cpp").string() + "' -o '" + object.string() + "'")
                  .status,
              0);
    const std::string compiled = ReadAll(object);
    std::size_t messages = 0;
    for (const auto& entry : fs::directory_iterator(folder_ / "trace")) {
        if (entry.path().extension() == ".tmf") {
            for (const std::string& line : LinesOf(ReadAll(entry.path()))) {
                messages += line.starts_with("#typev") ? 1 : 0;
                if (!line.starts_with("//")) {
                    EXPECT_NE(compiled.find(line + '\0'), std::string::npos) << line;
                }
            }
        }
    }
    EXPECT_GT(messages, 100u);
    EXPECT_EQ(CountMatches(compiled, "TMF:"), messages);
}

}  // namespace
}  // namespace tests
