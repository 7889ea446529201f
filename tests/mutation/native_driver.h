// The native driver as its build folder builds it: its sources with their compile commands, and its link command.
// Builds drivers of which one source has a fault, and runs the tests on them.
#pragma once

#include "tests/mutation/campaign.h"

#include <filesystem>
#include <string>
#include <vector>

namespace mutation {

class NativeDriver {
public:
    // A configured build folder in which driver and tests are up to date. Throws std::runtime_error when it is none, as
    // do the others when they cannot do their work.
    NativeDriver(const std::filesystem::path& root, std::filesystem::path folder);

    [[nodiscard]] std::vector<Mutant> Mutants() const;

    // Runs the tests on the unchanged driver, compiled as mutants are, and throws when one fails: every mutant would
    // count as killed.
    void TestUnchanged() const;

    // Builds a mutant and runs the tests on it until the first fails, in a folder for each worker.
    [[nodiscard]] Verdict Judge(const Mutant& mutant, unsigned worker) const;

private:
    struct Source {
        std::string file;     // below the project's root
        std::string path;     // as the compiler is given it
        std::string folder;   // where the compiler runs
        std::string command;  // what compiles it
        std::string object;   // where that leaves the object file, from the folder
        std::string text;
    };

    [[nodiscard]] bool Compile(const Source& source, const std::filesystem::path& text,
                               const std::filesystem::path& object, const std::string& more) const;
    void CompileUnchanged(const Source& source, const std::filesystem::path& object, const std::string& more) const;
    [[nodiscard]] std::string FirstFailure(const std::filesystem::path& driver, const std::filesystem::path& log) const;

    const std::filesystem::path folder_;
    const std::filesystem::path work_;  // of the workers; below the build folder
    std::vector<Source> sources_;
    std::string link_;  // the command, run in the build folder
};

}  // namespace mutation
