// zepn-image-check: says what an image is and what is wrong with it.
//
// Ends with 0 when every image is right, 1 when something was found, 2 for a wrong call or when a check could not run.
#include "tools/command_line/command_line.h"
#include "tools/image_check/checks.h"
#include "tools/image_check/disassembly.h"
#include "tools/image_check/text.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <iostream>

namespace {

using image_check::Finding;
using image_check::PeReader;
using image_check::ReportResources;
using Json = nlohmann::ordered_json;

constexpr int kFound = 1;
constexpr int kCouldNotRun = 2;

// A table that cannot be read has been reported by its check; the facts just leave it out.
template <class Read>
auto Readable(Read read) -> decltype(read())
{
    try {
        return read();
    } catch (const image_check::FormatError&) {
        return {};
    }
}

Json Facts(const PeReader& image)
{
    const image_check::Headers& headers = image.headers();
    Json facts;
    facts["machine"] = headers.machine == image_check::kMachineArm64 ? "ARM64"
                       : headers.machine == image_check::kMachineX64 ? "x64"
                                                                     : image_check::Hex(headers.machine);
    facts["sizeBytes"] = image.bytes().size();
    facts["checksum"] = image_check::Hex(headers.checksum);
    facts["entry"] = image_check::Hex(headers.entryAddress);
    for (const image_check::Section& section : image.sections()) {
        facts["sections"].push_back({{"name", section.name},
                                     {"address", image_check::Hex(section.address)},
                                     {"sizeBytes", section.sizeBytes},
                                     {"characteristics", image_check::Hex(section.characteristics)}});
    }
    facts["imports"] = Json::object();
    for (const image_check::ImportedModule& module : Readable([&] { return image.Imports(); })) {
        facts["imports"][module.name] = module.names;
    }
    facts["functions"] = Readable([&] { return image.FunctionRanges(); }).size();
    const auto relocations = Readable([&] { return image.Relocations(); });
    facts["relocations"] = std::ranges::count_if(relocations, [](const auto& slot) { return slot.type != 0; });
    const auto configuration = Readable([&] { return image.GuardConfiguration(); });
    facts["guardedFunctions"] = configuration ? configuration->guardedFunctions.size() : 0;
    facts["resources"] = Json::array();
    for (const image_check::Resource& resource : Readable([&] { return image.Resources(); })) {
        const image_check::ResourceId& type = resource.type;
        facts["resources"].push_back(
            {{"type", type.text.empty() ? std::to_string(type.number) : type.text}, {"sizeBytes", resource.sizeBytes}});
    }
    facts["pdb"] = nullptr;
    for (const image_check::DebugEntry& entry : Readable([&] { return image.DebugEntries(); })) {
        if (!entry.pdbName.empty()) {
            facts["pdb"] = entry.pdbName;
        }
    }
    return facts;
}

void PrintText(const std::string& file, const Json& facts, const std::vector<Finding>& findings)
{
    std::cout << file << ": ";
    if (!facts.empty()) {
        std::cout << facts["machine"].get<std::string>() << ", " << facts["sizeBytes"] << " bytes, checksum "
                  << facts["checksum"].get<std::string>() << ", " << facts["functions"]
                  << " functions with unwind data, " << facts["guardedFunctions"] << " guarded, "
                  << facts["relocations"] << " relocations, " << facts["resources"].size() << " resources";
        if (facts.contains("checkedFrames")) {
            std::cout << ", " << facts["checkedFrames"] << " functions check their frame";
        }
        for (const auto& [module, names] : facts["imports"].items()) {
            std::cout << "\n  " << module << ":";
            for (const auto& name : names) {
                std::cout << " " << name.get<std::string>();
            }
        }
    }
    std::cout << "\n";
    for (const Finding& finding : findings) {
        std::cout << "  WRONG " << finding.check << ": " << finding.text << "\n";
    }
    if (findings.empty()) {
        std::cout << "  nothing wrong\n";
    }
}

void PrintJson(const std::string& file, const Json& facts, const std::vector<Finding>& findings)
{
    Json object = {{"file", file}, {"facts", facts}, {"findings", Json::array()}};
    for (const Finding& finding : findings) {
        object["findings"].push_back({{"check", finding.check}, {"text", finding.text}});
    }
    // Names from a damaged image may be no text at all.
    std::cout << object.dump(-1, ' ', false, Json::error_handler_t::replace) << "\n";
}

}  // namespace

int main(int argumentCount, char** arguments)
{
    std::vector<std::string> files;
    std::string disassembler = "llvm-objdump-19";
    bool structureOnly = false;
    bool withoutReports = false;
    bool json = false;

    CLI::App app{"Checks driver images: headers, sections, tables and code."};
    app.add_option("image", files, "images to check")->required();
    app.add_option("--disassembler", disassembler, "program that disassembles (default: " + disassembler + ")");
    app.add_flag("--structure-only", structureOnly, "leave out the checks of code, which need the disassembler");
    app.add_flag("--without-reports", withoutReports, "the images need no resources, as the samples");
    app.add_flag("--json", json, "one JSON object for each image: facts and findings");
    if (const auto status = tools::ReadCommandLine(app, argumentCount, arguments)) {
        return *status;
    }

    int result = 0;
    for (const std::string& file : files) {
        std::vector<Finding> findings;
        Json facts = Json::object();
        try {
            const PeReader image = PeReader::FromFile(file);
            facts = Facts(image);
            findings = image_check::CheckStructure(image, withoutReports ? ReportResources::kNotNeeded
                                                                         : ReportResources::kRequired);
            if (!structureOnly) {
                const std::string disassembly = image_check::Disassemble(disassembler, file);
                facts["checkedFrames"] = Readable([&] { return image_check::CountCheckedFrames(image, disassembly); });
                std::ranges::copy(image_check::CheckCode(image, disassembly), std::back_inserter(findings));
            }
        } catch (const image_check::FormatError& error) {
            findings.push_back({"format", error.what()});
        } catch (const std::exception& error) {
            std::cerr << "zepn-image-check: " << error.what() << "\n";
            return kCouldNotRun;
        }
        (json ? PrintJson : PrintText)(file, facts, findings);
        result = findings.empty() ? result : kFound;
    }
    return tools::EndWith(app, result);
}
