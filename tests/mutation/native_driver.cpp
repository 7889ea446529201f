#include "tests/mutation/native_driver.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace mutation {
namespace {

constexpr const char* kDriver = "platform/zepn.so";  // in the build folder

// Warnings end no mutant, except those of values that are not there: such code has no behaviour to test.
constexpr const char* kOptions = " -Wno-everything -Werror=return-type -Werror=uninitialized"
                                 " -Werror=sometimes-uninitialized";
// For object files that are equal when their code is.
constexpr const char* kCodeAlone = " -g0";

// The tests of the native driver, the quickest first.
struct TestProgram {
    const char* name;
    const char* program;
    const char* cases;
    const char* options = "";
};
constexpr TestProgram kTestPrograms[] = {
    {"behaviour", "behaviour_tests", "*/native"},
    {"model", "model_tests", "*/native"},
    {"fault injection", "fault_injection_tests", "*/native*",
     " --gtest_break_on_failure"},  // one case injects hundreds of faults
    {"concurrency", "concurrency_tests", "*/native"},
};
// Of processor time: many times what the longest case takes between two signs of progress.
constexpr const char* kWatchdogSeconds = "10";
// Of address space: a driver that queues work without end must not take the machine's memory.
constexpr const char* kMemoryKilobytes = "8000000";

std::string TextOf(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    if (!stream) {
        throw std::runtime_error(file.string() + ": cannot be read");
    }
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

void Write(const std::filesystem::path& file, const std::string& text)
{
    std::ofstream stream(file, std::ios::binary);
    stream << text;
    if (!stream.flush()) {
        throw std::runtime_error(file.string() + ": cannot be written");
    }
}

// A word as the shell reads it unchanged.
std::string ShellWord(const std::string& word)
{
    std::string text = "'";
    for (const char c : word) {
        text += c == '\'' ? "'\\''" : std::string(1, c);
    }
    return text + "'";
}

// Runs a line of the shell in a folder; true when it ended with status 0. Unlike std::system it lets Ctrl-C end the
// run.
bool Run(const std::string& folder, const std::string& line, const std::filesystem::path& log)
{
    const std::string whole =
        "cd " + ShellWord(folder) + " && { " + line + "; } > " + ShellWord(log.string()) + " 2>&1";
    std::FILE* shell = popen(whole.c_str(), "r");
    if (shell == nullptr) {
        throw std::runtime_error("no shell can be started");
    }
    return pclose(shell) == 0;
}

// What a line prints on its standard output.
std::string OutputOf(const std::string& folder, const std::string& line, const std::filesystem::path& output)
{
    if (!Run(folder, line + " > " + ShellWord(output.string()), output.string() + ".log")) {
        throw std::runtime_error("failed: " + line + "; see " + output.string() + ".log");
    }
    return TextOf(output);
}

// What stands between an option and the blank after it.
std::string WordAfter(const std::string& command, const std::string& option)
{
    const std::size_t begin = command.find(option);
    if (begin == std::string::npos) {
        throw std::runtime_error("no " + option + "in the command " + command);
    }
    const std::size_t end = command.find(' ', begin + option.size());
    return command.substr(begin + option.size(), end - begin - option.size());
}

void ReplaceOnce(std::string& text, const std::string& what, const std::string& with)
{
    const std::size_t at = text.find(what);
    if (at == std::string::npos) {
        throw std::runtime_error("no " + what + " in the command " + text);
    }
    text.replace(at, what.size(), with);
}

}  // namespace

NativeDriver::NativeDriver(const std::filesystem::path& root, std::filesystem::path folder)
    : folder_(std::move(folder)), work_(folder_ / "mutants")
{
    std::filesystem::remove_all(work_);  // object files of other sources
    std::filesystem::create_directories(work_);
    for (const auto& entry : nlohmann::json::parse(TextOf(folder_ / "compile_commands.json"))) {
        const std::string path = entry.at("file");
        const std::string command = entry.at("command");
        const std::string file = std::filesystem::relative(path, root).string();
        if (command.find("zepn_native.dir") != std::string::npos && file.starts_with("driver/")) {
            sources_.push_back({.file = file,
                                .path = path,
                                .folder = entry.at("directory"),
                                .command = command,
                                .object = WordAfter(command, " -o "),
                                .text = TextOf(path)});
        }
    }
    if (sources_.empty()) {
        throw std::runtime_error(folder_.string() + ": builds no native driver");
    }
    std::ranges::sort(sources_, {}, &Source::file);
    link_ = OutputOf(folder_, std::string("ninja -t commands -s ") + kDriver, work_ / "link");
    while (link_.ends_with('\n')) {
        link_.pop_back();
    }
}

std::vector<Mutant> NativeDriver::Mutants() const
{
    std::vector<Mutant> all;
    for (const Source& source : sources_) {
        std::istringstream dump(OutputOf(
            source.folder, source.command + kOptions + " -fsyntax-only -Xclang -ast-dump=json", work_ / "syntax"));
        std::ranges::move(MutantsOf(ReadSyntaxTree(dump, source.path, source.text), source.file, source.text),
                          std::back_inserter(all));
    }
    return all;
}

void NativeDriver::TestUnchanged() const
{
    const auto driver = work_ / "zepn.so";
    std::string link = link_;
    ReplaceOnce(link, " -o " + std::string(kDriver), " -o " + ShellWord(driver.string()));
    for (const Source& source : sources_) {
        const auto object = work_ / std::filesystem::path(source.object).filename();
        CompileUnchanged(source, object, "");
        ReplaceOnce(link, source.object, ShellWord(object.string()));
    }
    if (!Run(folder_, link, work_ / "link.log")) {
        throw std::runtime_error("the unchanged driver does not link; see " + (work_ / "link.log").string());
    }
    if (const std::string failed = FirstFailure(driver, work_ / "unchanged.log"); !failed.empty()) {
        throw std::runtime_error("the " + failed + " tests fail on the unchanged driver; see " +
                                 (work_ / "unchanged.log").string());
    }
}

Verdict NativeDriver::Judge(const Mutant& mutant, unsigned worker) const
{
    const Source& source = *std::ranges::find(sources_, mutant.file, &Source::file);
    const auto into = work_ / std::to_string(worker);
    const auto unchanged = into / "unchanged" / std::filesystem::path(source.object).filename();
    if (!std::filesystem::exists(unchanged)) {
        std::filesystem::create_directories(unchanged.parent_path());
        CompileUnchanged(source, unchanged, kCodeAlone);
    }
    const auto object = into / "mutant.o";
    const auto driver = into / "zepn.so";
    Write(into / "mutant.cpp", Apply(mutant, source.text));
    if (!Compile(source, into / "mutant.cpp", object, kCodeAlone)) {
        return {.status = MutantStatus::kRefused, .killedBy = ""};
    }
    if (TextOf(object) == TextOf(unchanged)) {
        return {.status = MutantStatus::kSameCode, .killedBy = ""};
    }
    // Tests read the names of its functions and lines.
    (void)Compile(source, into / "mutant.cpp", object, "");
    std::string link = link_;
    ReplaceOnce(link, " -o " + std::string(kDriver), " -o " + ShellWord(driver.string()));
    ReplaceOnce(link, source.object, ShellWord(object.string()));
    if (!Run(folder_, link, into / "link.log")) {
        return {.status = MutantStatus::kRefused,
                .killedBy = ""};  // what other sources call is there no more, or twice
    }
    const std::string killedBy = FirstFailure(driver, into / "tests.log");
    return {.status = killedBy.empty() ? MutantStatus::kSurvived : MutantStatus::kKilled, .killedBy = killedBy};
}

bool NativeDriver::Compile(const Source& source, const std::filesystem::path& text, const std::filesystem::path& object,
                           const std::string& more) const
{
    // The compiler reads the other file wherever its command names the source, which keeps its name.
    return Run(source.folder,
               source.command + kOptions + more + " -Xclang -remap-file -Xclang " +
                   ShellWord(source.path + ";" + text.string()) + " -o " + ShellWord(object.string()),
               object.string() + ".log");
}

void NativeDriver::CompileUnchanged(const Source& source, const std::filesystem::path& object,
                                    const std::string& more) const
{
    if (!Compile(source, source.path, object, more)) {
        throw std::runtime_error(source.file + ": does not compile; see " + object.string() + ".log");
    }
}

// The tests that fail first; empty when all pass.
std::string NativeDriver::FirstFailure(const std::filesystem::path& driver, const std::filesystem::path& log) const
{
    for (const TestProgram& tests : kTestPrograms) {
        const std::string line = std::string("ulimit -c 0; ulimit -v ") + kMemoryKilobytes +
                                 "; ZEPN_NATIVE_DRIVER=" + ShellWord(driver.string()) +
                                 " ZEPN_WATCHDOG_SECONDS=" + kWatchdogSeconds + " tests/" + tests.program +
                                 " --gtest_filter=" + ShellWord(tests.cases) + " --gtest_fail_fast" + tests.options;
        if (!Run(folder_, line, log)) {
            return tests.name;
        }
    }
    return "";
}

}  // namespace mutation
