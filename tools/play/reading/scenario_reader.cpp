#include "tools/play/reading/scenario_reader.h"

#include "tools/play/reading/peer_reader.h"
#include "tools/play/reading/step_reader.h"

#include <fstream>

namespace play {
namespace {

constexpr std::size_t kSizeMaximum = std::size_t{32} << 20;

void ReadBeginning(ValueReader& reader, const JsonValue& root, Scenario& scenario)
{
    std::string notifier = "started";
    reader.ReadOneOf(root, "notifier", "scenario", {"started", "loaded", "absent"}, notifier);
    scenario.notifier = notifier == "loaded"   ? Beginning::kLoaded
                        : notifier == "absent" ? Beginning::kAbsent
                                               : Beginning::kStarted;
}

}  // namespace

Scenario ParseScenario(const std::string& text, const std::string& fileName)
{
    Scenario scenario;
    scenario.file = fileName;
    ValueReader reader(fileName, scenario);
    JsonValue root;
    try {
        root = ParseJson(text);
    } catch (const JsonError& error) {
        reader.Mistake(error.line, "syntax", error.message);
        throw ScenarioError(reader.mistakes());
    }
    if (reader.IsA(root, JsonValue::Kind::kObject, "scenario")) {
        reader.CheckFields(root, "scenario", {"title", "clients", "steps"}, {"states", "crashDump", "notifier"});
        reader.ReadText(root, "title", "title", scenario.title);
        ReadBeginning(reader, root, scenario);
        reader.ReadStateNames(root, "states", scenario.states);
        ReadClients(reader, root, scenario);
        ReadCrashDump(reader, root, scenario);
        ReadSteps(reader, root, scenario);
    }
    if (!reader.mistakes().empty()) {
        throw ScenarioError(reader.mistakes());
    }
    return scenario;
}

Scenario ReadScenario(const std::filesystem::path& file)
{
    if (std::filesystem::is_directory(file)) {
        throw ScenarioError(file.string() + ": is a folder");
    }
    std::ifstream stream(file, std::ios::binary);
    std::string text(kSizeMaximum + 1, '\0');
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (!stream.is_open() || stream.bad()) {
        throw ScenarioError(file.string() + ": cannot be read");
    }
    text.resize(static_cast<std::size_t>(stream.gcount()));
    if (text.size() > kSizeMaximum) {
        throw ScenarioError(file.string() + ": is longer than " + std::to_string(kSizeMaximum >> 20) + " MB");
    }
    return ParseScenario(text, file.string());
}

}  // namespace play
