// The MSBuild projects against the CMake build: they cannot be run here, but they cannot fall behind either.
#include "tests/docs/text_files.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <set>

namespace tests {
namespace {

// The sources that a project lists by their place in the repository.
std::set<std::string> SourcesOf(const std::string& project)
{
    std::set<std::string> sources;
    for (std::string source :
         Matches(ReadAll(kRoot / "driver/wdk" / project), R"(<ClCompile Include="\.\.\\([^"]+)\")")) {
        std::replace(source.begin(), source.end(), '\\', '/');
        // From the projects' folder, driver/wdk.
        source = source.starts_with("../") ? source.substr(3) : "driver/" + source;
        sources.insert(source);
    }
    return sources;
}

TEST(WdkProjects, CompileTheSourcesOfTheImagesInTheirLanguageForTheirFramework)
{
    std::map<std::string, std::set<std::string>> expected;
    std::set<std::string> defines;
    std::set<std::string> standards;
    const auto commands = nlohmann::json::parse(ReadAll(kRoot / "build/windows/compile_commands.json"));
    for (const auto& command : commands) {
        const std::string file = std::filesystem::relative(command["file"].get<std::string>(), kRoot).string();
        const std::set<std::string> image = Matches(command["command"], R"(CMakeFiles/(\w+)_arm64_objects\.dir/)");
        if (image.size() == 1 && !file.starts_with("platform/")) {
            expected[*image.begin()].insert(file);
            defines.merge(Matches(command["command"], R"( -D(\S+))"));
            standards.merge(Matches(command["command"], R"( -std=c\+\+(\S+))"));
        }
    }
    for (const char* name : {"zepn", "zepn_probe"}) {
        EXPECT_FALSE(expected[name].empty()) << name;
        EXPECT_EQ(SourcesOf(std::string(name) + ".vcxproj"), expected[name]) << name;
    }

    // The WDK makes these two defines of the properties; there must be no others.
    const std::string shared = ReadAll(kRoot / "driver/wdk/driver.props");
    std::set<std::string> projectDefines;
    for (const std::string& part : {std::string("MAJOR"), std::string("MINOR")}) {
        for (const std::string& value : Matches(shared, "<KMDF_VERSION_" + part + ">(\\d+)<")) {
            projectDefines.insert("KMDF_VERSION_" + part + "=" + value);
        }
    }
    EXPECT_EQ(projectDefines, defines);
    EXPECT_EQ(shared.find("PreprocessorDefinitions"), std::string::npos);
    EXPECT_EQ(Matches(shared, "<LanguageStandard>stdcpp(\\d+)<"), standards);
}

TEST(WdkProjects, AreWellFormedAndInTheSolutionWithBothPlatforms)
{
    const std::set<std::string> expected = {"Debug|ARM64", "Debug|x64", "Release|ARM64", "Release|x64"};
    EXPECT_EQ(Matches(ReadAll(kRoot / "driver/wdk/driver.props"), R"re(<ProjectConfiguration Include="([^"]+)")re"),
              expected);
    const std::string solution = ReadAll(kRoot / "driver/wdk/zepn.sln");
    std::set<std::string> projects;
    for (const auto& entry : std::filesystem::directory_iterator(kRoot / "driver/wdk")) {
        const std::string name = entry.path().filename().string();
        if (name.ends_with(".vcxproj") || name.ends_with(".props")) {
            EXPECT_EQ(Shell("xmllint --noout '" + entry.path().string() + "'").status, 0);
        }
        if (name.ends_with(".vcxproj")) {
            projects.insert(name);
            const std::string text = ReadAll(entry.path());
            EXPECT_TRUE(Has(text, "<Import Project=\"driver.props\" />")) << name;
            const std::set<std::string> id = Matches(text, R"(<ProjectGuid>\{(.*)\}</ProjectGuid>)");
            EXPECT_EQ(Matches(solution, '"' + name + R"re(", "\{([^}]+)\}")re"), id) << name;
            EXPECT_EQ(Matches(solution, R"(\{)" + *id.begin() + R"(\}\.([^.]+)\.Build\.0 = )"), expected) << name;
        }
    }
    EXPECT_EQ(projects, (std::set<std::string>{"zepn.vcxproj", "zepn_probe.vcxproj"}));
}

}  // namespace
}  // namespace tests
