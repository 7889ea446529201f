#include "tools/command_line/command_line.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <iostream>

#include <fcntl.h>
#include <unistd.h>

namespace tools {
namespace {

std::string NameOf(const CLI::App& app)
{
    return std::filesystem::path(app.get_name()).filename().string();
}

}  // namespace

std::optional<int> ReadCommandLine(CLI::App& app, int argumentCount, char** arguments)
{
    app.name(arguments[0]);
    // The next file that is opened would get the number, and the output with it.
    if (fcntl(STDOUT_FILENO, F_GETFD) == -1) {
        std::cerr << NameOf(app) << ": the standard output is closed\n";
        return kBadInput;
    }
    try {
        app.parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        return EndWith(app, app.exit(error) == 0 ? 0 : kBadInput);
    }
    return std::nullopt;
}

int EndWith(const CLI::App& app, int status)
{
    errno = 0;
    if (std::cout.flush()) {
        return status;
    }
    std::cerr << NameOf(app) << ": the output could not be written";
    if (errno != 0) {
        std::cerr << ": " << std::strerror(errno);
    }
    std::cerr << "\n";
    return kBadInput;
}

CLI::Validator Unsigned()
{
    return {[](const std::string& text) -> std::string {
                std::uint64_t number = 0;
                const char* end = text.data() + text.size();
                const auto [rest, error] = std::from_chars(text.data(), end, number);
                return error == std::errc() && rest == end ? "" : "no whole number from 0 to 2^64-1: " + text;
            },
            "NUMBER"};
}

}  // namespace tools
