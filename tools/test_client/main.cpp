// zepn-test-client: runs the course on a client driver's image and prints what came of it.
//
// Ends with 0 without a finding, 1 with findings, and 2 for a wrong call or an image that cannot be loaded. A memory
// fault of the client is a finding like any other: it ends a process of its own. Only with --in-process it ends this
// one, with 4 (host::checks::kMemoryFaultExit).
#include "host/environment.h"
#include "tools/command_line/command_line.h"
#include "tools/test_client/report.h"

#include <unistd.h>

#include <fstream>
#include <iostream>

namespace {

constexpr int kHasFindings = 1;

// NAME=VALUE
std::pair<std::string, std::string> Parameter(const std::string& text)
{
    const std::size_t equals = text.find('=');
    if (equals == 0 || equals == std::string::npos) {
        throw host::HostError(text + " is no parameter: NAME=VALUE is, where VALUE is a number or a text");
    }
    return {text.substr(0, equals), text.substr(equals + 1)};
}

// On a terminal, what is being done; it is gone when the report comes.
class Progress {
public:
    ~Progress() { Show(""); }
    void Show(const std::string& what)
    {
        if (isTerminal_) {
            std::cerr << "\r\033[K" << what << std::flush;
        }
    }

private:
    const bool isTerminal_ = isatty(STDERR_FILENO) == 1;
};

}  // namespace

int main(int argumentCount, char** arguments)
{
#if defined(__x86_64__)
    const char* const machine = "x64";
#else
    const char* const machine = "arm64";
#endif
    test_client::CourseSetup setup;
    setup.notifier = std::filesystem::path(ZEPN_ROOT) / "out" / machine / "zepn.sys";
    setup.states = {1, 2, 3, 4, 5, 6, 7, 8};
    setup.commands = {1, 2, 3, 4, 5, 6, 7, 8};
    test_client::CourseOptions options;
    std::vector<std::string> parameters;
    std::string junitFile;
    std::string color = "auto";

    CLI::App app{
        "Runs a client driver through all that the Notifier, its peers and the system may do to it, and then once "
        "with each of its calls failing."};
    app.add_option("image", setup.client, "the client: an image for this processor, or a native module")->required();
    app.add_option("--parameters", parameters, "values below its Parameters key, NAME=VALUE");
    app.add_option("--states", setup.states, "that its peers post (default: 1 to 8)");
    app.add_option("--commands", setup.commands, "that it is sent, where it takes any (default: 1 to 8)");
    app.add_option("--notifier", setup.notifier,
                   "the Notifier's image or module (default: " + setup.notifier.lexically_relative(ZEPN_ROOT).string() +
                       ")");
    app.add_option("--only", options.only, "only the cases and faults whose names contain this text");
    app.add_flag("--allow-missing", setup.allowMissing,
                 "load a client that needs functions which the host does not play");
    app.add_flag("--in-process", options.inProcess, "no processes of their own for the cases: for a debugger");
    app.add_option("--output-junit", junitFile, "write the results to this file, as JUnit does");
    app.add_option("--color", color, "auto, always or never")->check(CLI::IsMember({"auto", "always", "never"}));
    if (const auto status = tools::ReadCommandLine(app, argumentCount, arguments)) {
        return *status;
    }

    try {
        for (const std::filesystem::path& image : {setup.client, setup.notifier}) {
            if (!std::filesystem::exists(image)) {
                throw host::HostError(image.string() + ": there is no such file");
            }
        }
        for (const std::string& parameter : parameters) {
            setup.parameters.push_back(Parameter(parameter));
        }
        test_client::Report report;
        {
            Progress progress;
            options.onBegin = [&progress](const std::string& what) { progress.Show(what); };
            report = test_client::RunCourse(setup, options);
        }
        if (report.results.empty()) {
            throw host::HostError("no case or fault is called " + options.only);
        }
        if (!junitFile.empty()) {
            std::ofstream junit(junitFile, std::ios::binary);
            test_client::WriteJUnit(junit, setup, report);
            junit.close();
            if (!junit) {
                throw host::HostError(junitFile + ": cannot be written");
            }
        }
        const bool colored = color == "always" || (color == "auto" && isatty(STDOUT_FILENO) == 1);
        test_client::Print(std::cout, setup, report, colored);
        return tools::EndWith(app, test_client::FailedCount(report) == 0 ? 0 : kHasFindings);
    } catch (const std::exception& error) {
        std::cerr << "zepn-test-client: " << error.what() << "\n";
        return tools::kBadInput;
    }
}
