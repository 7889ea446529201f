// What many tests do with texts, with files, and with programs that print.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <sys/wait.h>

namespace tests {

// EXPECT_TRUE(Has(text, words)): a failure shows the text.
inline testing::AssertionResult Has(const std::string& text, const std::string& words)
{
    return text.find(words) != std::string::npos ? testing::AssertionSuccess() << "it has \"" << words << "\": " << text
                                                 : testing::AssertionFailure() << "no \"" << words << "\" in: " << text;
}

// The first group of each place that the expression matches.
inline std::set<std::string> Matches(const std::string& text, const std::string& expression)
{
    std::set<std::string> found;
    const std::regex regex(expression);
    for (std::sregex_iterator at(text.begin(), text.end(), regex), end; at != end; ++at) {
        found.insert((*at)[1]);
    }
    return found;
}

// At how many places it matches.
inline std::size_t CountMatches(const std::string& text, const std::string& expression)
{
    const std::regex regex(expression);
    return static_cast<std::size_t>(
        std::distance(std::sregex_iterator(text.begin(), text.end(), regex), std::sregex_iterator()));
}

inline std::vector<std::string> LinesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

inline std::string ReadAll(const std::filesystem::path& file)
{
    std::ifstream stream(file, std::ios::binary);
    EXPECT_TRUE(stream) << file;
    return {std::istreambuf_iterator<char>(stream), {}};
}

// The words of the exception that the work throws; "none" when it throws none.
template <class Work>
std::string Thrown(const Work& work)
{
    try {
        work();
    } catch (const std::exception& error) {
        return error.what();
    }
    return "none";
}

// How a line of the shell ended, and what it printed.
struct Ran {
    int status;
    std::string printed;
};
inline Ran Shell(const std::string& line)
{
    Ran ran;
    FILE* const pipe = popen(line.c_str(), "r");
    for (int byte = std::fgetc(pipe); byte != EOF; byte = std::fgetc(pipe)) {
        ran.printed += static_cast<char>(byte);
    }
    ran.status = WEXITSTATUS(pclose(pipe));
    return ran;
}

// A folder of a test's own, which goes with it.
class TemporaryFolder {
public:
    explicit TemporaryFolder(const std::string& begin = "zepn-test-")
    {
        std::string name = (std::filesystem::temp_directory_path() / (begin + "XXXXXX")).string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        path = name;
    }
    ~TemporaryFolder() { std::filesystem::remove_all(path); }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    // Writes a file, and gives its path.
    std::filesystem::path Write(const std::filesystem::path& name, const std::string& text) const
    {
        std::filesystem::create_directories((path / name).parent_path());
        std::ofstream(path / name, std::ios::binary) << text;
        return path / name;
    }
    // Runs a line of the shell in it.
    Ran Run(const std::string& line) const { return Shell("cd '" + path.string() + "' && " + line); }

    std::filesystem::path path;
};

}  // namespace tests
