#include "host/checks/type_members.h"

#include "host/checks/tool.h"

#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <utility>
#include <vector>

namespace host::checks {
namespace {

struct Member {
    std::uint64_t offset;
    std::string name;
    std::string type;
};
using Members = std::vector<Member>;
using Structures = std::map<std::string, Members>;

// What stands between two marks; empty without them.
std::string Between(const std::string& line, const std::string& before, char after)
{
    const std::size_t mark = line.find(before);
    if (mark == std::string::npos) {
        return {};
    }
    const std::size_t begin = mark + before.size();
    return line.substr(begin, line.find(after, begin) - begin);
}

// All of a PDB. A structure names the list of its members, which stands before it, and a member its type, by numbers.
Structures ReadPdb(const std::string& text)
{
    std::map<std::string, Members> lists;
    std::map<std::string, std::string> names;
    std::map<std::string, std::string> listOf;  // by the structure's name
    std::istringstream stream(text);
    std::string current;
    for (std::string line; std::getline(stream, line);) {
        if (line.find(" | LF_") != std::string::npos) {
            current = line.substr(line.find_first_not_of(' '), line.find(" |") - line.find_first_not_of(' '));
            if (line.find("LF_STRUCTURE") != std::string::npos) {
                names[current] = Between(line, "`", '`');
            }
        } else if (line.find("LF_MEMBER") != std::string::npos) {
            lists[current].push_back({std::strtoull(Between(line, "offset = ", ',').c_str(), nullptr, 10),
                                      Between(line, "name = `", '`'), Between(line, "Type = ", ',')});
        } else if (const std::string list = Between(line, "field list: ", ' '); list.starts_with("0x")) {
            listOf[names[current]] = list;
        }
    }
    Structures structures;
    for (const auto& [name, list] : listOf) {
        structures[name] = lists[list];
        for (Member& member : structures[name]) {
            const auto type = names.find(member.type);
            member.type = type == names.end() ? "" : type->second;
        }
    }
    return structures;
}

// What the tool says of one structure in DWARF.
Members ReadDwarf(const std::string& text)
{
    Members members;
    bool isMember = false;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        if (line.find("DW_TAG_") != std::string::npos) {
            isMember = line.find("DW_TAG_member") != std::string::npos;
            if (isMember) {
                members.push_back({});
            }
        } else if (isMember && line.find("DW_AT_name") != std::string::npos) {
            members.back().name = Between(line, "(\"", '"');
        } else if (isMember && line.find("DW_AT_type") != std::string::npos) {
            members.back().type = Between(line, " \"", '"');
        } else if (isMember && line.find("DW_AT_data_member_location") != std::string::npos) {
            members.back().offset = std::strtoull(Between(line, "(", ')').c_str(), nullptr, 16);
        }
    }
    return members;
}

class Layouts {
public:
    const Members& Of(const std::filesystem::path& image, const std::string& structure)
    {
        const auto [file, isNew] = files_.try_emplace(image.string());
        File& known = file->second;
        if (isNew) {
            std::ifstream stream(image, std::ios::binary);
            known.isElf = stream.get() == '\x7f';
            if (!known.isElf) {
                std::filesystem::path pdb = image;
                pdb.replace_extension(".pdb");
                known.structures = ReadPdb(AskTool({"llvm-pdbutil-19", "dump", "--types", pdb}, "").value_or(""));
            }
        }
        const auto [entry, isUnasked] = known.structures.try_emplace(structure);
        if (known.isElf && isUnasked) {
            entry->second = ReadDwarf(
                AskTool({"llvm-dwarfdump-19", "--name=" + structure, "--show-children", image}, "").value_or(""));
        }
        return entry->second;
    }

private:
    struct File {
        bool isElf = false;
        Structures structures;
    };
    std::map<std::string, File> files_;
};

}  // namespace

std::string MemberName(const std::filesystem::path& image, const std::string& structure, std::uint64_t offset)
{
    static std::mutex mutex;
    static auto* known = new Layouts;  // a report may be the last act of a process
    const std::lock_guard lock(mutex);
    // What C names by a typedef has a tag that begins with a line.
    for (const std::string& name : {structure, "_" + structure}) {
        for (const Member& member : known->Of(image, name)) {
            if (member.offset == offset && !member.name.empty()) {
                // The first member of a structure inside lies at the same place.
                const Members& inside = known->Of(image, member.type);
                return inside.empty() || inside.front().offset != 0 ? member.name
                                                                    : member.name + "." + inside.front().name;
            }
        }
    }
    return {};
}

}  // namespace host::checks
