// zepn-decode: prints captured events and trace messages as text, by the manifest and the message-format files alone.
//
// Ends with 0 when every record could be decoded, 1 when not, 2 for a file that cannot be read or a wrong call.
#include "host/tracing/capture_file.h"
#include "host/tracing/decode.h"
#include "tools/command_line/command_line.h"

#include <iostream>

namespace {

using namespace host::tracing;

bool Print(const CapturedEvent& event, const Manifest& manifest, const MessageFormats&)
{
    const auto decoded = manifest.Decode(event);
    std::cout << event.order << " event " << event.descriptor.Id << " level " << unsigned{event.descriptor.Level}
              << ": ";
    if (!decoded) {
        std::cout << "(not in the manifest: provider " << GuidText(event.provider) << ", " << event.payload.size()
                  << " bytes)\n";
        return false;
    }
    std::cout << decoded->message << "\n";
    return true;
}

bool Print(const CapturedMessage& message, const Manifest&, const MessageFormats& formats)
{
    const auto decoded = formats.Decode(message);
    std::cout << message.order << " trace " << message.number << " ";
    if (!decoded) {
        std::cout << "(in no message-format file: set " << GuidText(message.messageGuid) << ", "
                  << message.payload.size() << " bytes)\n";
        return false;
    }
    std::cout << decoded->site << " " << decoded->level << " " << decoded->function << ": " << decoded->text << "\n";
    return true;
}

}  // namespace

int main(int argumentCount, char** arguments)
{
    const std::string folder = std::string(ZEPN_ROOT) + "/out/manifest";
    std::string file;
    std::string manifestFile = folder + "/zepn.man";
    std::string formatFolder = folder;
    CLI::App app{"Prints captured events and trace messages as text."};
    app.add_option("file", file, "what zepn demo --capture wrote")->required();
    app.add_option("--manifest", manifestFile, "event manifest");
    app.add_option("--tmf", formatFolder, "message-format file, or folder of them");
    if (const auto status = tools::ReadCommandLine(app, argumentCount, arguments)) {
        return *status;
    }
    try {
        const Manifest manifest(manifestFile);
        const MessageFormats formats(formatFolder);
        bool all = true;
        for (const CapturedRecord& record : ReadCapture(file)) {
            all = std::visit([&](const auto& one) { return Print(one, manifest, formats); }, record) && all;
        }
        return tools::EndWith(app, all ? 0 : 1);
    } catch (const std::exception& error) {
        std::cerr << "zepn-decode: " << error.what() << "\n";
        return tools::kBadInput;
    }
}
