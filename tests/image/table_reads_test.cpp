// Which entries of the framework's table an image reads is found in its code: all of those in our own images, and in no
// code that might read something else.
#include "host/image/table_reads.h"
#include "host/framework/framework.h"
#include "host/machine.h"
#include "tests/image/damage.h"

#include <gtest/gtest.h>

#include <set>

namespace tests {
namespace {

using Entries = std::set<std::uint32_t>;
using host::image::FunctionTablePlace;

// The image as the loader maps it, at the base that it prefers.
std::vector<std::uint8_t> Mapped(const PeReader& file)
{
    std::vector<std::uint8_t> image(file.headers().imageSizeBytes);
    for (const image_check::Section& section : file.sections()) {
        const std::size_t count = std::min(section.rawSizeBytes, section.sizeBytes);
        std::copy_n(file.bytes().begin() + section.rawOffset, count, image.begin() + section.address);
    }
    return image;
}

std::set<std::string> NamesRead(const std::filesystem::path& path, bool isX64)
{
    const PeReader file = PeReader::FromFile(path);
    const std::vector<std::uint8_t> image = Mapped(file);
    const auto place = host::image::FindFunctionTable(image, file.headers().preferredBase);
    EXPECT_TRUE(place) << path;
    Entries entries;
    for (const image_check::Section& section : file.sections()) {
        if (place && section.IsExecutable()) {
            const auto code = std::span(image).subspan(section.address, section.sizeBytes);
            (isX64 ? host::image::x64::AddEntriesRead : host::image::arm64::AddEntriesRead)(code, section.address,
                                                                                            *place, entries);
        }
    }
    std::set<std::string> names;
    for (const std::uint32_t entry : entries) {
        names.insert(host::framework::EntryAt(entry).name);
    }
    return names;
}

// The framework's functions that sources call. What wdf.h makes of some of them is known here.
std::set<std::string> NamesCalled(const std::vector<const char*>& folders)
{
    std::set<std::string> called{"WdfObjectGetTypedContextWorker"};  // in what declares a context type
    for (const char* folder : folders) {
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(std::filesystem::path(ZEPN_ROOT) / folder)) {
            if (entry.path().extension() != ".cpp") {
                continue;
            }
            for (std::string line : LinesOf(ReadAll(entry.path()))) {
                line.erase(std::min(line.find("//"), line.size()));
                for (const std::string& name : Matches(line, R"(\b(Wdf\w+)\()")) {
                    called.insert({name, name + "Actual"});
                }
            }
        }
    }
    std::set<std::string> functions;
    for (unsigned index = 0; index < host::framework::kFunctionCount; ++index) {
        functions.insert(host::framework::EntryAt(index).name);
    }
    std::erase_if(called, [&](const std::string& name) { return !functions.contains(name); });
    return called;
}

TEST(TableReads, InOurImagesAreThoseOfTheSources)
{
    struct Row {
        const char* image;
        std::vector<const char*> sources;
    };
    const Row rows[] = {
        {"zepn", {"driver"}},
        {"zepn_client", {"samples/client", "samples/common"}},
        {"zepn_crashdump", {"samples/crashdump", "samples/common"}},
        {"zepn_probe", {"samples/probe"}},
    };
    for (const Row& row : rows) {
        const std::set<std::string> called = NamesCalled(row.sources);
        EXPECT_GT(called.size(), 10u) << row.image;
        for (const char* machine : {"x64", "arm64"}) {
            const auto path = std::filesystem::path(ZEPN_ROOT) / "out" / machine / (std::string(row.image) + ".sys");
            EXPECT_EQ(NamesRead(path, std::string_view(machine) == "x64"), called) << path;
        }
    }
}

constexpr std::uint32_t kCode = 0x1000;
constexpr FunctionTablePlace kVariable{0x2000, 444};
constexpr FunctionTablePlace kOwnTable{0x2000, 396};
constexpr std::uint32_t kEntry = 94;  // at 0x2F0 in the table

TEST(TableReads, OnX64AreCertain)
{
    struct Row {
        const char* name;
        std::vector<std::uint8_t> code;
        Entries expected;
        FunctionTablePlace place = kVariable;
    };
    const std::vector<std::uint8_t> kToRax = {0x48, 0x8B, 0x05, 0xF9, 0x0F, 0x00, 0x00};
    const std::vector<std::uint8_t> kToR11 = {0x4C, 0x8B, 0x1D, 0xF9, 0x0F, 0x00, 0x00};
    const std::vector<std::uint8_t> kCallEntry = {0xFF, 0x90, 0xF0, 0x02, 0x00, 0x00};
    const auto join = [](std::initializer_list<std::vector<std::uint8_t>> parts) {
        std::vector<std::uint8_t> code;
        for (const auto& part : parts) {
            code.insert(code.end(), part.begin(), part.end());
        }
        return code;
    };
    const Row rows[] = {
        {"arguments between",
         join({kToRax,
               {0x48, 0x8D, 0x4C, 0x24, 0x28},                    // lea rcx, [rsp+28h]
               {0x0F, 0x11, 0x44, 0x24, 0x30},                    // movups [rsp+30h], xmm0
               {0x48, 0x8B, 0x15, 0x00, 0x01, 0x00, 0x00},        // mov rdx, [rip+100h]
               {0x45, 0x31, 0xC0},                                // xor r8d, r8d
               {0xC7, 0x44, 0x24, 0x30, 0x38, 0x00, 0x00, 0x00},  // mov dword [rsp+30h], 38h
               kCallEntry}),
         {kEntry}},
        {"two entries",
         join({kToR11,
               {0x49, 0x8B, 0x5B, 0x10},                      // mov rbx, [r11+10h]
               {0x85, 0xC0, 0x75, 0x10},                      // test eax, eax; jne
               {0x41, 0xFF, 0xA3, 0xF0, 0x02, 0x00, 0x00}}),  // jmp [r11+2F0h]
         {2, kEntry}},
        {"the register is written", join({kToRax, {0x48, 0x8B, 0x03}, kCallEntry}), {}},  // mov rax, [rbx]
        {"the register is popped", join({kToRax, {0x58}, kCallEntry}), {}},
        {"after a call", join({kToRax, {0xE8, 0x00, 0x00, 0x00, 0x00}, kCallEntry}), {}},
        {"an index", join({kToRax, {0x48, 0x8B, 0x84, 0xC8, 0xF0, 0x02, 0x00, 0x00}}), {}},
        {"half an entry", join({kToRax, {0x8B, 0x80, 0xF0, 0x02, 0x00, 0x00}}), {}},  // mov eax, [rax+2F0h]
        {"between two entries", join({kToRax, {0x48, 0x8B, 0x80, 0xF4, 0x02, 0x00, 0x00}}), {}},
        {"past the client's last", join({kToRax, {0x48, 0x8B, 0x80, 0xE0, 0x0D, 0x00, 0x00}}), {}},
        {"another variable", join({{0x48, 0x8B, 0x05, 0xF1, 0x0F, 0x00, 0x00}, kCallEntry}), {}},
        {"a table of its own",
         {0xFF, 0x15, 0xEA, 0x12, 0x00, 0x00, 0x48, 0x8B, 0x05, 0x03, 0x10, 0x00, 0x00},
         {2, kEntry},
         kOwnTable},
        {"the end of the code", kToRax, {}},
    };
    for (const Row& row : rows) {
        Entries entries;
        host::image::x64::AddEntriesRead(row.code, kCode, row.place, entries);
        EXPECT_EQ(entries, row.expected) << row.name;
    }
}

TEST(TableReads, OnArm64AreCertain)
{
    constexpr std::uint32_t kPageToX8 = 0xB0000008;   // adrp x8, variable
    constexpr std::uint32_t kTableToX8 = 0xF9400108;  // ldr x8, [x8]
    constexpr std::uint32_t kEntryToX9 = 0xF9417909;  // ldr x9, [x8, #0x2F0]
    constexpr std::uint32_t kPageToX23 = 0xB0000017;  // adrp x23, variable
    constexpr std::uint32_t kX23ToX8 = 0xF94002E8;    // ldr x8, [x23]
    constexpr std::uint32_t kReturn = 0xD65F03C0;
    struct Row {
        const char* name;
        std::vector<std::uint32_t> code;
        Entries expected;
        FunctionTablePlace place = kVariable;
    };
    const Row rows[] = {
        {"at once", {kPageToX8, kTableToX8, kEntryToX9}, {kEntry}},
        {"by a pair", {kPageToX23, 0x910042F7, 0xA97F02E8, kEntryToX9}, {kEntry}},   // add, ldp x8, x0, [x23, #-16]
        {"unscaled", {kPageToX8, kTableToX8, 0xF84F010A}, {30}},                     // ldur x10, [x8, #240]
        {"after a call", {kPageToX23, 0x94000040, kX23ToX8, kEntryToX9}, {kEntry}},  // bl
        {"along a branch", {kPageToX23, 0xB4000060, kReturn, kReturn, kX23ToX8, kEntryToX9}, {kEntry}},  // cbz +12
        // b +16; back from there to the loop before it by cbz -12
        {"along a branch backwards",
         {kPageToX23, 0x14000004, kX23ToX8, kEntryToX9, kReturn, 0xB4FFFFA0, kReturn},
         {kEntry}},
        {"not past a return", {kPageToX23, kReturn, kX23ToX8, kEntryToX9}, {}},
        {"not past a call of what it scratches", {kPageToX8, kTableToX8, 0x94000040, kEntryToX9}, {}},
        {"the page is written", {kPageToX23, 0xAA0103F7, kX23ToX8, kEntryToX9}, {}},    // mov x23, x1
        {"the table is written", {kPageToX8, kTableToX8, 0xD2800008, kEntryToX9}, {}},  // mov x8, #0
        {"copied", {kPageToX23, kX23ToX8, 0xAA0803E1, 0xF9417829}, {kEntry}},           // mov x1, x8
        {"another variable", {kPageToX8, 0xF9400508, kEntryToX9}, {}},                  // ldr x8, [x8, #8]
        {"a table of its own", {kPageToX8, kEntryToX9}, {kEntry}, kOwnTable},
    };
    for (const Row& row : rows) {
        Entries entries;
        const auto* bytes = reinterpret_cast<const std::uint8_t*>(row.code.data());
        host::image::arm64::AddEntriesRead({bytes, row.code.size() * 4}, kCode, row.place, entries);
        EXPECT_EQ(entries, row.expected) << row.name;
    }
}

}  // namespace
}  // namespace tests
