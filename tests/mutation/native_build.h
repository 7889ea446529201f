// How the native driver is built, as the build folder has it: its sources with their compile commands, and its link
// command. Builds drivers of which one source is changed.
#pragma once

#include "tests/mutation/syntax_tree.h"

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace mutation {

struct Source {
    std::string file;     // below the project's root
    std::string path;     // as the compiler is given it
    std::string folder;   // where the compiler runs
    std::string command;  // what compiles it
    std::string object;   // where that leaves the object file, from the folder
    std::string text;
};

enum class Built {
    kDriver,    // the changed driver is there
    kRefused,   // the compiler refuses the change, or warns of what no build of ours lets pass
    kSameCode,  // the object file is that of the unchanged source
};

class NativeBuild {
public:
    // A configured build folder whose native driver is up to date. Throws std::runtime_error when it is none.
    NativeBuild(std::filesystem::path root, std::filesystem::path folder);

    [[nodiscard]] const std::vector<Source>& sources() const { return sources_; }
    [[nodiscard]] SyntaxTree TreeOf(const Source& source) const;

    static constexpr const char* kDriver = "platform/zepn.so";  // in the build folder

    // Compiles the source with another text and links the driver into the folder, which is for this caller alone.
    Built Build(const Source& source, const std::string& text, const std::filesystem::path& into) const;
    [[nodiscard]] static std::filesystem::path DriverIn(const std::filesystem::path& folder)
    {
        return folder / "zepn.so";
    }

private:
    bool Compile(const Source& source, const std::filesystem::path& text, const std::filesystem::path& object) const;

    const std::filesystem::path root_;
    const std::filesystem::path folder_;
    std::vector<Source> sources_;
    std::string link_;  // the command, run in the build folder
};

}  // namespace mutation
