// One function for each check. They are listed at the end, in the order in which findings are printed.
#include "tools/image_check/report.h"
#include "tools/image_check/text.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <span>

namespace image_check {
namespace {

constexpr std::uint32_t kFileAlignment = 512;

struct Bit {
    std::uint32_t mask;
    std::string_view name;
};

void RequireBits(Report& report, std::uint32_t value, std::span<const Bit> bits, bool wanted)
{
    for (const Bit& bit : bits) {
        if (((value & bit.mask) != 0) != wanted) {
            report.Add(Join(bit.name, wanted ? " is not set" : " is set"));
        }
    }
}

void CheckMachine(const PeReader& image, Report& report)
{
    constexpr std::uint16_t kSubsystemNative = 1;
    const Headers& headers = image.headers();
    if (headers.machine != kMachineX64 && headers.machine != kMachineArm64) {
        report.Add("machine " + Hex(headers.machine) + " is neither x64 nor ARM64");
    }
    report.Require(headers.subsystem == kSubsystemNative, "the subsystem is not native");
    report.Require(headers.systemVersion[0] == 10 && headers.systemVersion[1] == 0, "system version is not 10.0");
    report.Require(headers.subsystemVersion[0] == 10 && headers.subsystemVersion[1] == 0,
                   "subsystem version is not 10.0");
    report.Require(headers.sectionAlignment == 4096, "sections are not aligned to 4096 bytes");
    report.Require(headers.fileAlignment == kFileAlignment, "sections are not aligned to 512 bytes in the file");
}

void CheckCharacteristics(const PeReader& image, Report& report)
{
    constexpr Bit kFileWanted[] = {{0x0002, "executable"}, {0x0020, "large addresses"}};
    constexpr Bit kFileUnwanted[] = {{0x0001, "relocations stripped"}, {0x2000, "DLL"}};
    constexpr Bit kImageWanted[] = {{0x0020, "high-entropy addresses"},
                                    {0x0040, "dynamic base"},
                                    {0x0100, "no execution of data"},
                                    {0x2000, "WDM driver"},
                                    {0x4000, "control flow guard"}};
    RequireBits(report, image.headers().characteristics, kFileWanted, true);
    RequireBits(report, image.headers().characteristics, kFileUnwanted, false);
    RequireBits(report, image.headers().dllCharacteristics, kImageWanted, true);
}

void CheckChecksum(const PeReader& image, Report& report)
{
    const std::uint32_t right = image.ComputedChecksum();
    if (image.headers().checksum != right) {
        report.Add(Join("the header says ", Hex(image.headers().checksum), ", the contents ", Hex(right)));
    }
}

// What the loader lets a section's pages be used for. A name promises more: code that cannot run, or data that cannot
// be written, would fault at the first use.
void CheckAccess(const Section& section, Report& report)
{
    struct Promise {
        std::string_view name;
        bool isExecutable;
        bool isWritable;
    };
    constexpr Promise kPromises[] = {{".text", true, false},   {".rdata", false, false}, {".data", false, true},
                                     {".pdata", false, false}, {".xdata", false, false}, {".rsrc", false, false},
                                     {".reloc", false, false}};
    if (!section.IsReadable()) {
        report.Add(section.name + " is not readable");
    }
    if (section.IsExecutable() && section.IsWritable()) {
        report.Add(section.name + " is writable and executable");
    }
    const auto* promise = std::ranges::find(kPromises, section.name, &Promise::name);
    if (promise == std::end(kPromises)) {
        return;
    }
    if (section.IsExecutable() != promise->isExecutable) {
        report.Add(section.name + (promise->isExecutable ? " is not executable" : " is executable"));
    }
    if (section.IsWritable() != promise->isWritable) {
        report.Add(section.name + (promise->isWritable ? " is not writable" : " is writable"));
    }
}

// Contents in the file begin and end at whole units, after those of the section before.
void CheckRawData(const Section& section, std::uint64_t previousEnd, Report& report)
{
    if (section.rawSizeBytes == 0) {
        return;
    }
    if (section.rawOffset % kFileAlignment != 0 || section.rawSizeBytes % kFileAlignment != 0) {
        report.Add(Join(section.name, " is not aligned in the file: ", section.rawSizeBytes, " bytes at offset ",
                        Hex(section.rawOffset)));
    }
    if (section.rawOffset < previousEnd) {
        report.Add(Join(section.name, " overlaps what stands before it in the file: it begins at offset ",
                        Hex(section.rawOffset), ", that ends at ", Hex(previousEnd)));
    }
}

void CheckSections(const PeReader& image, Report& report)
{
    constexpr std::uint64_t kPageSize = 4096;
    const auto roundUp = [](std::uint64_t size) { return (size + kPageSize - 1) / kPageSize * kPageSize; };
    std::uint64_t nextAddress = roundUp(image.headers().headersSizeBytes);
    std::uint64_t fileEnd = image.headers().headersSizeBytes;
    for (const Section& section : image.sections()) {
        const auto add = [&](std::string_view text) { report.Add(section.name + " " + std::string(text)); };
        if (section.address != nextAddress || section.sizeBytes == 0) {
            add(Join("begins at ", Hex(section.address), " with ", section.sizeBytes,
                     " bytes, not right after what stands before it"));
        }
        nextAddress = section.address + roundUp(section.sizeBytes);
        if (std::uint64_t{section.rawOffset} + section.rawSizeBytes > image.bytes().size()) {
            add("goes beyond the end of the file");
        }
        CheckRawData(section, fileEnd, report);
        fileEnd = std::max(fileEnd, std::uint64_t{section.rawOffset} + section.rawSizeBytes);
        if (section.HoldsInitializedData() && section.rawSizeBytes == 0) {
            add("claims contents, but the file has none");
        }
        CheckAccess(section, report);
        if (section.IsExecutable() && section.IsDiscardable()) {
            add("holds code that is thrown away");
        }
        if (section.name.starts_with("PAGE")) {
            add("is pageable, and its routines run where paging is not possible");
        }
        if (section.name == ".reloc" && !section.IsDiscardable()) {
            add("stays in memory");
        }
        if (section.name == ".CRT" || section.name == ".tls") {
            add("needs a run-time library that a driver has not");
        }
    }
    if (nextAddress != image.headers().imageSizeBytes) {
        report.Add(
            Join("the sections end at ", Hex(nextAddress), ", the image at ", Hex(image.headers().imageSizeBytes)));
    }
    // Only a signature may stand after the sections. Its "address" is an offset.
    const Directory signature = image.directory(kCertificates);
    const std::uint64_t end = signature.address == 0 ? fileEnd : std::uint64_t{signature.address} + signature.sizeBytes;
    if (end != image.bytes().size()) {
        report.Add(Join("the file has ", image.bytes().size(), " bytes, but its parts end at ", end));
    }
}

void CheckEntry(const PeReader& image, Report& report)
{
    const Section* section = image.SectionOf(image.headers().entryAddress);
    if (section == nullptr || !section->IsExecutable()) {
        report.Add("entry point " + Hex(image.headers().entryAddress) + " lies in no code");
    }
}

void CheckDirectories(const PeReader& image, Report& report)
{
    constexpr std::pair<unsigned, const char*> kUnwanted[] = {{kExports, "exports"},
                                                              {kThreadLocalStorage, "thread-local storage"},
                                                              {kBoundImports, "bound imports"},
                                                              {kDelayImports, "delayed imports"},
                                                              {kManagedCode, "managed code"}};
    for (const auto& [index, name] : kUnwanted) {
        if (image.directory(index).address != 0 || image.directory(index).sizeBytes != 0) {
            report.Add(std::string("a driver has no ") + name);
        }
    }
}

void CheckRelocations(const PeReader& image, Report& report)
{
    constexpr unsigned kPadding = 0;
    constexpr unsigned k64Bit = 10;
    unsigned slots = 0;
    for (const Relocation& relocation : image.Relocations()) {
        if (relocation.type == kPadding) {
            continue;
        }
        ++slots;
        if (relocation.type != k64Bit) {
            report.Add(Join("type ", relocation.type, " at ", Hex(relocation.address)));
            continue;
        }
        const Section* section = image.SectionOf(relocation.address);
        report.Require(section != nullptr && !section->IsExecutable(),
                       "a slot at " + Hex(relocation.address) + " is in no data");
        const auto target = image.AtAddress<std::uint64_t>(relocation.address) - image.headers().preferredBase;
        if (target >= image.headers().imageSizeBytes) {
            report.Add("the slot at " + Hex(relocation.address) + " points out of the image");
        }
    }
    report.Require(slots != 0, "there are none, though tables of routines need them");
}

void CheckFunctionTable(const PeReader& image, Report& report)
{
    const std::vector<FunctionRange> ranges = image.FunctionRanges();
    report.Require(!ranges.empty(), "there is none: nothing can be unwound");
    std::uint32_t previousEnd = 0;
    for (const FunctionRange& range : ranges) {
        const std::string place = Join(Hex(range.begin), " to ", Hex(range.end));
        if (range.begin >= range.end || range.begin < previousEnd) {
            report.Add(place + " is empty or out of order");
        }
        previousEnd = range.end;
        const Section* section = image.SectionOf(range.begin);
        if (section == nullptr || !section->IsExecutable() || section != image.SectionOf(range.end - 1ull)) {
            report.Add(place + " is not within code");
        }
        report.Require(range.version == 1 || (range.version == 2 && image.headers().machine == kMachineX64),
                       place + " has unwind data of an unknown version");
    }
}

void CheckGuardSlot(const PeReader& image, std::uint64_t slot, std::string_view name, Report& report)
{
    const std::uint64_t address = slot - image.headers().preferredBase;
    const Section* section = image.SectionOf(address);
    if (section == nullptr || section->IsWritable()) {
        report.Add(Join("the ", name, " pointer at ", Hex(slot), " is not in read-only data"));
        return;
    }
    const std::uint64_t target = image.AtAddress<std::uint64_t>(address) - image.headers().preferredBase;
    const Section* code = image.SectionOf(target);
    report.Require(code != nullptr && code->IsExecutable(), Join("the ", name, " pointer points to no code"));
}

void CheckGuard(const PeReader& image, Report& report)
{
    constexpr Bit kFlags[] = {{0x100, "instrumented"}, {0x400, "function table present"}};
    const std::optional<LoadConfiguration> configuration = image.GuardConfiguration();
    if (!configuration) {
        report.Add("there is no load configuration");
        return;
    }
    if (image.directory(kLoadConfiguration).sizeBytes != configuration->sizeBytes) {
        report.Add(Join("the load configuration says ", configuration->sizeBytes, " bytes, its directory ",
                        image.directory(kLoadConfiguration).sizeBytes));
    }
    RequireBits(report, configuration->guardFlags, kFlags, true);
    CheckGuardSlot(image, configuration->guardCheckSlot, "check", report);
    CheckGuardSlot(image, configuration->guardDispatchSlot, "dispatch", report);
    const std::vector<std::uint32_t>& functions = configuration->guardedFunctions;
    report.Require(!functions.empty(), "no function may be called indirectly");
    report.Require(std::ranges::is_sorted(functions), "the function table is not sorted");
    for (const std::uint32_t function : functions) {
        const Section* section = image.SectionOf(function);
        report.Require(section != nullptr && section->IsExecutable(), Hex(function) + " is no code");
    }
}

// The system's loader replaces the default value only, and only where the load configuration names it.
void CheckCookie(const PeReader& image, Report& report)
{
    constexpr std::uint64_t kDefaultCookie = 0x00002B992DDFA232;
    const std::uint64_t address = image.CookieAddress();
    if (address == 0) {
        report.Add("the load configuration names no cookie");
        return;
    }
    const Section* section = image.SectionOf(address);
    if (section == nullptr || !section->IsWritable() || address % sizeof(std::uint64_t) != 0) {
        report.Add(Join("the cookie at ", Hex(address), " is no aligned word of writable data"));
        return;
    }
    const auto value = image.AtAddress<std::uint64_t>(address);
    if (value != kDefaultCookie) {
        report.Add(Join("the cookie is ", Hex(value), ", so the loader puts no random value in its place"));
    }
}

void CheckDebugRecords(const PeReader& image, Report& report)
{
    constexpr std::uint32_t kCodeView = 2;
    constexpr std::uint32_t kReproducible = 16;
    constexpr std::uint32_t kShadowStacks = 0x1;
    unsigned pdbCount = 0;
    bool isReproducible = false;
    bool hasShadowStacks = false;
    for (const DebugEntry& entry : image.DebugEntries()) {
        isReproducible = isReproducible || entry.type == kReproducible;
        hasShadowStacks = hasShadowStacks || (entry.extendedDllCharacteristics & kShadowStacks) != 0;
        if (entry.type == kCodeView) {
            ++pdbCount;
            report.Require(!entry.pdbName.empty() && entry.pdbName.find_first_of("/\\:") == std::string::npos,
                           "the PDB's name is \"" + entry.pdbName + "\" and not that of a file alone");
        }
    }
    report.Require(pdbCount == 1, "not exactly one PDB is named");
    report.Require(isReproducible, "the time stamp is the build's, not the contents'");
    report.Require(hasShadowStacks || image.headers().machine != kMachineX64, "shadow stacks (CET) are not declared");
}

struct Check {
    const char* name;
    void (*run)(const PeReader& image, Report& report);
};

constexpr Check kChecks[] = {
    {"machine", CheckMachine},
    {"characteristics", CheckCharacteristics},
    {"checksum", CheckChecksum},
    {"sections", CheckSections},
    {"entry", CheckEntry},
    {"directories", CheckDirectories},
    {"imports", CheckImports},
    {"relocations", CheckRelocations},
    {"function table", CheckFunctionTable},
    {"guard", CheckGuard},
    {"stack protector", CheckCookie},
    {"debug records", CheckDebugRecords},
};

}  // namespace

std::vector<Finding> CheckStructure(const PeReader& image, ReportResources resources)
{
    std::vector<Finding> findings;
    const auto run = [&](const char* name, const auto& check) {
        Report report(findings, name);
        try {
            check(report);
        } catch (const FormatError& error) {
            report.Add(error.what());
        }
    };
    for (const Check& check : kChecks) {
        run(check.name, [&](Report& report) { check.run(image, report); });
    }
    run("resources", [&](Report& report) { CheckResources(image, resources, report); });
    return findings;
}

}  // namespace image_check
