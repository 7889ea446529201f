// The structure of the images that ship, read from the files: what a kernel's loader, a debugger and a verifier demand.
#include "tests/image/pe_view.h"
#include "host/environment.h"
#include "host/image/exports.h"
#include "host/image/image.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <array>
#include <cstdio>
#include <functional>
#include <memory>
#include <regex>

namespace tests {
namespace {

struct ImageFile {
    const char* name;
    std::uint16_t machine;
};

std::filesystem::path PathOf(const char* name, const char* file)
{
    return std::filesystem::path(ZEPN_ROOT) / "out" / name / file;
}

class Image : public testing::TestWithParam<ImageFile> {
protected:
    const PeView view{PathOf(GetParam().name, "zepn.sys")};
};

INSTANTIATE_TEST_SUITE_P(Of, Image, testing::Values(ImageFile{"arm64", 0xAA64}, ImageFile{"x64", 0x8664}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_P(Image, IsANativeWdmDriverForItsMachine)
{
    EXPECT_EQ(view.Machine(), GetParam().machine);
    EXPECT_EQ(view.Optional<std::uint16_t>(0), 0x20B);
    EXPECT_EQ(view.Optional<std::uint16_t>(40), 10) << "operating system version";
    EXPECT_EQ(view.Optional<std::uint16_t>(48), 10) << "subsystem version";
    EXPECT_EQ(view.Optional<std::uint16_t>(68), 1) << "subsystem native";
    const auto characteristics = view.Optional<std::uint16_t>(70);
    for (const auto& [bit, name] : {std::pair(0x20, "high entropy"),
                                    {0x40, "dynamic base"},
                                    {0x100, "NX"},
                                    {0x2000, "WDM driver"},
                                    {0x4000, "control flow guard"}}) {
        EXPECT_TRUE(characteristics & bit) << name;
    }
    EXPECT_EQ(view.Optional<std::uint32_t>(32), 4096u);
    EXPECT_EQ(view.At<std::uint16_t>(view.optional - 2) & 1, 0) << "relocations are there";
    EXPECT_EQ(view.Optional<std::uint32_t>(64), view.ComputedChecksum());
}

TEST_P(Image, HasNoWritableCodeAndNoUnwantedSectionsOrDirectories)
{
    for (const auto& section : view.sections) {
        EXPECT_FALSE((section.flags & 0x20000000) != 0 && (section.flags & 0x80000000) != 0) << section.name;
        EXPECT_NE(section.name, ".CRT");
        EXPECT_NE(section.name, ".tls");
    }
    const auto* entry = view.SectionOf(view.Optional<std::uint32_t>(16));
    ASSERT_NE(entry, nullptr);
    EXPECT_EQ(entry->name, ".text");
    for (const unsigned unwanted : {0u, 9u, 11u, 13u}) {
        EXPECT_EQ(view.Directory(unwanted), 0u) << "directory " << unwanted;
    }
    EXPECT_NE(view.Directory(5), 0u) << "base relocations";
}

TEST_P(Image, ImportsOnlyDocumentedNamesOfTwoModules)
{
    EXPECT_EQ(view.Imports(),
              (std::map<std::string, std::set<std::string>>{
                  {"WDFLDR.SYS", {"WdfVersionBind", "WdfVersionUnbind"}},
                  {"ntoskrnl.exe",
                   {"EtwRegister", "EtwUnregister", "EtwWrite", "ExAllocatePoolWithTag", "ExCreateCallback",
                    "ExFreePoolWithTag", "ExRegisterCallback", "ExUnregisterCallback", "IoWMIRegistrationControl",
                    "KeDelayExecutionThread", "MmGetSystemRoutineAddress", "ObfDereferenceObject", "RtlCompareMemory",
                    "RtlCopyUnicodeString", "RtlInitUnicodeString"}}}));
}

TEST_P(Image, RelocatesPlain64BitSlotsOnly)
{
    const std::uint64_t begin = view.Offset(view.Directory(5));
    unsigned slots = 0;
    for (std::uint64_t block = begin; block < begin + view.DirectorySize(5);) {
        const auto size = view.At<std::uint32_t>(block + 4);
        ASSERT_GE(size, 8u);
        for (std::uint64_t at = block + 8; at < block + size; at += 2) {
            const unsigned type = view.At<std::uint16_t>(at) >> 12;
            EXPECT_TRUE(type == 0 || type == 10) << type;
            slots += type == 10 ? 1 : 0;
        }
        block += size;
    }
    EXPECT_GT(slots, 100u);
}

TEST_P(Image, NamesItsPdbWithoutAFolder)
{
    const std::uint64_t directory = view.Offset(view.Directory(6));
    bool found = false;
    for (std::uint64_t at = directory; at < directory + view.DirectorySize(6); at += 28) {
        constexpr std::uint32_t kCodeView = 2;
        if (view.At<std::uint32_t>(at + 12) == kCodeView) {
            const auto record = view.At<std::uint32_t>(at + 24);
            EXPECT_EQ(std::string(reinterpret_cast<const char*>(&view.bytes.at(record + 24))), "zepn.pdb");
            found = true;
        }
    }
    EXPECT_TRUE(found);
    EXPECT_TRUE(std::filesystem::exists(PathOf(GetParam().name, "zepn.pdb")));
}

// ---- Code ----

struct Instruction {
    std::uint32_t address;
    std::string text;
};

std::vector<Instruction> Disassemble(const std::filesystem::path& image)
{
    constexpr std::uint64_t kPreferredBase = 0x140000000;
    std::vector<Instruction> instructions;
    const std::string command = "llvm-objdump-19 -d --no-show-raw-insn " + image.string();
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::array<char, 512> line{};
    while (pipe != nullptr && fgets(line.data(), line.size(), pipe.get()) != nullptr) {
        const std::string text = line.data();
        const std::size_t colon = text.find(':');
        char* end = nullptr;
        const std::uint64_t address = std::strtoull(text.c_str(), &end, 16);
        if (colon != std::string::npos && end == text.c_str() + colon && address > kPreferredBase) {
            instructions.push_back({static_cast<std::uint32_t>(address - kPreferredBase), text.substr(colon + 1)});
        }
    }
    return instructions;
}

TEST_P(Image, EveryFunctionThatCallsOrMovesTheStackCanBeUnwound)
{
    const auto ranges = view.UnwindRanges();
    const auto isCovered = [&](std::uint32_t address) {
        for (const auto& [begin, end] : ranges) {
            if (address >= begin && address < end) {
                return true;
            }
        }
        return false;
    };
    const auto instructions = Disassemble(PathOf(GetParam().name, "zepn.sys"));
    ASSERT_GT(instructions.size(), 2000u);
    const bool arm = GetParam().machine == 0xAA64;
    const std::vector<std::string> needsUnwinding = arm ? std::vector<std::string>{"\tbl\t", "\tblr\t", "sp, ", "[sp"}
                                                        : std::vector<std::string>{"call", "push", "rsp"};
    unsigned uncovered = 0;
    for (const Instruction& instruction : instructions) {
        if (isCovered(instruction.address)) {
            continue;
        }
        ++uncovered;
        for (const std::string& word : needsUnwinding) {
            EXPECT_EQ(instruction.text.find(word), std::string::npos)
                << std::hex << instruction.address << instruction.text;
        }
    }
    EXPECT_LT(uncovered, instructions.size() / 10) << "leaf routines only";
}

TEST_P(Image, LeavesThePlatformRegisterAndTheStackProbeAlone)
{
    const std::regex kPlatformRegister("(^|[^0-9a-z])[xw]18([^0-9a-f]|$)");
    EXPECT_TRUE(std::regex_search("\tldr\tx1, [x18, #0x18]", kPlatformRegister));
    for (const Instruction& instruction : Disassemble(PathOf(GetParam().name, "zepn.sys"))) {
        if (GetParam().machine == 0xAA64) {
            EXPECT_FALSE(std::regex_search(instruction.text, kPlatformRegister)) << instruction.text;
        }
    }
    std::ifstream map(PathOf(GetParam().name, "zepn.map"));
    const std::string text((std::istreambuf_iterator<char>(map)), std::istreambuf_iterator<char>());
    ASSERT_NE(text.find("NotifierEvtDeviceAdd"), std::string::npos);
    EXPECT_EQ(text.find("__chkstk"), std::string::npos) << "a frame of a page or more";
}

TEST_P(Image, GuardsItsIndirectCalls)
{
    const std::uint64_t config = view.Offset(view.Directory(10));
    EXPECT_EQ(view.At<std::uint32_t>(config), 280u);
    constexpr std::uint32_t kInstrumented = 0x100;
    constexpr std::uint32_t kHasFunctionTable = 0x400;
    EXPECT_EQ(view.At<std::uint32_t>(config + 144) & (kInstrumented | kHasFunctionTable),
              kInstrumented | kHasFunctionTable);
    EXPECT_GT(view.At<std::uint64_t>(config + 136), 30u) << "functions whose addresses are taken";
}

// ---- The loader refuses what is damaged ----

#if defined(__x86_64__)
constexpr const char* kOwnMachine = "x64";
constexpr const char* kOtherMachine = "arm64";
#else
constexpr const char* kOwnMachine = "arm64";
constexpr const char* kOtherMachine = "x64";
#endif

class Loader : public testing::Test {
protected:
    const PeView good{PathOf(kOwnMachine, "zepn.sys")};

    // What the loader says of these bytes; empty when it takes them.
    std::string Refusal(std::vector<std::uint8_t> bytes, bool checksumMended)
    {
        if (checksumMended) {
            PeView view = good;
            view.bytes = bytes;
            const std::uint32_t sum = view.ComputedChecksum();
            if (view.optional + 68 <= bytes.size()) {
                memcpy(&bytes[view.optional + 64], &sum, 4);
            }
        }
        const std::filesystem::path file =
            std::filesystem::temp_directory_path() / ("damaged-" + std::to_string(getpid()) + ".sys");
        {
            std::ofstream stream(file, std::ios::binary);
            stream.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        }
        std::string refusal;
        try {
            host::Environment environment({});
            RegisterExports();
            (void)host::image::LoadedImage::Load(environment, file);
        } catch (const host::HostError& error) {
            refusal = error.what();
        }
        std::filesystem::remove(file);
        return refusal;
    }

    std::string RefusalOf(const std::function<void(std::vector<std::uint8_t>&)>& damage)
    {
        std::vector<std::uint8_t> bytes = good.bytes;
        damage(bytes);
        return Refusal(bytes, true);
    }

    static void RegisterExports();
};

void Loader::RegisterExports()
{
    static const bool kDone = [] {
        for (const auto& [module, names] : PeView(PathOf(kOwnMachine, "zepn.sys")).Imports()) {
            for (const std::string& name : names) {
                static std::vector<std::unique_ptr<std::string>> kept;
                kept.push_back(std::make_unique<std::string>(name));
                const host::image::Export entry{kept.back()->c_str(), &kept};
                host::image::AddExports(module, std::span(&entry, 1));
            }
        }
        return true;
    }();
    (void)kDone;
}

TEST_F(Loader, TakesTheGoodImageAndNamesWhatIsWrongWithOthers)
{
    EXPECT_EQ(Refusal(good.bytes, false), "");
    const std::uint64_t optional = good.optional;
    const std::uint64_t firstSection = optional + 240;
    const auto put = [](std::uint64_t at, std::vector<std::uint8_t> value) {
        return [at, value](std::vector<std::uint8_t>& bytes) {
            std::copy(value.begin(), value.end(), bytes.begin() + static_cast<std::ptrdiff_t>(at));
        };
    };
    struct Row {
        const char* name;
        std::function<void(std::vector<std::uint8_t>&)> damage;
        const char* words;
    };
    const Row kRows[] = {
        {"no PE signature", put(optional - 24, {'X'}), "no PE signature"},
        {"other machine", put(optional - 20, {0x4C, 0x01}), "this host runs"},
        {"PE32", put(optional, {0x0B, 0x01}), "not PE32+"},
        {"subsystem", put(optional + 68, {2, 0}), "subsystem is not native"},
        {"image size", put(optional + 56, {1, 0, 0, 0}), "image size"},
        {"entry in data", put(optional + 16, {0, 0, 0, 0}), "no executable section"},
        {"writable code", put(firstSection + 36, {0x20, 0, 0, 0xE0}), "writable and executable"},
        {"section behind the end", put(firstSection + 16, {0xFF, 0xFF, 0xFF, 0x0F}), "behind the end of the file"},
        {"overlapping sections", put(firstSection + 40 + 12, {0, 0x10, 0, 0}), "do not fit"},
        {"thread-local storage", put(optional + 112 + 72, {1, 0, 0, 0}), "none of this kind"},
        {"relocations stripped", put(optional - 2, {0x23, 0x00}), "relocations are stripped"},
        {"relocation outside", put(good.Offset(good.Directory(5)), {0xFF, 0xFF, 0xFF, 0x7F}), "outside the image"},
        {"relocation type", put(good.Offset(good.Directory(5)) + 8, {0x00, 0x30}), "type 3"},
        {"unknown module", put(good.Offset(good.At<std::uint32_t>(good.Offset(good.Directory(1)) + 12)), {'q'}),
         "not exported by this platform"},
        {"unknown name",
         put(good.Offset(static_cast<std::uint32_t>(
                 good.At<std::uint64_t>(good.Offset(good.At<std::uint32_t>(good.Offset(good.Directory(1))))))) +
                 2,
             {'q'}),
         "not exported by this platform"},
        {"import by ordinal", put(good.Offset(good.At<std::uint32_t>(good.Offset(good.Directory(1)))) + 7, {0x80}),
         "by ordinal"},
    };
    for (const Row& row : kRows) {
        const std::string refusal = RefusalOf(row.damage);
        EXPECT_NE(refusal.find(row.words), std::string::npos) << row.name << ": " << refusal;
    }
    std::vector<std::uint8_t> changed = good.bytes;
    changed[changed.size() / 2] ^= 1;
    EXPECT_NE(Refusal(changed, false).find("checksum"), std::string::npos);
}

TEST_F(Loader, RefusesImagesOfOtherMachinesAndOtherFiles)
{
    host::Environment environment({});
    EXPECT_THROW((void)host::image::LoadedImage::Load(environment, PathOf(kOtherMachine, "zepn.sys")), host::HostError);
    EXPECT_THROW((void)host::image::LoadedImage::Load(environment, PathOf(kOwnMachine, "zepn.map")), host::HostError);
    EXPECT_THROW((void)host::image::LoadedImage::Load(environment, "/nonexistent"), host::HostError);
}

// Any header byte changed, any length: refused, or loaded harmlessly, but never a crash.
TEST_F(Loader, SurvivesEveryChangedHeaderByteAndEveryLength)
{
    unsigned refused = 0;
    const auto headers = good.Optional<std::uint32_t>(60);
    for (std::size_t at = 0; at < headers; ++at) {
        std::vector<std::uint8_t> bytes = good.bytes;
        bytes[at] ^= 0xFF;
        refused += Refusal(bytes, true).empty() ? 0 : 1;
    }
    EXPECT_GT(refused, 100u);
    for (std::size_t length = 0; length < good.bytes.size(); length += 97) {
        const std::vector<std::uint8_t> bytes(good.bytes.begin(),
                                              good.bytes.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_NE(Refusal(bytes, true), "") << length << " bytes";
    }
}

}  // namespace
}  // namespace tests
