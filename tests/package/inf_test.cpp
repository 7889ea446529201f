// Each INF of the package: one architecture, that of the image beside it, and the names that driver, image and install
// script know too.
#include "host/tracing/decode.h"
#include "tests/package/assembled.h"
#include "tests/package/version_resource.h"

#include <algorithm>
#include <map>
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
    for (std::string line : LinesOf(ReadAll(file))) {
        EXPECT_TRUE(line.ends_with('\r')) << file << ": " << line;
        line = Trimmed(line);
        if (line.empty() || line[0] == ';') {
            continue;
        }
        if (line[0] == '[') {
            section = line.substr(1, line.size() - 2);
            EXPECT_TRUE(inf.emplace(section, Inf::mapped_type()).second) << section << " is given twice";
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
    if (inf.contains(section)) {
        for (const auto& [name, value] : inf.at(section)) {
            if (name == key) {
                return value;
            }
        }
    }
    ADD_FAILURE() << section << " lacks " << key;
    return {};
}

std::vector<std::string> Parts(const std::string& list)
{
    std::vector<std::string> parts;
    std::istringstream stream(list);
    for (std::string part; std::getline(stream, part, ',');) {
        parts.push_back(Trimmed(part));
    }
    return parts;
}

struct PackagedDriver {
    const char* name;
    const char* folder;   // in the package, with a folder for each architecture in it
    const char* sources;  // where its registry values are read
    std::set<std::string> parameters;
};

const PackagedDriver kDrivers[] = {
    {"zepn", "", "driver/entry/power.cpp", {"SubsystemNotificationTimeout"}},
    {"zepn_probe", "probe", "samples/probe/probe.cpp", {}},
    {"zepn_client", "samples/client", "samples/client/client.cpp", {"ClientNumber", "WatchedNumber", "Supervises"}},
    {"zepn_crashdump", "samples/crashdump", "samples/crashdump/crashdump.cpp", {}},
};

class InfFiles : public AssembledPackage {
protected:
    template <class Check>
    void ForEach(const Check& check) const
    {
        for (const PackagedDriver& driver : kDrivers) {
            for (const char* machine : {"arm64", "x64"}) {
                const fs::path folder = folder_ / driver.folder / machine;
                SCOPED_TRACE(folder);
                check(driver, folder, ReadInf(folder / (std::string(driver.name) + ".inf")));
            }
        }
    }
};

// The sections that an INF for these drivers must have: those that Windows looks for, and those that lines refer to.
std::set<std::string> WantedSections(const Inf& inf)
{
    std::set<std::string> wanted = {"Version",         "SourceDisksNames", "SourceDisksFiles",
                                    "DestinationDirs", "Manufacturer",     "Strings"};
    const std::vector<std::string> models = Parts(inf.at("Manufacturer").at(0).second);
    for (std::size_t target = 1; target < models.size(); ++target) {
        const std::string section = models[0] + "." + models[target];
        wanted.insert(section);
        const std::string install = Parts(inf.at(section).at(0).second).at(0);
        for (const char* suffix : {".NT", ".NT.Services", ".NT.Wdf"}) {
            wanted.insert(install + suffix);
        }
        for (const char* suffix : {".NT.HW", ".NT.Events"}) {  // the Notifier's
            if (inf.contains(install + suffix)) {
                wanted.insert(install + suffix);
            }
        }
    }
    for (const auto& [name, lines] : inf) {
        for (const auto& [key, value] : lines) {
            if (key == "AddReg" || key == "CopyFiles") {
                wanted.insert(value);
            } else if (key == "AddService" || key == "KmdfService" || key == "AddEventProvider") {
                wanted.insert(Parts(value).back());
            }
        }
    }
    return wanted;
}

TEST_F(InfFiles, HaveTheSectionsThatTheyReferToAndNoOthers)
{
    ForEach([](const PackagedDriver&, const fs::path&, const Inf& inf) {
        std::set<std::string> found;
        for (const auto& [name, lines] : inf) {
            found.insert(name);
            for (const auto& [key, value] : lines) {
                for (const std::string& text : {key, value}) {
                    std::smatch use;
                    if (std::regex_search(text, use, std::regex("%([A-Za-z]+)%"))) {
                        EXPECT_FALSE(Value(inf, "Strings", use[1]).empty());
                    }
                }
            }
        }
        EXPECT_EQ(found, WantedSections(inf));
    });
}

TEST_F(InfFiles, ServeTheArchitectureOfTheImageBesideThemAlone)
{
    ForEach([](const PackagedDriver& driver, const fs::path& folder, const Inf& inf) {
        const auto image = image_check::PeReader::FromFile(folder / (std::string(driver.name) + ".sys"));
        const std::vector<std::string> models = Parts(inf.at("Manufacturer").at(0).second);
        ASSERT_EQ(models.size(), 2u);
        const std::string target = image.headers().machine == 0xAA64 ? "NTarm64" : "NTamd64";
        EXPECT_EQ(image.headers().machine, target == "NTarm64" ? 0xAA64 : 0x8664);
        EXPECT_TRUE(models[1].starts_with(target + ".10.0...")) << models[1];
        EXPECT_EQ(folder.filename(), target == "NTarm64" ? "arm64" : "x64");
    });
}

TEST_F(InfFiles, NameImageServiceCatalogAndDeviceAlike)
{
    ForEach([](const PackagedDriver& driver, const fs::path& folder, const Inf& inf) {
        const std::string name = driver.name;
        EXPECT_TRUE(fs::exists(folder / (name + ".pdb")));
        EXPECT_EQ(Value(inf, "Version", "CatalogFile"), name + ".cat");
        EXPECT_EQ(Value(inf, "SourceDisksFiles", name + ".sys"), "1");
        EXPECT_EQ(Value(inf, "DestinationDirs", "DefaultDestDir"), "13");  // the driver store
        const std::string models = Value(inf, "Manufacturer", "%Provider%");
        const std::string device = inf.at(Parts(models)[0] + "." + Parts(models)[1]).at(0).second;
        // What install.ps1 makes of the INF's name.
        EXPECT_EQ(Parts(device).at(1), "ROOT\\" + UpperCase(name));
        const std::string install = Parts(device)[0];
        EXPECT_EQ(inf.at(Value(inf, install + ".NT", "CopyFiles")).at(0).first, name + ".sys");
        const std::vector<std::string> service = Parts(Value(inf, install + ".NT.Services", "AddService"));
        EXPECT_EQ(service.at(0), name);
        EXPECT_EQ(service.at(1), "0x00000002");
        EXPECT_EQ(Value(inf, service.at(2), "ServiceBinary"), "%13%\\" + name + ".sys");
        EXPECT_EQ(Value(inf, service.at(2), "StartType"), "3");
        const std::vector<std::string> framework = Parts(Value(inf, install + ".NT.Wdf", "KmdfService"));
        EXPECT_EQ(framework.at(0), name);
        EXPECT_EQ(Value(inf, framework.at(1), "KmdfLibraryVersion"),
                  std::to_string(KMDF_VERSION_MAJOR) + "." + std::to_string(KMDF_VERSION_MINOR));
    });
}

// An update must not reset what the operator set: FLG_ADDREG_NOCLOBBER, 0x2, beside the type.
TEST_F(InfFiles, WriteTheParametersThatTheDriverReadsOnlyWhereThereAreNone)
{
    ForEach([this](const PackagedDriver& driver, const fs::path&, const Inf& inf) {
        std::set<std::string> found;
        for (const auto& [section, lines] : inf) {
            for (const auto& [line, none] : lines) {
                const std::vector<std::string> parts = Parts(line);
                if (parts.size() == 5 && parts[0] == "HKR" && parts[1] == "Parameters") {
                    EXPECT_EQ(parts[3], "0x00010003");
                    found.insert(parts[2]);
                    EXPECT_TRUE(Has(ReadAll(fs::path(root_) / driver.sources), "L\"" + parts[2] + "\""));
                }
            }
        }
        EXPECT_EQ(found, driver.parameters);
    });
}

TEST_F(InfFiles, HaveTheVersionOfTheNotifiersImage)
{
    ForEach([this](const PackagedDriver&, const fs::path&, const Inf& inf) {
        for (const char* machine : {"arm64", "x64"}) {
            const std::vector<std::string> version = Parts(Value(inf, "Version", "DriverVer"));
            EXPECT_TRUE(std::regex_match(version.at(0), std::regex(R"((0[1-9]|1[0-2])/(0[1-9]|[12]\d|3[01])/\d{4})")));
            EXPECT_GE(version.at(0).substr(6), "2010");  // inf2cat refuses a day before 21 April 2009
            EXPECT_EQ(version.at(1), VersionResource(folder_ / machine / "zepn.sys").FileVersion())
                << "the images are of another commit: build them again";
        }
    });
}

TEST_F(InfFiles, OfTheNotifierProtectTheDeviceAndRegisterItsEvents)
{
    const Inf inf = ReadInf(folder_ / "arm64" / "zepn.inf");
    EXPECT_EQ(inf.at(Value(inf, "Notifier_Install.NT.HW", "AddReg")).at(0).first,
              "HKR,,Security,,\"D:P(A;;GA;;;SY)(A;;GA;;;BA)\"");
    const std::vector<std::string> provider = Parts(Value(inf, "Notifier_Install.NT.Events", "AddEventProvider"));
    const host::tracing::Manifest manifest(folder_ / "trace" / "zepn.man");
    const auto guid = host::tracing::ParseGuid(provider.at(0));
    ASSERT_TRUE(guid);
    EXPECT_EQ(host::tracing::GuidText(*guid), host::tracing::GuidText(manifest.provider()));
    EXPECT_TRUE(Has(ReadAll(folder_ / "trace" / "zepn.man"),
                    "provider name=\"" + Value(inf, provider.at(1), "ProviderName") + "\""));
    EXPECT_EQ(Value(inf, provider.at(1), "ResourceFile"), "%13%\\zepn.sys");
    EXPECT_EQ(Value(inf, provider.at(1), "MessageFile"), "%13%\\zepn.sys");
}

}  // namespace
}  // namespace tests
