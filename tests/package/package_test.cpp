// The package as a whole: what the INF names is what the driver and its files are called.
#include "host/tracing/decode.h"
#include "tests/package/assembled.h"

#include <regex>
#include <set>

namespace tests {
namespace {

// Sections by name; each its lines, cut at the first '='. A line without one has an empty second half.
using Inf = std::map<std::string, std::vector<std::pair<std::string, std::string>>>;

Inf ReadInf(const fs::path& file)
{
    Inf inf;
    std::string section;
    std::istringstream lines(ReadAll(file));
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.ends_with('\r')) << line;
        line = Trimmed(line);
        if (line.empty() || line[0] == ';') {
            continue;
        }
        if (line[0] == '[') {
            section = line.substr(1, line.size() - 2);
            EXPECT_TRUE(inf.emplace(section, Inf::mapped_type()).second) << section << " stands twice";
            continue;
        }
        const std::size_t equals = line.find('=');
        inf[section].emplace_back(Trimmed(line.substr(0, equals)),
                                  equals == std::string::npos ? "" : Trimmed(line.substr(equals + 1)));
    }
    return inf;
}

std::string Value(const Inf& inf, const std::string& section, const std::string& key)
{
    for (const auto& [name, value] : inf.at(section)) {
        if (name == key) {
            return value;
        }
    }
    ADD_FAILURE() << section << " lacks " << key;
    return {};
}

class Package : public AssembledPackage {};

TEST_F(Package, InfAgreesWithTheDriver)
{
    const Inf inf = ReadInf(folder_ / "arm64" / "zepn.inf");
    EXPECT_EQ(ReadAll(folder_ / "arm64" / "zepn.inf"), ReadAll(folder_ / "x64" / "zepn.inf"));
    EXPECT_TRUE(std::regex_match(Value(inf, "Version", "DriverVer"),
                                 std::regex(R"((0[1-9]|1[0-2])/[0-3]\d/\d{4},)" + version_ + R"(\.\d+)")));

    // Every section that is referred to is there, and there are no others.
    std::set<std::string> wanted = {"Version",         "SourceDisksNames", "SourceDisksFiles",
                                    "DestinationDirs", "Manufacturer",     "Strings"};
    std::istringstream models(inf.at("Manufacturer").at(0).second);
    std::string base;
    std::getline(models, base, ',');
    std::set<std::string> machines;
    for (std::string machine; std::getline(models, machine, ',');) {
        machines.insert(machine.substr(0, machine.find('.')));
        wanted.insert(base + "." + machine);
        const std::string& device = inf.at(base + "." + machine).at(0).second;
        const std::string install = device.substr(0, device.find(','));
        for (const char* suffix : {".NT", ".NT.HW", ".NT.Services", ".NT.Wdf", ".NT.Events"}) {
            wanted.insert(install + suffix);
        }
    }
    EXPECT_EQ(machines, (std::set<std::string>{"NTarm64", "NTamd64"}));
    std::set<std::string> found;
    for (const auto& [name, lines] : inf) {
        found.insert(name);
        for (const auto& [key, value] : lines) {
            if (key == "AddReg" || key == "CopyFiles") {
                wanted.insert(value);
            } else if (key == "AddService" || key == "KmdfService" || key == "AddEventProvider") {
                wanted.insert(value.substr(value.rfind(',') + 1));
            }
            for (const std::string& text : {key, value}) {
                std::smatch use;
                if (std::regex_search(text, use, std::regex("%([A-Za-z]+)%"))) {
                    EXPECT_FALSE(Value(inf, "Strings", use[1]).empty());
                }
            }
        }
    }
    EXPECT_EQ(found, wanted);

    // Names that the driver or its files know too.
    EXPECT_EQ(Value(inf, "Notifier_Wdf", "KmdfLibraryVersion"),
              std::to_string(KMDF_VERSION_MAJOR) + "." + std::to_string(KMDF_VERSION_MINOR));
    EXPECT_EQ(Value(inf, "Notifier_Service", "ServiceBinary"), "%13%\\zepn.sys");
    EXPECT_EQ(Value(inf, "DestinationDirs", "DefaultDestDir"), "13");
    EXPECT_EQ(Value(inf, "Notifier_Install.NT.Services", "AddService"), "zepn,0x00000002,Notifier_Service");
    EXPECT_EQ(Value(inf, "Notifier_Install.NT.Wdf", "KmdfService"), "zepn,Notifier_Wdf");
    EXPECT_EQ(inf.at("Notifier_Security").at(0).first, "HKR,,Security,,\"D:P(A;;GA;;;SY)(A;;GA;;;BA)\"");
    const std::string parameter = inf.at("Notifier_Parameters").at(0).first;
    std::smatch name;
    ASSERT_TRUE(std::regex_match(parameter, name, std::regex(R"(HKR,Parameters,(\w+),0x00010001,0)")));
    EXPECT_NE(ReadAll(root_ + "/delivery/apps_state.cpp").find("L\"" + name[1].str() + "\""), std::string::npos);
    const std::string provider = Value(inf, "Notifier_Install.NT.Events", "AddEventProvider");
    const host::tracing::Manifest manifest(folder_ / "trace" / "zepn.man");
    const auto guid = host::tracing::ParseGuid(provider.substr(0, provider.find(',')));
    ASSERT_TRUE(guid);
    EXPECT_EQ(host::tracing::GuidText(*guid), host::tracing::GuidText(manifest.provider()));
    EXPECT_NE(ReadAll(folder_ / "trace" / "zepn.man")
                  .find("provider name=\"" + Value(inf, "Notifier_Events", "ProviderName") + "\""),
              std::string::npos);
    EXPECT_NE(ReadAll(folder_ / "include" / "zepn_notifier.h").find("Version " + version_), std::string::npos);
    EXPECT_EQ(ReadAll(folder_ / "README.md").find('@'), std::string::npos);
}

TEST_F(Package, SignedImagesVerifyAndDamageIsSeen)
{
    const std::string call =
        "'" + root_ + "/package/sign.sh' '" + folder_.string() + "' '" + (folder_ / "work").string() + "'";
    ASSERT_EQ(std::system((call + " > /dev/null 2>&1").c_str()), 0);
    const fs::path image = folder_ / "arm64" / "zepn.sys";
    const std::string verify = "osslsigncode verify -CAfile '" + (folder_ / "work/test-certificate.pem").string() +
                               "' -in '" + image.string() + "' > /dev/null 2>&1";
    EXPECT_EQ(std::system(verify.c_str()), 0);
    std::fstream file(image, std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(0x1000);
    file.put('\x5A');
    file.put('\xA5');
    file.close();
    EXPECT_NE(std::system(verify.c_str()), 0);
}

}  // namespace
}  // namespace tests
