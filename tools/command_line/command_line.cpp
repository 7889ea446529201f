#include "tools/command_line/command_line.h"

namespace tools {

std::optional<int> ReadCommandLine(CLI::App& app, int argumentCount, char** arguments)
{
    try {
        app.parse(argumentCount, arguments);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? 0 : kBadInput;
    }
    return std::nullopt;
}

}  // namespace tools
