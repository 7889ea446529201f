// zepn-bench: what the driver costs, and how the cost scales.
#include "bench/sections.h"
#include "tools/command_line/command_line.h"

#include <filesystem>
#include <fstream>
#include <iostream>

int main(int argc, char** argv)
{
    struct Section {
        const char* name;
        void (*measure)(bench::Table&, const bench::Options&);
    };
    constexpr Section kSections[] = {
        {"disabled-tracing", bench::MeasureDisabledTracing},
        {"delivery-path", bench::MeasureDeliveryPath},
        {"scaling", bench::MeasureScaling},
        {"comparison", bench::MeasureComparison},
        {"host", bench::MeasureHost},
        {"footprint", bench::MeasureFootprint},
    };
    CLI::App app("Measures the Notifier and its host");
    std::vector<std::string> names;
    std::string jsonFile;
    bench::Options options;
    app.add_option(
        "sections", names,
        "sections to run, all unless given: disabled-tracing, delivery-path, scaling, comparison, host, footprint");
    app.add_option("--json", jsonFile, "also writes the results as JSON");
    app.add_flag("--quick", options.isQuick, "short times; counts stay exact");
    if (const auto status = tools::ReadCommandLine(app, argc, argv)) {
        return *status;
    }
    const auto cannotWrite = [&jsonFile] {
        std::cerr << "zepn-bench: cannot write " << jsonFile << "\n";
        return 2;
    };
    // Seen now, not after minutes of measuring.
    if (!jsonFile.empty() && (std::filesystem::is_directory(jsonFile) ||
                              !std::filesystem::is_directory(std::filesystem::absolute(jsonFile).parent_path()))) {
        return cannotWrite();
    }
    for (const std::string& name : names) {
        if (std::ranges::none_of(kSections, [&](const Section& section) { return name == section.name; })) {
            std::cerr << "zepn-bench: there is no section " << name << "\n";
            return 2;
        }
    }
    bench::Table table;
    table.echo = &std::cout;
    try {
        for (const Section& section : kSections) {
            if (names.empty() || std::ranges::find(names, section.name) != names.end()) {
                section.measure(table, options);
            }
        }
    } catch (const std::exception& error) {
        std::cerr << "zepn-bench: " << error.what() << "\n";
        return 1;
    }
    if (!jsonFile.empty()) {
        std::ofstream json(jsonFile);
        json << table.Json().dump(1) << "\n";
        json.close();
        if (!json) {
            return cannotWrite();
        }
    }
    return tools::EndWith(app, 0);
}
