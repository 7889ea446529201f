// zepn-platform-page: writes docs/platform.md anew, into a folder of generated pages.
#include "tools/command_line/command_line.h"
#include "tools/platform_page/page.h"

#include <fstream>
#include <iostream>

int main(int argumentCount, char** arguments)
{
    std::string headers;
    std::string file;
    CLI::App app("Writes the page about the platform that the host plays.", "zepn-platform-page");
    app.add_option("HEADERS", headers, "the folder of the platform's headers")->required();
    app.add_option("FILE", file, "the page")->required();
    if (const auto status = tools::ReadCommandLine(app, argumentCount, arguments)) {
        return *status;
    }
    try {
        std::filesystem::create_directories(std::filesystem::path(file).parent_path());
        std::ofstream stream(file, std::ios::binary);
        stream << platform_page::Page(headers) << std::flush;
        if (!stream) {
            throw std::runtime_error(file + ": cannot be written");
        }
    } catch (const std::exception& error) {
        std::cerr << "zepn-platform-page: " << error.what() << "\n";
        return tools::kBadInput;
    }
    return 0;
}
