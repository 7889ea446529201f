// The workflow for hosted machines: nobody has run it, so it is read: that it takes the whole history, and the names in
// it that are ours.
#include "tests/docs/text_files.h"

#include <yaml-cpp/yaml.h>

#include <algorithm>

namespace tests {
namespace {

const std::filesystem::path kWorkflow = kRoot / ".github/workflows/windows.yml";

// The version counts commits, so the package needs the whole history, and git before it.
TEST(Workflow, MakesThePackageFromTheWholeHistory)
{
    const YAML::Node steps = YAML::LoadFile(kWorkflow.string())["jobs"]["package"]["steps"];
    EXPECT_TRUE(Has(steps[0]["run"].as<std::string>(), " git"));
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
            for (std::string file :
                 Matches(text, R"((?:^|[\s'"])\.?[\\/]?((?:tests|driver)[\\/][\w\\/.]+\.(?:sln|cpp|ps1|capture)))")) {
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
