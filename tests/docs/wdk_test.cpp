// The MSBuild project against the CMake build: it cannot be run here, but it cannot fall behind either.
#include "tests/docs/text_files.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <map>
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

TEST(WdkProject, CompilesTheSourcesOfTheImageInTheirLanguageForTheirFramework)
{
    const std::string project = TextOf(kRoot / "wdk/zepn.vcxproj");
    EXPECT_EQ(std::system(("xmllint --noout '" + (kRoot / "wdk/zepn.vcxproj").string() + "'").c_str()), 0);
    std::set<std::string> sources;
    for (std::string source : Matches(project, R"(<ClCompile Include="\.\.\\([^"]+)\")")) {
        std::replace(source.begin(), source.end(), '\\', '/');
        sources.insert(source);
    }
    std::set<std::string> expected;
    std::set<std::string> defines;
    std::set<std::string> standards;
    const auto commands = nlohmann::json::parse(TextOf(kRoot / "build/windows/compile_commands.json"));
    for (const auto& command : commands) {
        const std::string file = std::filesystem::relative(command["file"].get<std::string>(), kRoot).string();
        const bool isOfTheDriver =
            command["command"].get<std::string>().find("/zepn_arm64_objects.dir/") != std::string::npos;
        if (isOfTheDriver && !file.starts_with("platform/")) {
            expected.insert(file);
            defines.merge(Matches(command["command"], R"( -D(\S+))"));
            standards.merge(Matches(command["command"], R"( -std=c\+\+(\S+))"));
        }
    }
    EXPECT_EQ(sources, expected);

    // The WDK makes these two defines of the project's properties; there must be no others.
    std::set<std::string> projectDefines;
    for (const std::string& part : {std::string("MAJOR"), std::string("MINOR")}) {
        for (const std::string& value : Matches(project, "<KMDF_VERSION_" + part + ">(\\d+)<")) {
            projectDefines.insert("KMDF_VERSION_" + part + "=" + value);
        }
    }
    EXPECT_EQ(projectDefines, defines);
    EXPECT_EQ(project.find("PreprocessorDefinitions"), std::string::npos);
    EXPECT_EQ(Matches(project, "<LanguageStandard>stdcpp(\\d+)<"), standards);
}

TEST(WdkProject, AndItsSolutionHaveBothPlatforms)
{
    const std::set<std::string> expected = {"Debug|ARM64", "Debug|x64", "Release|ARM64", "Release|x64"};
    EXPECT_EQ(Matches(TextOf(kRoot / "wdk/zepn.vcxproj"), R"re(<ProjectConfiguration Include="([^"]+)")re"), expected);
    const std::string solution = TextOf(kRoot / "wdk/zepn.sln");
    EXPECT_EQ(Matches(solution, R"(\.Build\.0 = (\S+))"), expected);
    EXPECT_EQ(Matches(solution, R"re("zepn.vcxproj", "(\{[^}]+\})")re"),
              Matches(TextOf(kRoot / "wdk/zepn.vcxproj"), R"(<ProjectGuid>(.*)</ProjectGuid>)"));
}

}  // namespace
}  // namespace tests
