// Every command that the README and the pages of docs/ show is run: those of the demo here, as ./zepn would start it once
// all is built; the others by a script of the tests. Pictures between the lines are what their command makes.
#include "tests/docs/text_files.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <regex>

namespace tests {
namespace {

std::vector<std::filesystem::path> Pages()
{
    std::vector<std::filesystem::path> pages = {kRoot / "README.md"};
    for (const auto& entry : std::filesystem::directory_iterator(kRoot / "docs")) {
        pages.push_back(entry.path());
    }
    return pages;
}

// "./zepn demo --trace": up to the closing back-quote, comment or end of the line.
std::vector<std::string> CommandsIn(const std::string& line)
{
    std::vector<std::string> commands;
    const std::regex command(R"(\./zepn ([a-z]+[^`#>]*[^`#>\s-]))");
    for (std::sregex_iterator at(line.begin(), line.end(), command), end; at != end; ++at) {
        commands.push_back((*at)[1]);
    }
    return commands;
}

// A folder of its own in which the demo's commands run; scenarios/ lies in it as in the repository.
class Folder {
public:
    Folder()
    {
        std::string name = (std::filesystem::temp_directory_path() / "zepn-docs-XXXXXX").string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        path_ = name;
        std::filesystem::create_directory_symlink(kRoot / "scenarios", path_ / "scenarios");
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;

    void Run(const std::string& command) const
    {
        const std::string line =
            "cd '" + path_.string() + "' && '" + ZEPN_PLAY + "'" + command.substr(command.find("demo") + 4);
        EXPECT_EQ(std::system((line + " > log 2>&1").c_str()), 0) << command << "\n" << TextOf(path_ / "log");
    }
    [[nodiscard]] const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

TEST(Commands, OfReadmeAndPagesAreRun)
{
    std::string scripts = TextOf(kRoot / ".ci/run");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(kRoot / "tests")) {
        if (entry.path().extension() == ".sh") {
            scripts += TextOf(entry.path());
        }
    }
    const Folder folder;
    unsigned played = 0;
    for (const auto& page : Pages()) {
        for (const std::string& line : LinesOf(TextOf(page))) {
            for (const std::string& command : CommandsIn(line)) {
                SCOPED_TRACE(page.string() + ": ./zepn " + command);
                if (command == "demo --image arm64") {  // another host's: only the script can run it
                    EXPECT_NE(scripts.find("zepn " + command), std::string::npos);
                } else if (command.starts_with("demo")) {
                    folder.Run(command);
                    ++played;
                } else {
                    const std::string verb = command.substr(0, command.find(' '));
                    EXPECT_NE(scripts.find("zepn " + verb), std::string::npos) << "no script of the tests runs it";
                }
            }
        }
    }
    EXPECT_GT(played, 5u);
}

// <!-- made by ./zepn demo --diagram FILE ... --> stands above a picture.
TEST(Commands, MakeThePicturesThatTheyStandAbove)
{
    const Folder folder;
    unsigned pictures = 0;
    for (const auto& page : Pages()) {
        const std::string text = TextOf(page);
        const std::regex picture(R"(<!-- made by \./zepn (demo --diagram (\S+)[^>]*) -->\n```mermaid\n)");
        for (std::sregex_iterator at(text.begin(), text.end(), picture), end; at != end; ++at) {
            folder.Run((*at)[1]);
            const std::size_t begin = static_cast<std::size_t>(at->position() + at->length());
            EXPECT_EQ(text.substr(begin, text.find("```", begin) - begin), TextOf(folder.path() / (*at)[2].str()))
                << page;
            ++pictures;
        }
    }
    EXPECT_GE(pictures, 2u);
}

}  // namespace
}  // namespace tests
