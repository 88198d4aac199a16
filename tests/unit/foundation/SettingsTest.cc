#include "foundation/CheckedSettings.h"

#include "support/TempRoot.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace settings = kel::settings;

namespace {

const std::string kHead = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n";
const std::string kEnd = "</dict>\n</plist>\n";
const std::string kAddress = "\t<key>kel.bindAddress</key>\n\t<string>127.0.0.5</string>\n";

class SettingsFiles : public testing::Test {
protected:
    std::string Config() const { return root_.config() + "/com.tessaly.yar.config.plist"; }
    void Put(const std::string& entries) { PutText(kHead + entries + kEnd); }
    void PutText(const std::string& text) { std::ofstream(Config()) << text; }

    void ExpectLoopbackOnlyAndOneFinding(const std::string& what) {
        EXPECT_EQ("127.0.0.1", settings::BindAddress()) << what;
        const std::vector<settings::Finding> findings = settings::Check();
        ASSERT_EQ(1u, findings.size()) << what;
        EXPECT_EQ(Config(), findings[0].file);
        EXPECT_FALSE(findings[0].fault.empty());
        EXPECT_NE(CStdStr::npos, findings[0].instead.find("listening on 127.0.0.1 only")) << findings[0].Text();
    }

    TempRoot root_;
};

}  // namespace

TEST_F(SettingsFiles, ThatAreBrokenOpenNothingToTheNetwork) {
    const std::string whole = kHead + kAddress + kEnd;
    for (size_t length = 0; length + 1 < whole.size(); ++length) {
        PutText(whole.substr(0, length));
        ExpectLoopbackOnlyAndOneFinding("the first " + std::to_string(length) + " bytes");
    }
    for (const std::string tag : {"</key>", "<string>", "</string>", "<string>127.0.0.5</string>", "</dict>"}) {
        std::string text = whole;
        PutText(text.erase(text.find(tag), tag.size()));
        ExpectLoopbackOnlyAndOneFinding("without " + tag);
    }
    for (const std::string text : {"bplist00", "kel.bindAddress = 127.0.0.5\n"}) {
        PutText(text);
        ExpectLoopbackOnlyAndOneFinding(text);
    }
    std::filesystem::remove(Config());
    std::filesystem::create_directory(Config());
    ExpectLoopbackOnlyAndOneFinding("a folder");
    EXPECT_EQ(5001, settings::DirectoryPort());
}

TEST_F(SettingsFiles, AreCheckedValueByValue) {
    const struct {
        const char* entry;
        const char* address;
        const char* text;  // of the finding, or null for none
    } rows[] = {
        {"", "0.0.0.0", nullptr},
        {"<key>kel.bindAddress</key><string>127.0.0.5</string>", "127.0.0.5", nullptr},
        {"<key>kel.bindAddress</key><string>localhost</string>", "127.0.0.1",
         ": kel.bindAddress is \"localhost\", which is no IPv4 address; listening on 127.0.0.1 only"},
        {"<key>kel.bindAddress</key><string></string>", "127.0.0.1",
         ": kel.bindAddress is \"\", which is no IPv4 address; listening on 127.0.0.1 only"},
        {"<key>kel.bindAddress</key><array><string>127.0.0.5</string></array>", "127.0.0.1",
         ": kel.bindAddress is a date, data, array or dict, where a string belongs; listening on 127.0.0.1 only"},
        {"<key>kel.bindAdress</key><string>127.0.0.5</string>", "0.0.0.0",
         ": kel.bindAdress is no setting of this file; ignored"},
        {"<key>LogLevel</key><integer>3</integer>", "0.0.0.0", ": LogLevel is no setting of this file; ignored"},
        {"<key>other</key><true/>", "0.0.0.0", nullptr},
        {"<key>kel.directoryPort</key><string>6001</string>", "0.0.0.0",
         ": kel.directoryPort is a string, where an integer belongs; using 6001"},
        {"<key>kel.directoryPort</key><integer>70000</integer>", "0.0.0.0",
         ": kel.directoryPort is 70000, which is no port; using 5001"},
        {"<key>kel.multicastGroup</key><string>all</string>", "0.0.0.0",
         ": kel.multicastGroup is \"all\", which is no IPv4 address; using 239.255.255.251"},
        {"<key>kel.syncFiles</key><true/>", "0.0.0.0",
         ": kel.syncFiles is a boolean, where an integer belongs; read as 1"},
    };
    for (const auto& row : rows) {
        Put(row.entry);
        EXPECT_EQ(row.address, settings::BindAddress()) << row.entry;
        std::string said;
        for (const settings::Finding& finding : settings::Check()) said += finding.Text();
        EXPECT_EQ(row.text ? Config() + row.text : "", said);
    }
}
