// zepn-play: plays a scenario on the driver image and prints the timeline.
//
// Ends with 0 when all went as the scenario expects, 1 when not, 2 for a wrong scenario or a wrong call, and 4
// (host::checks::kMemoryFaultExit) after a memory fault of a driver, which is printed with its place and the step.
#include "host/environment.h"
#include "tools/command_line/command_line.h"
#include "tools/play/diagram.h"
#include "tools/play/perfetto.h"
#include "tools/play/player.h"
#include "tools/play/reading/scenario_reader.h"

#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <iostream>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

constexpr int kNotAsExpected = 1;
using tools::kBadInput;

std::filesystem::path ImagePath(const std::string& choice, const std::filesystem::path& root)
{
    if (choice == "native") {
        return ZEPN_NATIVE_DRIVER;
    }
    if (choice == "x64" || choice == "arm64") {
        return root / "out" / choice / "zepn.sys";
    }
    return choice;
}

// CLIENT=PATH, as --driver takes it.
std::map<std::string, std::filesystem::path> Drivers(const std::vector<std::string>& texts)
{
    std::map<std::string, std::filesystem::path> drivers;
    for (const std::string& text : texts) {
        const std::size_t at = text.find('=');
        if (at == 0 || at == std::string::npos || at + 1 == text.size()) {
            throw std::runtime_error("--driver takes CLIENT=PATH, not " + text);
        }
        if (!drivers.emplace(text.substr(0, at), text.substr(at + 1)).second) {
            throw std::runtime_error("--driver " + text + ": the client has been given a driver already");
        }
    }
    return drivers;
}

template <class Picture>
void WriteFile(const std::string& file, const Picture& picture)
{
    if (file.empty()) {
        return;
    }
    std::ofstream out(file, std::ios::binary);
    picture.Write(out);
    out.close();
    if (!out) {
        throw std::runtime_error(file + ": cannot be written");
    }
}

}  // namespace

int main(int argumentCount, char** arguments)
{
    const std::filesystem::path root = ZEPN_ROOT;
#if defined(__x86_64__)
    std::string image = "x64";
#else
    std::string image = "arm64";
#endif
    std::string scenarioFile = (root / "scenarios" / "boot.json").string();
    int eventLevel = -1;
    bool traceMessages = false;
    bool json = false;
    bool samples = false;
    bool allowMissing = false;
    std::string color = "auto";
    std::string diagramFile;
    std::string diagramPart;
    std::string perfettoFile;

    CLI::App app{"Plays a scenario on the driver image and prints what happens."};
    CLI::Option* scenarioOption =
        app.add_option("scenario", scenarioFile, "scenario file (default: scenarios/boot.json)");
    app.add_option("--image", image, "x64, arm64, native, or a path (default: " + image + ")");
    app.add_option("--etw", eventLevel, "show events up to this level; 0 shows all")->check(CLI::Range(0, 255));
    app.add_flag("--trace", traceMessages, "show trace messages");
    std::string capture;
    app.add_option("--capture", capture, "write all reports, raw, to this file for zepn decode");
    app.add_flag("--json", json, "one JSON object a line");
    CLI::Option* diagramOption =
        app.add_option("--diagram", diagramFile, "write the run as a Mermaid sequence diagram");
    app.add_option("--diagram-part", diagramPart, "of it, only what stands below the notes with this text")
        ->needs(diagramOption);
    app.add_option("--perfetto", perfettoFile, "write the run as trace events for Perfetto and Chrome's viewer");
    std::vector<std::string> drivers;
    app.add_option("--driver", drivers, "CLIENT=PATH: the driver image of a real client, in place of the file's")
        ->allow_extra_args(false);
    app.add_flag("--samples", samples, "plays scenarios/samples.json: all drivers are real")->excludes(scenarioOption);
    app.add_flag("--allow-missing", allowMissing, "load images that need functions which the host does not play");
    app.add_option("--color", color, "auto, always or never")->check(CLI::IsMember({"auto", "always", "never"}));
    if (const auto status = tools::ReadCommandLine(app, argumentCount, arguments)) {
        return *status;
    }

    try {
        const bool colored = color == "always" || (color == "auto" && isatty(STDOUT_FILENO) == 1);
        play::Timeline timeline(std::cout, json ? play::Timeline::Form::kJson : play::Timeline::Form::kText, colored);
        if (samples) {
            scenarioFile = (root / "scenarios" / "samples.json").string();
        }
        const play::Scenario scenario = play::ReadScenario(scenarioFile);
        play::PlayOptions options;
        options.image = ImagePath(image, root);
        options.drivers = Drivers(drivers);
        std::vector<std::filesystem::path> read = {scenarioFile, options.image};
        for (const auto& [client, driver] : options.drivers) {
            read.push_back(driver);
        }
        for (const std::string& written : {capture, diagramFile, perfettoFile}) {
            if (std::ranges::any_of(read, [&written](const std::filesystem::path& file) {
                    std::error_code missing;  // then it is another file
                    return std::filesystem::equivalent(written, file, missing);
                })) {
                throw std::runtime_error(written + ": is read, and would be overwritten");
            }
        }
        options.decodingFiles = root / "out" / "manifest";
        options.traceMessages = traceMessages;
        options.capture = capture;
        options.realTime = true;
        options.allowMissing = allowMissing;
        if (eventLevel >= 0) {
            options.eventLevel = static_cast<std::uint8_t>(eventLevel);
        }
        timeline.Add({play::EntryKind::kHeading, "", "", scenario.title, "", true});
        play::Diagram diagram(scenario.title, diagramPart);
        play::Perfetto perfetto(scenario.title);
        if (!diagramFile.empty()) {
            timeline.AddObserver(diagram);
        }
        if (!perfettoFile.empty()) {
            timeline.AddObserver(perfetto);
        }
        const bool good = play::Play(scenario, options, timeline);
        if (!diagramPart.empty() && !diagram.HasPart()) {
            throw std::runtime_error("no note of the scenario contains \"" + diagramPart + "\"");
        }
        WriteFile(diagramFile, diagram);
        WriteFile(perfettoFile, perfetto);
        return tools::EndWith(app, good ? 0 : kNotAsExpected);
    } catch (const play::ScenarioError& error) {
        std::cerr << error.what() << "\n";
        return kBadInput;
    } catch (const std::exception& error) {
        std::cerr << "zepn-play: " << error.what() << "\n";
        return kBadInput;
    }
}
