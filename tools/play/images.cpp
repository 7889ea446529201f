#include "tools/play/images.h"

#include "tools/play/reading/field_reader.h"

#include <algorithm>

namespace play {
namespace {

struct Container {
    const char* name;
    const char* extension;
};

Container ContainerOf(const std::filesystem::path& notifier)
{
    if (notifier.extension() == ".so") {
        return {"native", ".so"};
    }
#if defined(__x86_64__)
    return {"x64", ".sys"};
#else
    return {"arm64", ".sys"};
#endif
}

std::filesystem::path Resolve(std::string name, const std::filesystem::path& scenario,
                              const std::filesystem::path& notifier)
{
    const std::string kPlaceholder = "{container}";
    const Container container = ContainerOf(notifier);
    if (const std::size_t at = name.find(kPlaceholder); at != std::string::npos) {
        name.replace(at, kPlaceholder.size(), container.name);
    }
    std::filesystem::path path = name;
    if (!path.has_extension()) {
        path += container.extension;
    }
    return (path.has_parent_path() ? scenario : notifier).parent_path() / path;
}

// Whom the command line gives a driver must be a real client.
void CheckDrivers(FieldReader& reader, const Scenario& scenario, const PlayOptions& options)
{
    std::vector<std::string> real;
    for (const ClientModel& client : scenario.clients) {
        if (client.driver) {
            real.push_back(client.key);
        }
    }
    for (const auto& [key, path] : options.drivers) {
        if (std::ranges::find(real, key) == real.end()) {
            reader.Mistake(1, "--driver " + key + "=" + path.string(),
                           "no client of this name has an \"image\"" + Nearest(key, real));
        }
    }
}

}  // namespace

std::map<std::string, std::filesystem::path> ClientImages(const Scenario& scenario, const PlayOptions& options)
{
    FieldReader reader(scenario.file);
    CheckDrivers(reader, scenario, options);
    std::map<std::string, std::filesystem::path> images;
    for (const ClientModel& client : scenario.clients) {
        if (!client.driver) {
            continue;
        }
        const auto given = options.drivers.find(client.key);
        const std::filesystem::path image = given == options.drivers.end()
                                                ? Resolve(client.driver->image, scenario.file, options.image)
                                                : given->second;
        if (!std::filesystem::is_regular_file(image)) {
            reader.Mistake(client.driver->line, "clients." + client.key + ".image",
                           image.string() + " is missing; build it, or name another with --driver " + client.key +
                               "=PATH");
        }
        images.emplace(client.key, image);
    }
    if (!reader.mistakes().empty()) {
        throw ScenarioError(reader.mistakes());
    }
    return images;
}

}  // namespace play
