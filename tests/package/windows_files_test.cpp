// What only Windows can run or read, held as far as it can be read here: form, names, and GUIDs that other files have
// too.
#include "tests/package/assembled.h"
#include "tests/package/powershell.h"

#include <algorithm>
#include <regex>
#include <set>

namespace tests {
namespace {

std::set<std::string> Matches(const std::string& text, const std::string& expression)
{
    std::set<std::string> found;
    const std::regex regex(expression);
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
        found.insert((*at)[1]);
    }
    return found;
}

TEST(PowerShellForm, FindsWhatIsNotClosed)
{
    EXPECT_EQ(PowerShellForm::Fault("f '}' # {\n<# ( #> \"$(g \"x\" `\" )\" { [1] }"), "");
    EXPECT_EQ(PowerShellForm::Fault("{\n(}\n"), "line 2: } closes nothing");
    EXPECT_EQ(PowerShellForm::Fault("f \"x"), "\" is not closed");
    EXPECT_EQ(PowerShellForm::Fault("\nf 'x"), "line 2: ' is not closed");
    EXPECT_EQ(PowerShellForm::Fault("if (x) {"), "{ is not closed");
}

class WindowsFiles : public AssembledPackage {};

TEST_F(WindowsFiles, ScriptsAreWellFormedPlainText)
{
    for (const char* name : {"install.ps1", "uninstall.ps1"}) {
        const std::string text = ReadAll(folder_ / name);
        EXPECT_EQ(PowerShellForm::Fault(text), "") << name;
        // Without a mark at their beginning, Windows PowerShell reads anything else in the machine's own code page.
        EXPECT_TRUE(std::ranges::all_of(text, [](unsigned char letter) { return letter < 0x80; })) << name;
        EXPECT_EQ(std::ranges::count(text, '\r'), std::ranges::count(text, '\n')) << name;
        EXPECT_NE(text.find("NEVER RUN ON WINDOWS"), std::string::npos) << name;
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
        EXPECT_NE(uninstall.find(store), std::string::npos) << store;
    }
    // The device, by the same name; the package; what the INF had Windows register.
    EXPECT_EQ(Matches(install, R"(\$HardwareId = "(ROOT[^$]+))"), Matches(uninstall, R"(\$HardwareId = "(ROOT[^$]+))"));
    for (const char* command : {"'/remove-device'", "'/delete-driver'", "@('delete', $Name)", "@('um',"}) {
        EXPECT_NE(uninstall.find(command), std::string::npos) << command;
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

}  // namespace
}  // namespace tests
