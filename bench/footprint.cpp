// Footprint: the images by section, and the memory of each client, subscription and queued state; and what remains
// after a million posts.
#include "bench/sections.h"
#include "bench/fixture.h"

#include "tools/image_check/pe_reader.h"

#include <fstream>
#include <iterator>

namespace bench {
namespace {

constexpr const char* kFootprintSection = "Footprint";

void MeasureImage(Table& table, const std::string& machine)
{
    const std::filesystem::path file = std::filesystem::path(ZEPN_ROOT) / "out" / machine / "zepn.sys";
    std::ifstream stream(file, std::ios::binary);
    const image_check::PeReader image({std::istreambuf_iterator<char>(stream), {}});
    const auto add = [&](const std::string& name, double value) {
        table.Add({.section = kFootprintSection,
                   .name = name,
                   .on = machine + " image",
                   .value = value,
                   .unit = "bytes",
                   .isExact = true});
    };
    add("file", static_cast<double>(image.bytes().size()));
    for (const image_check::Section& section : image.sections()) {
        add("section " + section.name + " in memory", section.sizeBytes);
    }
}

// What exists now.
struct Footprint {
    double objects;
    double contextBytes;
    double poolBlocks;
};

Footprint FootprintOf(Fixture& fixture)
{
    Footprint footprint{};
    for (const host::framework::ObjectSnapshot& object : fixture.machine.inspect().Objects()) {
        ++footprint.objects;
        for (const host::framework::ContextSnapshot& context : object.contexts) {
            footprint.contextBytes += static_cast<double>(context.bytes.size());
        }
    }
    for (const host::Machine::PoolUse& use : fixture.machine.PoolInUse()) {
        footprint.poolBlocks += static_cast<double>(use.blockCount);
    }
    return footprint;
}

void MeasureEach(Table& table, const std::string& what, const std::function<void(Fixture&)>& add)
{
    Fixture fixture({.subject = Subject::kNative});
    const Footprint before = FootprintOf(fixture);
    add(fixture);
    const Footprint after = FootprintOf(fixture);
    const auto row = [&](const std::string& name, double value, const char* unit) {
        table.Add({.section = kFootprintSection,
                   .name = what + ": " + name,
                   .on = "",
                   .value = value,
                   .unit = unit,
                   .isExact = true});
    };
    row("framework objects", after.objects - before.objects, "objects");
    row("context memory", after.contextBytes - before.contextBytes, "bytes");
    row("pool blocks", after.poolBlocks - before.poolBlocks, "blocks");
}

void MeasureMillion(Table& table, const Options& options)
{
    const unsigned posts = options.isQuick ? 20000 : 1000000;
    Fixture fixture({.clients = 2, .subscriptionsEach = 1});
    const Footprint before = FootprintOf(fixture);
    for (unsigned post = 0; post < posts; ++post) {
        fixture.Post(fixture.poster(), 1);
        if (post % 64 == 63) {
            fixture.machine.RunWorkItems();
        }
    }
    fixture.machine.RunWorkItems();
    const Footprint after = FootprintOf(fixture);
    table.Add({.section = kFootprintSection,
               .name = "objects left by " + std::to_string(posts) + " posts",
               .on = "",
               .value = after.objects - before.objects,
               .unit = "objects",
               .goal = Goal{0},
               .isExact = !options.isQuick});
    table.Add({.section = kFootprintSection,
               .name = "pool blocks left by " + std::to_string(posts) + " posts",
               .on = "",
               .value = after.poolBlocks - before.poolBlocks,
               .unit = "blocks",
               .goal = Goal{0},
               .isExact = !options.isQuick});
}

}  // namespace

void MeasureFootprint(Table& table, const Options& options)
{
    for (const char* machine : {"arm64", "x64"}) {
        MeasureImage(table, machine);
    }
    MeasureEach(table, "each client", [](Fixture& fixture) { fixture.Register(100); });
    MeasureEach(table, "each subscription", [](Fixture& fixture) { fixture.Subscribe(1, fixture.poster(), 7); });
    MeasureEach(table, "each queued state", [](Fixture& fixture) { fixture.Post(fixture.poster(), 7); });
    MeasureEach(table, "each delivered command, until its sender deregisters", [](Fixture& fixture) {
        fixture.Command(fixture.poster(), 1);
        fixture.machine.RunWorkItems();
    });
    MeasureMillion(table, options);
}

}  // namespace bench
