// zepn-coverage: what of the driver's own code the tests did not reach, held against a list of exceptions.
//
//     zepn-coverage EXPORT EXCEPTIONS ROOT
//
// EXPORT is what `llvm-cov export` wrote. An exception is one line, its three parts set apart by " | ":
//
//     driver/trace/events.cpp | if (handle != 0) { | true: the driver's entry runs once for each load
//
// file, the source line without its indentation, and which side of it (true, false, or code for a region that is never
// entered) with the reason. Where a line has several such places, "true#2" is the second from the left. One exception
// excuses one place: of equal lines in a file each needs its own. A template counts as reached when one instance is.
// Ends with 1 when a place is missed that is not listed, or listed that is not missed; with 2 when a file cannot be
// read.
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <stdexcept>
#include <tuple>
#include <vector>

namespace {

constexpr std::string_view kDriver = "driver/";
constexpr unsigned kCodeRegion = 0;

struct Place {
    std::string file;
    unsigned line;
    unsigned column;
    unsigned lastLine;
    unsigned lastColumn;
    std::string side;  // "true", "false", "code"
    auto operator<=>(const Place&) const = default;
};

struct Counts {
    unsigned places = 0;
    unsigned missed = 0;
};

// Which of the driver's folders it lies in; empty: in none.
std::string FolderOf(const std::string& file)
{
    return file.starts_with(kDriver) ? file.substr(0, file.find('/', kDriver.size())) : "";
}

// How often each place was reached, by all instances of it together.
std::map<Place, std::uint64_t> ReadExport(const std::string& name, const std::string& root)
{
    std::ifstream stream(name);
    if (!stream) {
        throw std::runtime_error(name + ": cannot be read");
    }
    const nlohmann::json data = nlohmann::json::parse(stream).at("data").at(0);
    std::map<Place, std::uint64_t> reached;
    for (const auto& function : data.at("functions")) {
        const auto add = [&](const nlohmann::json& region, const char* side, std::uint64_t count, unsigned fileIndex) {
            const std::string path = function.at("filenames").at(region.at(fileIndex).get<unsigned>());
            const std::string file = std::filesystem::relative(path, root).string();
            if (!FolderOf(file).empty()) {
                reached[{file, region[0], region[1], region[2], region[3], side}] += count;
            }
        };
        for (const auto& region : function.at("regions")) {
            if (region.at(7) == kCodeRegion) {
                add(region, "code", region.at(4), 5);
            }
        }
        for (const auto& branch : function.at("branches")) {
            add(branch, "true", branch.at(4), 6);
            add(branch, "false", branch.at(5), 6);
        }
    }
    return reached;
}

// A line of a source without its indentation.
std::string LineOf(const std::filesystem::path& file, unsigned line)
{
    std::ifstream stream(file);
    std::string text;
    for (unsigned number = 0; number < line && std::getline(stream, text); ++number) {
    }
    return text.substr(std::min(text.find_first_not_of(' '), text.size()));
}

// "file | line | side", with the reasons cut off.
std::multiset<std::string> ReadExceptions(const std::string& name)
{
    std::ifstream stream(name);
    if (!stream) {
        throw std::runtime_error(name + ": cannot be read");
    }
    std::multiset<std::string> exceptions;
    unsigned number = 0;
    for (std::string line; std::getline(stream, line);) {
        ++number;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const std::size_t side = line.rfind(" | ");
        const std::size_t reason = line.find(": ", side);
        if (side == std::string::npos || reason == std::string::npos) {
            throw std::runtime_error(name + ":" + std::to_string(number) + ": not \"file | line | side: reason\"");
        }
        exceptions.insert(line.substr(0, reason));
    }
    return exceptions;
}

// "true", or "true#2" when the line has several places with such a side.
std::string NumberedSide(const std::map<Place, std::uint64_t>& reached, const Place& wanted)
{
    unsigned number = 0;
    unsigned places = 0;
    for (const auto& [place, count] : reached) {  // in order of columns
        if (place.file == wanted.file && place.line == wanted.line && place.side == wanted.side) {
            ++places;
            number = place == wanted ? places : number;
        }
    }
    return places == 1 ? wanted.side : wanted.side + "#" + std::to_string(number);
}

int Report(const std::map<Place, std::uint64_t>& reached, std::multiset<std::string> exceptions,
           const std::filesystem::path& root)
{
    std::map<std::string, Counts> code;
    std::map<std::string, Counts> sides;
    std::vector<std::string> missed;
    for (const auto& [place, count] : reached) {
        Counts& counts = (place.side == "code" ? code : sides)[FolderOf(place.file)];
        ++counts.places;
        if (count == 0) {
            ++counts.missed;
            missed.push_back(place.file + " | " + LineOf(root / place.file, place.line) + " | " +
                             NumberedSide(reached, place));
        }
    }
    for (const auto& [folder, regions] : code) {
        std::printf("  %-18s code regions: %4u of %4u reached   branch sides: %4u of %4u taken\n", folder.c_str(),
                    regions.places - regions.missed, regions.places, sides[folder].places - sides[folder].missed,
                    sides[folder].places);
    }
    unsigned wrong = 0;
    for (const std::string& place : missed) {
        if (const auto excused = exceptions.find(place); excused != exceptions.end()) {
            exceptions.erase(excused);
        } else {
            std::printf("  not reached: %s\n", place.c_str());
            ++wrong;
        }
    }
    for (const std::string& place : exceptions) {
        std::printf("  listed, but reached or gone: %s\n", place.c_str());
        ++wrong;
    }
    std::printf("  %zu places not reached; %u of them, or of the list, unexplained\n", missed.size(), wrong);
    return wrong == 0 ? 0 : 1;
}

}  // namespace

int main(int count, char** arguments)
{
    if (count != 4) {
        std::cerr << "usage: zepn-coverage EXPORT EXCEPTIONS ROOT\n";
        return 2;
    }
    try {
        return Report(ReadExport(arguments[1], arguments[3]), ReadExceptions(arguments[2]), arguments[3]);
    } catch (const std::exception& error) {
        std::cerr << "zepn-coverage: " << error.what() << "\n";
        return 2;
    }
}
