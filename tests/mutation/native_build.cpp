#include "tests/mutation/native_build.h"

#include "tests/mutation/process.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace mutation {
namespace {

// Warnings end no mutant, except those of values that are not there: such code has no behaviour to test.
constexpr const char* kOptions = " -g0 -Wno-everything -Werror=return-type -Werror=uninitialized"
                                 " -Werror=sometimes-uninitialized";

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

// What stands between a word and the blank after it.
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

NativeBuild::NativeBuild(std::filesystem::path root, std::filesystem::path folder)
    : root_(std::move(root)), folder_(std::move(folder))
{
    const auto commands = nlohmann::json::parse(TextOf(folder_ / "compile_commands.json"));
    for (const auto& entry : commands) {
        const std::string path = entry.at("file");
        const std::string command = entry.at("command");
        const std::string file = std::filesystem::relative(path, root_).string();
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
    link_ = OutputOf(folder_, std::string("ninja -t commands -s ") + kDriver);
    while (link_.ends_with('\n')) {
        link_.pop_back();
    }
}

SyntaxTree NativeBuild::TreeOf(const Source& source) const
{
    std::istringstream dump(
        OutputOf(source.folder, source.command + kOptions + " -fsyntax-only -Xclang -ast-dump=json"));
    return ReadSyntaxTree(dump, source.path, source.text);
}

bool NativeBuild::Compile(const Source& source, const std::filesystem::path& text,
                          const std::filesystem::path& object) const
{
    // The compiler reads the other file wherever its command names the source, which keeps its name.
    return Run(source.folder, source.command + kOptions + " -Xclang -remap-file -Xclang " +
                                  ShellWord(source.path + ";" + text.string()) + " -o " + ShellWord(object.string()) +
                                  " > " + ShellWord(object.string() + ".log") + " 2>&1");
}

Built NativeBuild::Build(const Source& source, const std::string& text, const std::filesystem::path& into) const
{
    std::filesystem::create_directories(into);
    const auto unchanged = into / "unchanged";
    const auto reference = unchanged / (std::filesystem::path(source.object).filename().string());
    if (!std::filesystem::exists(reference)) {
        std::filesystem::create_directories(unchanged);
        if (!Compile(source, source.path, reference)) {
            throw std::runtime_error(source.file + ": does not compile; see " + reference.string() + ".log");
        }
    }
    const auto object = into / "mutant.o";
    Write(into / "mutant.cpp", text);
    if (!Compile(source, into / "mutant.cpp", object)) {
        return Built::kRefused;
    }
    if (TextOf(object) == TextOf(reference)) {
        return Built::kSameCode;
    }
    std::string link = link_;
    ReplaceOnce(link, " -o " + std::string(kDriver), " -o " + ShellWord(DriverIn(into).string()));
    ReplaceOnce(link, source.object, ShellWord(object.string()));
    if (!Run(folder_, link + " > " + ShellWord((into / "link.log").string()) + " 2>&1")) {
        return Built::kRefused;  // what only other sources called is there no more, or twice
    }
    return Built::kDriver;
}

}  // namespace mutation
