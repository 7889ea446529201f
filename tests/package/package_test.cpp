// The package as a whole: what is in it, what its README says, and that signatures on its images hold.
#include "tests/package/assembled.h"
#include "tests/package/version_resource.h"
#include "tools/trace_gen/guid_text.h"

#include <algorithm>
#include <set>

namespace tests {
namespace {

const std::set<std::string> kClientCmake = {
    "compile_time.cmake", "image_options.cmake", "linux-arm64.cmake",        "pugixml.cmake",
    "unpack_package.sh",  "zepn-config.cmake",   "zepn-config-version.cmake"};

class Package : public AssembledPackage {
protected:
    // The end status of sign.sh, with the test certificate; options stand before the command.
    [[nodiscard]] int Sign(const std::string& options = "") const
    {
        return Shell(options + " '" + root_ + "/driver/package/sign.sh' '" + folder_.string() + "' '" +
                     (folder_ / "work").string() + "' 2>&1")
            .status;
    }

    // Whether the certificate's signature on an image holds, and all that is said of it.
    [[nodiscard]] Ran Verify(const std::string& image) const
    {
        return Shell("osslsigncode verify -CAfile '" + (folder_ / "work/test-certificate.pem").string() + "' -in '" +
                     (folder_ / image).string() + "' 2>&1");
    }
};

TEST_F(Package, HoldsWhatItsReadmeListsAndNothingElse)
{
    std::set<std::string> expected = {"README.md",          "install.ps1",       "uninstall.ps1",
                                      "probe/README.md",    "probe/answers.txt", "include/zepn_notifier.h",
                                      "trace/zepn.man",     "trace/zepn.ctl",    "trace/zepn.wprp",
                                      "wdk/zepn_version.h", "wdk/stamp.props",   "wdk/trace_formats.cpp"};
    for (const MessageSet set : {MessageSet::kMain, MessageSet::kForwarding}) {
        expected.insert("trace/" + trace_gen::GuidText(set) + ".tmf");
    }
    for (const std::string& machine : {std::string("arm64"), std::string("x64")}) {
        for (const char* extension : {".sys", ".pdb", ".inf"}) {
            expected.insert(machine + "/zepn" + extension);
            expected.insert("probe/" + machine + "/zepn_probe" + extension);
            expected.insert("samples/client/" + machine + "/zepn_client" + extension);
            expected.insert("samples/crashdump/" + machine + "/zepn_crashdump" + extension);
        }
    }
    // For clients: the sources of what builds and tests them.
    for (const char* part :
         {"host", "platform/include", "platform/windows", "driver/include", "samples/common", "tools/play",
          "tools/peers", "tools/test_client", "tools/command_line", "tools/new_client", "cmake"}) {
        for (const auto& entry : fs::recursive_directory_iterator(fs::path(root_) / part)) {
            const std::string name = entry.path().lexically_relative(root_).string();
            const bool isOfImages = std::string(part) == "cmake" && !kClientCmake.contains(name.substr(6));
            if (entry.is_regular_file() && !isOfImages && entry.path().filename() != ".clang-format") {
                expected.insert("client/" + name);
            }
        }
    }
    expected.insert({"client/VERSION", "client/driver/trace/identifiers.h"});
    std::set<std::string> found;
    for (const auto& entry : fs::recursive_directory_iterator(folder_)) {
        if (entry.is_regular_file()) {
            found.insert(entry.path().lexically_relative(folder_).string());
        }
    }
    EXPECT_EQ(found, expected);

    const std::string readme = ReadAll(folder_ / "README.md");
    EXPECT_EQ(readme.find('@'), std::string::npos) << "a place that nothing filled";
    EXPECT_TRUE(Has(readme, VersionResource(folder_ / "arm64" / "zepn.sys").FileVersion()));
    for (const std::string& name : found) {
        const std::string top = name.substr(0, name.find('/') == std::string::npos ? name.size() : name.find('/') + 1);
        EXPECT_TRUE(top == "README.md" || readme.find("`" + top + "`") != std::string::npos) << top;
    }
    EXPECT_TRUE(Has(ReadAll(folder_ / "include" / "zepn_notifier.h"), "Version " + version_));
}

TEST_F(Package, SignedImagesVerifyPageByPageAndDamageIsSeen)
{
    ASSERT_EQ(Sign(), 0);
    for (const char* image : {"arm64/zepn.sys", "x64/zepn.sys", "probe/x64/zepn_probe.sys",
                              "samples/client/arm64/zepn_client.sys", "samples/crashdump/x64/zepn_crashdump.sys"}) {
        const Ran ran = Verify(image);
        EXPECT_EQ(ran.status, 0) << image << "\n" << ran.printed;
        EXPECT_TRUE(Has(ran.printed, "Page hash")) << image;
    }
    std::fstream file(folder_ / "arm64" / "zepn.sys", std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(0x1000);
    file.put('\x5A');
    file.put('\xA5');
    file.close();
    EXPECT_NE(Verify("arm64/zepn.sys").status, 0);
}

// Nobody answers there: without the countersignature that was asked for there is no signature at all.
TEST_F(Package, IsNotSignedWithoutTheTimeStampThatWasAskedFor)
{
    const fs::path image = folder_ / "arm64" / "zepn.sys";
    const std::string before = ReadAll(image);
    EXPECT_NE(Sign("ZEPN_TIMESTAMP_URL=http://127.0.0.1:9/"), 0);
    EXPECT_EQ(ReadAll(image), before);
}

}  // namespace
}  // namespace tests
