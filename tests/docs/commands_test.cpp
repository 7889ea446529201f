// Every command that the README and the pages of docs/ show is run: those of the demo here, as ./zepn would start it
// once all is built; the others by a script of the tests. Pictures between the lines are what their command makes.
#include "tests/docs/text_files.h"

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

// Up to the closing back-quote, comment or end of the line.
constexpr const char* kCommand = R"(\./zepn ([a-z]+[^`#>]*[^`#>\s-]))";

// A folder of its own in which the demo's commands run; scenarios/ lies in it as in the repository.
struct Folder : TemporaryFolder {
    Folder() { std::filesystem::create_directory_symlink(kRoot / "scenarios", path / "scenarios"); }

    void RunDemo(const std::string& command) const
    {
        const Ran ran = Run(std::string("'" ZEPN_PLAY "'") + command.substr(command.find("demo") + 4) + " 2>&1");
        EXPECT_EQ(ran.status, 0) << command << "\n" << ran.printed;
    }
};

TEST(Commands, OfReadmeAndPagesAreRun)
{
    std::string scripts = ReadAll(kRoot / ".ci/run");
    for (const auto& entry : std::filesystem::recursive_directory_iterator(kRoot / "tests")) {
        if (entry.path().extension() == ".sh") {
            scripts += ReadAll(entry.path());
        }
    }
    const Folder folder;
    unsigned played = 0;
    for (const auto& page : Pages()) {
        for (const std::string& line : LinesOf(ReadAll(page))) {
            for (const std::string& command : Matches(line, kCommand)) {
                SCOPED_TRACE(page.string() + ": ./zepn " + command);
                if (command == "demo --image arm64") {  // another host's: only the script can run it
                    EXPECT_TRUE(Has(scripts, "zepn " + command));
                } else if (command.starts_with("demo")) {
                    folder.RunDemo(command);
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
        const std::string text = ReadAll(page);
        const std::regex picture(R"(<!-- made by \./zepn (demo --diagram (\S+)[^>]*) -->\n```mermaid\n)");
        for (std::sregex_iterator at(text.begin(), text.end(), picture), end; at != end; ++at) {
            folder.RunDemo((*at)[1]);
            const std::size_t begin = static_cast<std::size_t>(at->position() + at->length());
            EXPECT_EQ(text.substr(begin, text.find("```", begin) - begin), ReadAll(folder.path / (*at)[2].str()))
                << page;
            ++pictures;
        }
    }
    EXPECT_GE(pictures, 2u);
}

}  // namespace
}  // namespace tests
