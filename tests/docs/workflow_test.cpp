// The workflow for hosted machines: nobody has run it, so it is read: that it takes the whole history, and the names in
// it that are ours.
#include "tests/docs/text_files.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <regex>

namespace tests {
namespace {

const std::filesystem::path kWorkflow = kRoot / ".github/workflows/windows.yml";

// The version counts commits, so the package needs the whole history, and git before it.
TEST(Workflow, MakesThePackageFromTheWholeHistory)
{
    const YAML::Node steps = YAML::LoadFile(kWorkflow.string())["jobs"]["package"]["steps"];
    EXPECT_NE(steps[0]["run"].as<std::string>().find(" git"), std::string::npos);
    EXPECT_EQ(steps[1]["uses"].as<std::string>().substr(0, 17), "actions/checkout@");
    EXPECT_EQ(steps[1]["with"]["fetch-depth"].as<std::string>(), "0");
}

TEST(Workflow, NamesFilesThatAreThere)
{
    const YAML::Node workflow = YAML::LoadFile(kWorkflow.string());
    unsigned files = 0;
    for (const auto& job : workflow["jobs"]) {
        for (const YAML::Node& step : job.second["steps"]) {
            const std::string text = step["run"].IsDefined() ? step["run"].as<std::string>() : "";
            const std::regex name(R"((?:^|[\s'"])\.?[\\/]?((?:tests|driver)[\\/][\w\\/.]+\.(?:sln|cpp|ps1|capture)))");
            for (std::sregex_iterator at(text.begin(), text.end(), name), end; at != end; ++at) {
                std::string file = (*at)[1];
                std::ranges::replace(file, '\\', '/');
                EXPECT_TRUE(std::filesystem::exists(kRoot / file)) << file;
                ++files;
            }
        }
    }
    EXPECT_GE(files, 5u);
}

}  // namespace
}  // namespace tests
