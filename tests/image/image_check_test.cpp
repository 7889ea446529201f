// The checks of images: the images that ship pass them all, and each check fires at the damage that it is there for.
#include "tests/image/damage.h"
#include "tools/image_check/checks.h"
#include "tools/image_check/disassembly.h"
#include "tools/image_check/text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>

namespace tests {
namespace {

// ---- Structure ----

std::vector<Damage> HeaderDamage()
{
    std::vector<Damage> rows = {
        {Write(Optional(-20), {0x4C, 0x01}), "machine", "0x14C is neither"},
        {Write(Optional(-2), {0x23, 0}), "characteristics", "relocations stripped is set"},
        {ClearBits(Optional(-2), 0x02), "characteristics", "executable is not set"},
        {ClearBits(Optional(-2), 0x20), "characteristics", "large addresses is not set"},
        {Write(Optional(68), {2, 0}), "machine", "subsystem is not native"},
        {Write(Optional(40), {6, 0}), "machine", "system version is not 10.0"},
        {Write(Optional(50), {1, 0}), "machine", "subsystem version is not 10.0"},
        {Write(Optional(32), {0, 0x20, 0, 0}), "machine", "not aligned to 4096"},
        {Write(Optional(36), {0, 0x10, 0, 0}), "machine", "not aligned to 512"},
        {ClearBits(Optional(70), 0x20), "characteristics", "high-entropy addresses is not set"},
        {ClearBits(Optional(70), 0x40), "characteristics", "dynamic base is not set"},
        {ClearBits(Optional(71), 0x01), "characteristics", "no execution of data is not set"},
        {ClearBits(Optional(71), 0x20), "characteristics", "WDM driver is not set"},
        {ClearBits(Optional(71), 0x40), "characteristics", "control flow guard is not set"},
        {Write(Optional(16), {0, 0, 1, 0}), "entry", "lies in no code"},
        {Write(Optional(16), {0, 0, 0, 0}), "entry", "lies in no code"},
        {Write(Optional(60), {0, 0x14, 0, 0}), "sections", ".text begins at 0x1000"},
        {Write(Optional(56), {0, 0, 0x20, 0}), "sections", "the image at 0x200000"},
    };
    constexpr std::pair<unsigned, const char*> kDirectories[] = {
        {0, "exports"}, {9, "thread-local"}, {11, "bound"}, {13, "delayed"}, {14, "managed"}};
    for (const auto& [index, words] : kDirectories) {
        rows.push_back({Write(Directory(index), {0, 0xB0}), "directories", words});
    }
    return rows;
}

std::vector<Damage> SectionDamage()
{
    const auto access = [](SectionIndex section, std::uint8_t value) { return Write(Header(section, 39), {value}); };
    return {
        {access(kText, 0xE0), "sections", ".text is writable and executable"},
        {access(kText, 0x62), "sections", "thrown away"},
        {Write(Header(kText, 0), {'P', 'A', 'G', 'E'}), "sections", "is pageable"},
        {Write(Header(kData, 0), {'.', 'C', 'R', 'T', 0}), "sections", ".CRT needs"},
        {Write(Header(kText, 16), {0, 0, 0, 0x10}), "sections", ".text goes beyond the end"},
        {Write(Header(kRelocationData, 8), {0, 0x40, 0, 0}), "sections", "the sections end at"},
        {access(kData, 0x80), "sections", ".data is not readable"},
        {access(kData, 0x00), "sections, stack protector", ".data is not writable"},
        {access(kText, 0x40), "entry, function table, guard, sections", ".text is not executable"},
        {access(kReadOnlyData, 0xC0), "guard, sections", ".rdata is writable"},
        {access(kReadOnlyData, 0x60), "relocations, sections", ".rdata is executable"},
        {Write(Header(kRelocationData, 16), {0x10}), "sections", ".reloc is not aligned in the file"},
        {Add(Header(kFunctions, 17), 2), "sections", ".rsrc overlaps what stands before"},
        {access(kRelocationData, 0x40), "sections", ".reloc stays in memory"},
        // The relocated slots and the cookie of that section are missing then, too.
        {Write(Header(kData, 16), {0, 0, 0, 0}), "relocations, sections, stack protector", "claims contents"},
        {[](Bytes& bytes, const PeReader&) { bytes.resize(bytes.size() + 8); }, "sections", "its parts end at"},
    };
}

std::vector<Damage> ImportAndRelocationDamage()
{
    // Where the first relocated slot of the first page lies.
    const Place slot = [](const PeReader& image) {
        const std::uint64_t page = Table(5)(image);
        return image.OffsetOf(image.At<std::uint32_t>(page) + (image.At<std::uint16_t>(page + 8) & 0xFFF), 1);
    };
    return {
        {Write(Followed(Table(1, 12)), {'q'}), "imports", "imports from q"},
        {Write(Followed(Followed(Table(1)), 2), {'q'}), "imports", "not on the list"},
        {Write(Followed(Table(1), 7), {0x80}), "imports", "1 imports by number"},
        {Write(Table(1, 20 + 12), {0, 0, 0, 0}), "imports", "not exactly two"},
        {Write(Table(1), {0, 0, 0, 0x7F}), "imports", "in no section"},
        {Write(Table(5, 9), {0x30}), "relocations", "type 3"},
        {Write(Table(5), {0, 0x10, 0, 0}), "relocations", "is in no data"},
        {[slot](Bytes& bytes, const PeReader& good) { bytes.at(slot(good) + 7) = 0x40; }, "relocations",
         "points out of the image"},
        {Write(Directory(5), Bytes(8)), "relocations", "there are none"},
        {Write(Table(5, 4), {0xFF, 0xFF, 0, 0}), "relocations", "claims 65535 bytes"},
    };
}

std::vector<Damage> FunctionTableDamage()
{
    const Edit none = Write(Directory(3, 4), {0, 0, 0, 0});
    const Edit half = Write(Directory(3, 4), {4, 0, 0, 0});
    const Place firstWithUnwindData = [](const PeReader& image) {
        std::uint64_t entry = Table(3)(image);
        while ((image.At<std::uint32_t>(entry + 4) & 3) != 0) {
            entry += 8;
        }
        return entry + 4;
    };
    return {
        {none, "function table", "nothing can be unwound"},
        {none, "function table", "nothing can be unwound", "arm64"},
        {half, "function table", "no whole number"},
        {half, "function table", "no whole number", "arm64"},
        {Write(Table(3, 4), {0, 0, 0, 0}), "function table", "is empty or out of order"},
        {Write(Table(3), {0, 0, 1, 0}), "function table", "is not within code", "arm64"},
        {SetBits(Followed(Table(3, 8)), 7), "function table", "unknown version"},
        {SetBits(Followed(firstWithUnwindData, 2), 0x0C), "function table", "unknown version", "arm64"},
    };
}

std::vector<Damage> GuardAndDebugDamage()
{
    const Place guarded = FollowedPointer(Table(10, 128));
    return {
        {Write(Directory(10), {0, 0, 0, 0}), "guard, stack protector", "no load configuration"},
        {Write(Table(10), {0x70, 0, 0, 0}), "guard", "says 112 bytes"},
        {Write(Table(10, 144), {0, 0x04}), "guard", "instrumented is not set"},
        {[](Bytes& bytes, const PeReader& good) {
             Copy(Header(kData, 12), Table(10, 112), 4)(bytes, good);  // the beginning of the data section
             Write(Table(10, 112 + 3), {0x40})(bytes, good);
         },
         "guard", "is not in read-only data"},
        {Write(FollowedPointer(Table(10, 120)), {0, 0, 1}), "guard", "dispatch pointer points to no code"},
        {Write(Table(10, 136), {0, 0}), "guard", "no function may be called"},
        {Write(Table(10, 136), Bytes(4, 0xFF)), "guard", "section"},
        {Write(guarded, {0, 0, 0, 0}), "guard", "0x0 is no code"},
        {[guarded](Bytes& bytes, const PeReader& good) {
             const std::uint64_t first = guarded(good);
             std::swap_ranges(&bytes.at(first), &bytes.at(first + 4), &bytes.at(first + 4));
         },
         "guard", "is not sorted"},
        // The field is a relocated slot.
        {Write(Table(10, 88), Bytes(8)), "relocations, stack protector", "names no cookie"},
        {Copy(Table(10, 112), Table(10, 88), 8), "stack protector", "no aligned word of writable data"},
        {Add(Table(10, 88), 4), "stack protector", "no aligned word of writable data"},
        {Add(FollowedPointer(Table(10, 88)), 1), "stack protector", "so the loader puts no random value in its place",
         "arm64"},
        {Write(FollowedInFile(Table(6, 24), 24), {'C', ':', '\\'}), "debug records", "not that of a file alone"},
        {Write(FollowedInFile(Table(6, 24)), {'X'}), "debug records", "names no PDB"},
        {Write(Directory(6, 4), {0, 0, 0, 0}), "debug records", "not exactly one PDB"},
        {Write(DebugEntry(16, 12), {13}), "debug records", "not the contents'"},
        {Write(FollowedInFile(DebugEntry(20, 24)), {0}), "debug records", "shadow stacks (CET) are not declared"},
    };
}

class ImageCheck : public testing::TestWithParam<const char*> {
protected:
    const PeReader good = PeReader::FromFile(PathOf(GetParam()));
    const bool isArm = good.headers().machine == image_check::kMachineArm64;

    [[nodiscard]] static std::string Disassembly()
    {
        return image_check::Disassemble("llvm-objdump-19", PathOf(GetParam()));
    }
};

INSTANTIATE_TEST_SUITE_P(Of, ImageCheck, testing::Values("arm64", "x64"),
                         [](const auto& info) { return std::string(info.param); });

TEST_P(ImageCheck, FindsNothingWrongWithWhatShips)
{
    EXPECT_EQ(TextOf(image_check::CheckStructure(good)), "");
    EXPECT_EQ(TextOf(image_check::CheckCode(good, Disassembly())), "");
}

TEST(ImageCheckDamage, IsFoundByTheCheckThatIsThereForIt)
{
    for (const auto& rows :
         {HeaderDamage(), SectionDamage(), ImportAndRelocationDamage(), FunctionTableDamage(), GuardAndDebugDamage()}) {
        ExpectFound(rows);
    }
}

TEST_P(ImageCheck, NoticesEveryChangedByteByTheChecksum)
{
    constexpr std::size_t kStep = 251;
    for (std::size_t at = good.headers().headersSizeBytes; at < good.bytes().size(); at += kStep) {
        Bytes bytes = good.bytes();
        bytes[at] ^= 1;
        EXPECT_TRUE(Has(ChecksOf(image_check::CheckStructure(PeReader(bytes))), "checksum")) << "byte " << at;
    }
}

// Whatever a file holds, it is judged and never read beyond its end; the sanitizers look on.
TEST_P(ImageCheck, JudgesAnyDamageAndAnyLength)
{
    const auto judge = [](const Bytes& bytes) {
        try {
            return !image_check::CheckStructure(PeReader(bytes)).empty();
        } catch (const FormatError&) {
            return true;
        }
    };
    for (std::size_t at = 0; at < good.headers().headersSizeBytes; ++at) {
        for (const int mask : {0x01, 0x80, 0xFF}) {
            Bytes bytes = good.bytes();
            bytes[at] = static_cast<std::uint8_t>(bytes[at] ^ mask);
            EXPECT_TRUE(judge(bytes)) << "header byte " << at;
        }
    }
    for (std::size_t length = 0; length < good.bytes().size(); length += 61) {
        EXPECT_TRUE(judge(Bytes(good.bytes().begin(), good.bytes().begin() + static_cast<std::ptrdiff_t>(length))))
            << length << " bytes";
    }
}

// ---- Code ----

// The address of a leaf: code that stands in no function of the table.
std::uint64_t LeafAddress(const PeReader& image)
{
    const std::vector<image_check::FunctionRange> ranges = image.FunctionRanges();
    for (std::size_t index = 1; index < ranges.size(); ++index) {
        if (ranges[index].begin - ranges[index - 1].end >= 16) {
            return image.headers().preferredBase + ranges[index - 1].end;
        }
    }
    throw FormatError("the image has no leaf");
}

TEST_P(ImageCheck, FindsCodeThatCannotBeUnwoundAndForbiddenRegisters)
{
    struct Row {
        const char* instruction;
        std::string checks;
    };
    const std::vector<Row> armRows = {
        {"bl\t0x140001000", "unwinding"},
        {"blr\tx8", "unwinding"},
        {"sub\tsp, sp, #0x20", "unwinding"},
        {"str\tx30, [sp, #-0x10]!", "unwinding"},
        {"ldr\tx1, [x18, #0x18]", "registers"},
        {"mov\tw18, w0", "registers"},
        {"b\t0x140001000", ""},
        {"ldr\tx1, [x19, #0x18]", ""},
    };
    const std::vector<Row> x64Rows = {
        {"callq\t0x140001000", "unwinding"},
        {"callq\t*%rax", "unwinding"},
        {"pushq\t%rsi", "unwinding"},
        {"subq\t$0x28, %rsp", "unwinding"},
        {"movq\t%rcx, 0x8(%rsp)", "unwinding"},
        {"vmovups\t%ymm0, (%rcx)", "registers"},
        {"jmp\t0x140001000", ""},
        {"movups\t%xmm0, (%rcx)", ""},
    };
    const std::string disassembly = Disassembly();
    const std::uint64_t leaf = LeafAddress(good);
    for (const Row& row : isArm ? armRows : x64Rows) {
        const std::string line = image_check::Join(std::hex, leaf, ": \t", row.instruction, "\n");
        EXPECT_EQ(ChecksOf(image_check::CheckCode(good, line + disassembly)), row.checks) << row.instruction;
    }
}

TEST_P(ImageCheck, FindsCodeWhoseFramesAreNotChecked)
{
    // A weaker form of the compiler's option still checks a few.
    constexpr std::size_t kFewestCheckedFrames = 30;
    std::string disassembly = Disassembly();
    EXPECT_GE(image_check::CountCheckedFrames(good, disassembly), kFewestCheckedFrames);
    const std::regex fastFail(isArm ? R"(brk\t#0xf003)" : R"(int\t\$0x29)");
    ASSERT_TRUE(std::regex_search(disassembly, fastFail));
    disassembly = std::regex_replace(disassembly, fastFail, "nop");
    EXPECT_EQ(ChecksOf(image_check::CheckCode(good, disassembly)), "stack protector");
    EXPECT_EQ(image_check::CountCheckedFrames(good, disassembly), 0u);
}

TEST_P(ImageCheck, SaysSoWhenCodeCannotBeHeldAgainstTheFunctionTable)
{
    Bytes bytes = good.bytes();
    Put(bytes, Directory(3, 4)(good), {4, 0, 0, 0});
    EXPECT_EQ(ChecksOf(image_check::CheckCode(PeReader(bytes), Disassembly())), "unwinding");
}

TEST_P(ImageCheck, DoesNotTakeABrokenOffDisassemblyForCleanCode)
{
    const std::string whole = Disassembly();
    for (const std::string& part : {std::string(), whole.substr(0, whole.size() / 2)}) {
        EXPECT_EQ(ChecksOf(image_check::CheckCode(good, part)), "disassembly, stack protector");
    }
    EXPECT_THROW((void)image_check::Disassemble("llvm-objdump-19", "/nonexistent"), std::runtime_error);
    EXPECT_THROW((void)image_check::Disassemble("no-such-disassembler", PathOf(GetParam())), std::runtime_error);
}

}  // namespace
}  // namespace tests
